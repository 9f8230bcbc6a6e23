#include "SenderSessionState.h"

#include "HostLog.h"

namespace orin::xfer::host::detail {

const char* SenderStateName(SenderState state)
{
    switch (state) {
    case SenderState::kCreated:
        return "created";
    case SenderState::kListRequested:
        return "list-requested";
    case SenderState::kOffered:
        return "offered";
    case SenderState::kListSent:
        return "list-sent";
    case SenderState::kFinished:
        return "finished";
    }
    return "unknown";
}

bool SenderTransitionAllowed(SenderState from, SenderState to)
{
    switch (to) {
    case SenderState::kCreated:
        return false;
    case SenderState::kListRequested:
    case SenderState::kOffered:
        return from == SenderState::kCreated;
    case SenderState::kListSent:
        return from == SenderState::kListRequested || from == SenderState::kOffered;
    case SenderState::kFinished:
        return from != SenderState::kFinished;
    }
    return false;
}

bool SenderSessionState::SetState(SenderState next, std::string_view why)
{
    if (!SenderTransitionAllowed(mState, next)) {
        HOST_LOG_E << "sender session: refused to go from " << SenderStateName(mState) << " to "
                   << SenderStateName(next) << " (" << why << ")";
        return false;
    }
    HOST_LOG_D << "sender session: " << SenderStateName(mState) << " -> " << SenderStateName(next) << " (" << why
               << ")";
    mState = next;
    return true;
}

bool SenderSessionState::ListOffered() const
{
    return mState == SenderState::kOffered || mState == SenderState::kListSent;
}

}  // namespace orin::xfer::host::detail
