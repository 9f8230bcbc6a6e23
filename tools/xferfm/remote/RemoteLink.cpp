#include "RemoteLink.h"

#include "LoggerInternal.h"
#include "ToolError.h"

namespace xferfm::cli {
namespace {

const char* stateName(RemoteLink::State state)
{
    switch (state) {
    case RemoteLink::State::kStarting: return "starting";
    case RemoteLink::State::kSpeaking: return "speaking";
    case RemoteLink::State::kHandedOver: return "handed over";
    case RemoteLink::State::kEnded: return "ended";
    }
    return "?";
}

// Time for a far side that ended to be reaped and for its last stderr
// lines to arrive, before the reason is chosen.
constexpr std::chrono::milliseconds kLastWords{5000};

}  // namespace

RemoteLink::RemoteLink(const RemoteInvocation& invocation, StderrConsole& console)
    : mInvocation(invocation),
      mHost(invocation.target.hostLabel()),
      mProcess(remoteShellArgv(invocation)),
      mRelay(mProcess.takeErrors(), mHost, console)
{
    orin::xfer::LoggerInternal(orin::xfer::kDebug).Stream()
        << "[XFERFM]: remote shell started for " << mHost << ": " << remoteCommandLine(invocation);
}

RemoteLink::~RemoteLink()
{
    // The transport has closed its ends by now: a far side that heard the
    // end of its input leaves by itself; one that does not is ended, and
    // its last lines are shown before the relay stops.
    if (!mProcess.waitEnd(std::chrono::milliseconds(500))) {
        mProcess.terminate();
        mProcess.waitEnd(std::chrono::milliseconds(2000));
    }
    mRelay.finish(std::chrono::milliseconds(500));
    SetState(State::kEnded, "the copy is over");
}

void RemoteLink::SetState(State next, const std::string& why)
{
    std::lock_guard<std::mutex> lock(mMutex);
    if (mState == next) {
        return;
    }
    orin::xfer::LoggerInternal(orin::xfer::kDebug).Stream()
        << "[XFERFM]: remote link to " << mHost << ": " << stateName(mState) << " -> " << stateName(next) << ": "
        << why;
    mState = next;
}

void RemoteLink::awaitFarSide(const std::function<bool()>& interrupted)
{
    switch (mProcess.waitForFirstWord(interrupted)) {
    case RemoteShellProcess::FirstWord::kSpoke:
        SetState(State::kSpeaking, "the far side wrote its first bytes");
        return;
    case RemoteShellProcess::FirstWord::kInterrupted:
        SetState(State::kEnded, "interrupted before the far side spoke");
        mProcess.terminate();
        throw ToolError(ExitCode::kInterrupted, "interrupted before anything was copied");
    case RemoteShellProcess::FirstWord::kEnded:
        break;
    }
    throwNotStarted();
}

void RemoteLink::throwNotStarted()
{
    const std::optional<ChildEnd> end = mProcess.waitEnd(kLastWords);
    mRelay.finish(kLastWords);
    SetState(State::kEnded, "the far side ended before it spoke");
    const std::string shell = mInvocation.rshWords.front();
    const std::string program = "'" + mInvocation.xferfmPath + "'";
    std::string why;
    if (!end) {
        mProcess.terminate();
        why = "the remote shell closed its output before the far side spoke";
    } else if (end->exitCode == 255) {
        why = "the remote shell '" + shell + "' could not connect to " + mHost + " or log in (exit code 255)";
    } else if (end->exitCode == 127) {
        why = program + " was not found on " + mHost + " (exit code 127): install xferfm there, or give its path "
              "with --xferfm-path";
    } else if (end->exitCode == 126) {
        why = program + " on " + mHost + " cannot be run: it is not an executable program (exit code 126)";
    } else if (end->exitCode == toInt(ExitCode::kUsage)) {
        why = program + " on " + mHost + " refused its command line (exit code 2): it may be a version without "
              "--stdio";
    } else if (end->exitCode > 0 && end->exitCode <= toInt(ExitCode::kReceiverStalled)) {
        // xferfm itself ran there and refused before the copy began (a
        // SOURCE missing there, a DEST_DIR it cannot use): its exit code
        // means the same here, and its words are already shown above.
        throw ToolError(static_cast<ExitCode>(end->exitCode),
                        "xferfm on " + mHost + " ended before the copy started (" + end->describe() + "; its "
                        "message is above)");
    } else {
        why = "the far side on " + mHost + " ended before the copy started (" + end->describe() + ")";
    }
    throw ToolError(ExitCode::kRemoteUnavailable, "cannot start the far side of the copy: " + why);
}

orin::xfer::host::StreamEnds RemoteLink::takeStreamEnds()
{
    SetState(State::kHandedOver, "the copy's transport takes the pipes");
    orin::xfer::host::StreamEnds ends;
    ends.readEnd = mProcess.takeOutput();
    ends.writeEnd = mProcess.takeInput();
    ends.peer = mHost;
    return ends;
}

std::optional<ChildEnd> RemoteLink::finish(std::chrono::milliseconds timeout)
{
    const std::optional<ChildEnd> end = mProcess.waitEnd(timeout);
    mRelay.finish(end ? kLastWords : std::chrono::milliseconds(0));
    SetState(State::kEnded, end ? "the far side ended with " + end->describe() : "the far side is still running");
    return end;
}

void RemoteLink::terminate() { mProcess.terminate(); }

}  // namespace xferfm::cli
