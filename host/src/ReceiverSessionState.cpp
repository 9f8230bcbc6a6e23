#include "ReceiverSessionState.h"

#include "HostLog.h"

namespace orin::xfer::host::detail {

const char* ToString(ReceiverState state)
{
    switch (state) {
    case ReceiverState::Created:
        return "Created";
    case ReceiverState::Preparing:
        return "Preparing";
    case ReceiverState::AwaitingList:
        return "AwaitingList";
    case ReceiverState::Receiving:
        return "Receiving";
    case ReceiverState::Finishing:
        return "Finishing";
    case ReceiverState::Finished:
        return "Finished";
    }
    return "?";
}

bool ReceiverSessionState::IsLegal(ReceiverState from, ReceiverState to)
{
    using S = ReceiverState;
    switch (from) {
    case S::Created:
        return to == S::Preparing || to == S::Finished;
    case S::Preparing:
        return to == S::AwaitingList || to == S::Finished;
    case S::AwaitingList:
        return to == S::Receiving || to == S::Finishing;
    case S::Receiving:
        return to == S::Finishing;
    case S::Finishing:
        return to == S::Finished;
    case S::Finished:
        return false;
    }
    return false;
}

bool ReceiverSessionState::SessionRunning() const
{
    return mState == ReceiverState::AwaitingList || mState == ReceiverState::Receiving ||
           mState == ReceiverState::Finishing;
}

bool ReceiverSessionState::SetState(ReceiverState next, const std::string& why)
{
    if (!IsLegal(mState, next)) {
        HOST_LOG_E << "receiver: refused state change " << ToString(mState) << " -> " << ToString(next) << " ("
                   << why << ")";
        return false;
    }
    HOST_LOG_D << "receiver: " << ToString(mState) << " -> " << ToString(next) << " (" << why << ")";
    mPrevious = mState;
    mState = next;
    return true;
}

bool ReceiverSessionState::RecordFailure(ReceiverFailure failure)
{
    if (mFailure || mState == ReceiverState::Finished) {
        return false;
    }
    mFailure = std::move(failure);
    return true;
}

bool ReceiverSessionState::RequestCancel()
{
    if (mCancelRequested || mState == ReceiverState::Finished) {
        return false;
    }
    mCancelRequested = true;
    return true;
}

bool ReceiverSessionState::InvariantsHold(std::string& why) const
{
    const bool ended = mState == ReceiverState::Finished;
    if (mFailure && mFailure->message.empty()) {
        why = "a failure without a message";
    } else if (mSummary.completed && mState != ReceiverState::Finishing && !ended) {
        why = std::string("completed while ") + ToString(mState);
    } else if (mSummary.completed && !mSummary.error.empty()) {
        why = "completed with an error";
    } else if (ended && !mSummary.completed && mSummary.error.empty()) {
        why = "finished without an outcome";
    } else if (mSummary.cancelled && !mCancelRequested && !mPeerCancelled) {
        why = "cancelled without a cancel";
    } else if (mState < ReceiverState::Receiving &&
               (mSummary.filesDone != 0 || mSummary.directoriesDone != 0 || mSummary.bytesDone != 0)) {
        why = std::string("entries landed while ") + ToString(mState);
    } else {
        return true;
    }
    return false;
}

}  // namespace orin::xfer::host::detail
