// Which side of a copy each operand names: a path on this machine, or a
// path on another machine written `[USER@]HOST:PATH` as scp and rsync users
// write it. A colon before the first slash marks a remote path, so
// `./a:b` and `/x/a:b` stay local; `[::1]:PATH` brackets an IPv6 address.
//
// The direction of a whole copy follows from its operands: local SOURCEs
// and a remote DEST push, SOURCEs all on one remote host and a local DEST
// pull, everything local stays the in-process copy. Anything else (remote
// to remote, SOURCEs on two hosts, local and remote SOURCEs mixed) is a
// usage error with a message that says which.
//
// Plain functions of their arguments: no state, any thread.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace xferfm::cli {

// One remote operand, split.
struct RemoteTarget {
    std::string user;  // empty: the remote shell's default
    std::string host;  // as written, without brackets
    std::string path;  // empty: the login directory on the remote host

    // USER@HOST (or HOST) as the remote shell takes it.
    std::string login() const;
    // The host as messages name it: HOST, or [HOST] for an IPv6 address.
    std::string hostLabel() const;
    bool sameHost(const RemoteTarget& other) const { return user == other.user && host == other.host; }
};

// The remote side of `operand`, or nullopt when it names a local path.
// Throws ToolError(kUsage) for an operand that is meant to be remote but
// cannot be used: an empty host, a host that starts with '-' (the remote
// shell would read it as an option), an unclosed bracket.
std::optional<RemoteTarget> parseRemoteOperand(const std::string& operand);

enum class CopyDirection { kLocal, kPush, kPull };

// A copy's operands sorted by side.
struct CopyEnds {
    CopyDirection direction = CopyDirection::kLocal;
    RemoteTarget remote;               // kPush: the DEST; kPull: the host of every SOURCE
    std::vector<std::string> sources;  // kPull: the remote paths; otherwise as given
    std::string destination;           // kPush: the remote path; otherwise as given
};

// Throws ToolError(kUsage) for remote to remote, SOURCEs on more than one
// host, or local and remote SOURCEs mixed.
CopyEnds sortCopyOperands(const std::vector<std::string>& sources, const std::string& destination);

}  // namespace xferfm::cli
