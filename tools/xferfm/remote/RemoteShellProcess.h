// The remote shell of a copy over SSH, as a child process with a pipe on
// each of its standard streams: the copy's frames go through its standard
// input and output, its standard error is for people (RemoteErrorRelay).
//
// Why a class of its own: the child must never outlive the copy, never
// keep the tool's blocked signal mask, and never be left a zombie. So:
// - the child starts with no signal blocked and the default action for
//   SIGINT, SIGTERM, SIGHUP and SIGPIPE, whatever the tool's threads block
//   or ignore;
// - it stays in the tool's process group, so a password prompt of the
//   remote shell still reads the terminal, and a Ctrl-C typed there reaches
//   it as it reaches the tool;
// - the destructor ends a child still running (SIGTERM, then SIGKILL after
//   a grace period) and always reaps it.
//
// THREADING CONTRACT
// 1. Construct, take the pipe ends and wait on one thread. takeInput,
//    takeOutput and takeErrors hand each end over once (an invalid OwnedFd
//    after that).
// 2. terminate may be called from any thread (a signal hook) at any time,
//    also after the child has ended; it only sends a signal.
// 3. The destructor blocks at most the grace period plus a moment.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "xferfm/host/OwnedFd.h"

namespace xferfm::cli {

using orin::xfer::host::OwnedFd;

// How a child ended.
struct ChildEnd {
    int exitCode = -1;  // -1 when a signal ended it
    int signal = 0;     // 0 when it exited
    std::string describe() const;  // "exit code 255", "signal 9"
};

class RemoteShellProcess {
public:
    // Starts argv[0] (searched in PATH) with `argv`. Throws ToolError
    // (kRemoteUnavailable) when it cannot be started at all.
    explicit RemoteShellProcess(const std::vector<std::string>& argv);
    ~RemoteShellProcess();
    RemoteShellProcess(const RemoteShellProcess&) = delete;
    RemoteShellProcess& operator=(const RemoteShellProcess&) = delete;

    // The write end of the child's standard input, its standard output's
    // read end, its standard error's read end.
    OwnedFd takeInput() { return std::move(mInput); }
    OwnedFd takeOutput() { return std::move(mOutput); }
    OwnedFd takeErrors() { return std::move(mErrors); }

    enum class FirstWord {
        kSpoke,        // the child wrote to its standard output
        kEnded,        // it closed its standard output without a byte: it never started speaking
        kInterrupted,  // `stop` returned true first
    };
    // Blocks until the child's standard output has a byte to read (left
    // unread), or is closed, or `stop` returns true (asked every 100 ms).
    // Call before takeOutput.
    FirstWord waitForFirstWord(const std::function<bool()>& stop);

    // Waits up to `timeout` for the child to end; its end once it has.
    std::optional<ChildEnd> waitEnd(std::chrono::milliseconds timeout);
    // Sends SIGTERM to a child still running.
    void terminate();
    pid_t pid() const { return mPid; }

private:
    bool reap(bool block);

    pid_t mPid = -1;
    std::atomic<bool> mReaped{false};
    std::optional<ChildEnd> mEnd;
    OwnedFd mInput;
    OwnedFd mOutput;
    OwnedFd mErrors;
};

}  // namespace xferfm::cli
