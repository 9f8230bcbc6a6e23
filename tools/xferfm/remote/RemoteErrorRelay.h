// Shows what the far side of a copy says on its standard error: each line
// on the tool's stderr, prefixed "HOST: " and with control characters and
// invalid UTF-8 escaped, so the far side cannot drive the local terminal.
// The last lines are kept to explain a far side that could not start.
//
// Why a thread: the far side's messages must appear while the copy runs
// (and a far side blocked on a full stderr pipe would stall the copy), so
// the pipe is drained from the start, not read at the end.
//
// THREADING CONTRACT
// 1. The relay owns `fd` and reads it on a thread of its own until the far
//    side closes it, or until finish gives up waiting.
// 2. finish, lastLines and the destructor are called by the owner's
//    thread; finish blocks up to its timeout; the destructor finishes with
//    a short one.
#pragma once

#include <atomic>
#include <chrono>
#include <deque>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "StderrConsole.h"
#include "xferfm/host/OwnedFd.h"

namespace xferfm::cli {

class RemoteErrorRelay {
public:
    RemoteErrorRelay(orin::xfer::host::OwnedFd fd, std::string hostLabel, StderrConsole& console);
    ~RemoteErrorRelay();
    RemoteErrorRelay(const RemoteErrorRelay&) = delete;
    RemoteErrorRelay& operator=(const RemoteErrorRelay&) = delete;

    // Waits up to `timeout` for the far side to close its stderr, then
    // stops reading. What was read is shown.
    void finish(std::chrono::milliseconds timeout);
    // The last few lines shown, oldest first, as printed (escaped).
    std::vector<std::string> lastLines() const;

private:
    void run();
    void show(const std::string& line);

    const orin::xfer::host::OwnedFd mFd;
    const std::string mPrefix;
    StderrConsole& mConsole;
    std::atomic<bool> mStop{false};
    std::atomic<bool> mClosed{false};
    mutable std::mutex mMutex;
    std::deque<std::string> mLast;
    std::thread mThread;  // last: starts once everything above is ready
};

}  // namespace xferfm::cli
