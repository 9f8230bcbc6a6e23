// A real OpenSSH server of the test's own, on 127.0.0.1 at a free port,
// for the tests of `xferfm copy` over SSH. Everything it uses is made in a
// temporary directory: a host key, a client key it accepts and one it
// refuses, its sshd_config (own HostKey, AuthorizedKeysFile, PidFile, no
// PAM, no strict modes) and an ssh_config with its own known_hosts, so
// that `ssh -F CONFIG HOST` logs in with BatchMode and no system file is
// read or changed. The one exception: sshd run as root needs its
// privilege-separation directory, /run/sshd, which is created when
// missing (the package's own service creates it at start).
//
// Two host names are defined in the ssh_config: Host() logs in with the
// accepted key, RefusedHost() with the refused one. The remote command
// runs as the test's own user, in that user's login shell.
//
// Threading: one server per test (or per suite); every call from the
// thread that made it. The server is stopped and its files removed when
// the object goes.
#pragma once

#include <memory>
#include <string>

#include "ChildProcess.h"
#include "TempDir.h"

namespace orin::xfer::test {

class SshServer {
public:
    SshServer();
    ~SshServer();
    SshServer(const SshServer&) = delete;
    SshServer& operator=(const SshServer&) = delete;

    // False when the server could not be started; Problem() says why (a
    // test skips when sshd is not installed and fails otherwise).
    bool Running() const { return mRunning; }
    bool Installed() const;
    const std::string& Problem() const { return mProblem; }

    // The --rsh value that reaches this server: "ssh -F CONFIG".
    std::string Rsh() const;
    // Host names for `xferfm copy` operands.
    static const char* Host() { return "sshtest"; }
    static const char* RefusedHost() { return "sshtest-refused"; }
    // What sshd wrote on stderr, for assertion messages.
    std::string Log() const;

private:
    bool Start();

    TempDir mDir;
    std::unique_ptr<ChildProcess> mServer;
    bool mRunning = false;
    std::string mProblem;
};

}  // namespace orin::xfer::test
