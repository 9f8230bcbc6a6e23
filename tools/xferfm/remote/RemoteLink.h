// The far side of a copy over a remote shell, from start to end: runs the
// remote shell with the far side's command line (RemoteCommand.h), shows
// the far side's stderr lines as "HOST: ..." (RemoteErrorRelay), and waits
// for the far side's first word before the copy starts, so that a far side
// that never started (no connection, a refused login, xferfm missing or not
// executable there) is told apart from a link lost mid-copy and reported
// with exit code 13 and a message that says which.
//
// The link is a state machine, each change logged at debug level:
//   kStarting -> kSpeaking (the far side wrote its first bytes)
//   kStarting -> kEnded    (it ended first: awaitFarSide throws)
//   kSpeaking -> kHandedOver (the pipes went to the copy's transport)
//   any -> kEnded          (finish, or the destructor)
//
// THREADING CONTRACT
// 1. Construct, awaitFarSide, take the pipe ends and finish on one thread.
// 2. terminate may be called from any thread (a signal hook).
// 3. The destructor ends a far side still running (RemoteShellProcess).
#pragma once

#include <chrono>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "RemoteCommand.h"
#include "RemoteErrorRelay.h"
#include "RemoteShellProcess.h"
#include "xferfm/host/StreamTransport.h"

namespace xferfm::cli {

class RemoteLink {
public:
    enum class State { kStarting, kSpeaking, kHandedOver, kEnded };

    // Starts the remote shell. Throws ToolError(kRemoteUnavailable) when
    // the remote shell itself cannot be run.
    RemoteLink(const RemoteInvocation& invocation, StderrConsole& console);
    ~RemoteLink();
    RemoteLink(const RemoteLink&) = delete;
    RemoteLink& operator=(const RemoteLink&) = delete;

    // Blocks until the far side has spoken. Throws ToolError: kInterrupted
    // when `interrupted` turns true first, kRemoteUnavailable when the far
    // side ends first (the message names the cause by its exit code: 255
    // the remote shell could not connect or log in, 127 no such program
    // there, 126 not executable, 2 an xferfm that refused the command line);
    // an xferfm that ran there and refused before the copy (a SOURCE or a
    // DEST_DIR it cannot use) ends the local side with its own exit code.
    void awaitFarSide(const std::function<bool()>& interrupted);

    // The ends for the copy's transport, once, after awaitFarSide: the far
    // side's standard output and its standard input, labelled with the host.
    orin::xfer::host::StreamEnds takeStreamEnds();

    // After the copy: waits up to `timeout` for the far side to end and
    // for its last stderr lines; its end, when it ended in time.
    std::optional<ChildEnd> finish(std::chrono::milliseconds timeout);
    // Ends the far side at once (SIGTERM to the remote shell).
    void terminate();

    const std::string& hostLabel() const { return mHost; }

private:
    void SetState(State next, const std::string& why);
    [[noreturn]] void throwNotStarted();

    const RemoteInvocation mInvocation;
    const std::string mHost;
    RemoteShellProcess mProcess;
    RemoteErrorRelay mRelay;
    std::mutex mMutex;
    State mState = State::kStarting;
};

}  // namespace xferfm::cli
