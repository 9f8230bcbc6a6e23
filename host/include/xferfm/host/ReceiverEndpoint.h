// The receiving end of a copy: asks a SenderEndpoint for its list and
// brings every entry into a destination directory, like
// `cp -r SOURCE... DEST_DIR`.
//
// Usage: construct with a transport end and options, Start(), then
// WaitFinished() and Summary(). One endpoint serves one session (one list).
//
// What lands where: each entry goes to destinationDir + "/" + its relative
// path. A top-level name that already exists is never overwritten: the
// entry gets a duplicate name ("name(1).ext", "dir(1)") and its children
// follow it. Files are received into a private cache directory
// (".xferfm-cache-XXXXXX" inside destinationDir, so on the same
// filesystem), checked for their full size and moved to their final name
// without replacing anything; a file that fails is never visible under a
// final name. Permission bits from the list's "mode" are applied to files
// when they land and to directories at the end (children first), so
// read-only directories still receive their content. The cache directory
// is removed on every exit path.
//
// Names that must fit another platform (ReceiverOptions::names): when the
// list arrives, before the first file is asked for, every path of it is
// checked against the rules of the chosen target (NamePolicy.h), and the
// clashes the mapping would make are looked for across the whole list. An
// entry whose name breaks a rule lands under its mapped name (its children
// follow it) or, with NameAction::kRefuse, is refused with its reason, and
// so is everything inside a refused directory. The sender hears an
// EntryRefused for each refused entry; the rest of the list is copied.
// Requests and announcements keep the sender's names: only the names
// created in destinationDir change.
//
// MEMORY: the list is read once per session, in one pass that builds
// nothing but its entries (FileListEntry, 128 bytes each while names are
// short), and its text is dropped once read; over the network the name
// guard in front does the reading and hands the endpoint the same entries.
// Peak memory while a list arrives stays under 1.25 x the list's bytes +
// 128 bytes an entry + 32 MiB for the whole `serve` process: a list of
// 1,000,000 entries (118 MB of JSON) peaks at 275 MiB.
//
// THREADING CONTRACT
// 1. Every public call may be made from any thread; Start at most once.
//    None of them blocks on the network except WaitFinished, which waits
//    at most `timeout`.
// 2. The endpoint runs its own threads (a session thread that walks the
//    list, and one that waits in the engine for the first file) besides
//    the transport's delivery thread and the engine's loopers. The
//    observer hears from several of them, one call at a time and never
//    after OnFinished (see TransferObserver.h).
// 3. Re-entrancy: an observer callback may call Cancel(), Finished() and
//    Summary(); it must not destroy the endpoint or wait for it to finish.
//
// OWNERSHIP AND LIFETIME
// 4. The endpoint owns the transport from construction on and starts it
//    there. It does not own the observer, which must outlive it.
// 5. The destructor cancels a running session and blocks until the
//    endpoint's threads have stopped, then closes the transport and
//    removes the cache directory.
#pragma once

#include <chrono>
#include <map>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "xferfm/host/FileList.h"
#include "xferfm/host/NamePolicy.h"
#include "xferfm/host/TransferObserver.h"
#include "xferfm/host/Transport.h"

namespace orin::xfer::host {

// How offered names are fitted to the destination's platform.
struct ReceiverNameRules {
    NameTarget target = NameTarget::kPosix;
    // kMap: a name that breaks a rule lands under its reversible mapped
    // form; kRefuse: such an entry is refused. The length rule, a NUL and
    // empty components are refused either way, and so is the later entry
    // of a clash (two names that would land on one).
    NameAction action = NameAction::kMap;
    // Names holding the substitutes of an earlier mapping land under the
    // names they were mapped from (NamePolicy::MapBack), then are checked
    // against `target` (meant for kPosix). Opt-in: with it a name that was
    // made with a full-width character on purpose changes on the way.
    bool mapBack = false;
};

struct ReceiverOptions {
    std::string destinationDir;  // must exist
    // A sender silent this long during a transfer fails the session.
    std::chrono::milliseconds stallTimeout{45000};
    FileListLimits listLimits;
    // Bits cleared from every listed mode before it is applied: pass the
    // process umask (read once, before threads start) to land files the way
    // `cp` without -p does; 0 keeps the sender's modes exact.
    uint32_t permissionMask = 0;
    // Continuing an earlier, interrupted copy: top-level request name ->
    // the name it already has in destinationDir. Such an entry is not given
    // a new name: its directory (and those below it) are entered when they
    // exist, and a file that exists under it is replaced. Leave out what is
    // complete already: the receiver copies every entry it is sent.
    std::map<std::string, std::string> resumeNames;
    // Unset: every name lands byte for byte as the sender sent it.
    std::optional<ReceiverNameRules> names;
    // The same, for a link that learns them from the list itself (a network
    // session resuming): when set, called once as the list arrives, on the
    // transport's delivery thread and before anything lands; its names are
    // added to resumeNames.
    std::function<std::map<std::string, std::string>()> resumeNamesFromLink;
    ReceiverObserver* observer = nullptr;  // not owned; may be null
};

class ReceiverEndpoint final {
public:
    // Starts the transport. The endpoint owns it from now on.
    ReceiverEndpoint(std::unique_ptr<ITransport> transport, ReceiverOptions options);
    ~ReceiverEndpoint();
    ReceiverEndpoint(const ReceiverEndpoint&) = delete;
    ReceiverEndpoint& operator=(const ReceiverEndpoint&) = delete;

    // Name rules chosen after construction (ReceiverOptions::names is the
    // usual way); before Start only: false, and nothing changed, once
    // started or cancelled.
    bool SetNameRules(std::optional<ReceiverNameRules> rules);

    // Creates the cache directory and asks the sender for its list; the
    // copy then runs on its own. False with `error` set when the
    // destination cannot be used, or when called twice or after Cancel.
    bool Start(std::string& error);

    // True once the session has ended (completed, failed or cancelled),
    // false when `timeout` passed first.
    bool WaitFinished(std::chrono::milliseconds timeout);
    bool Finished() const;
    // Ends the session as cancelled; the sender is told. Returns at once:
    // WaitFinished tells when the endpoint has stopped. No effect once
    // finished.
    void Cancel();
    // The outcome so far; final once Finished().
    TransferSummary Summary() const;

    // The private cache directory ("" before Start).
    std::string CacheDirectory() const;

private:
    class Impl;
    std::unique_ptr<Impl> mImpl;
};

}  // namespace orin::xfer::host
