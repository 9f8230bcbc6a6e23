// Only the first ending counts: a goodbye answered by the other end's, or a
// link that closes after a goodbye, does not change how the session ended.
#include "SessionEndWatch.h"

namespace orin::xfer::host {

SessionEndWatch::SessionEndWatch(std::unique_ptr<ITransport> inner) : ForwardingTransport(std::move(inner)) {}

// The inner transport goes first: its deliveries use this object's members.
SessionEndWatch::~SessionEndWatch() { ReleaseInner(); }

bool SessionEndWatch::Send(Message message)
{
    if (std::holds_alternative<Disconnect>(message)) {
        std::lock_guard<std::mutex> lock(mMutex);
        if (mEnding.end == End::kOpen) {
            mEnding.end = End::kOurGoodbye;
        }
    }
    return Inner().Send(std::move(message));
}

SessionEndWatch::Ending SessionEndWatch::Ended() const
{
    std::lock_guard<std::mutex> lock(mMutex);
    return mEnding;
}

void SessionEndWatch::OnMessage(Message message)
{
    if (const auto* goodbye = std::get_if<Disconnect>(&message)) {
        std::lock_guard<std::mutex> lock(mMutex);
        if (mEnding.end == End::kOpen) {
            mEnding.end = End::kSenderGoodbye;
            mEnding.senderReason = ReasonOf(*goodbye);
        }
    }
    Handler().OnMessage(std::move(message));
}

void SessionEndWatch::OnTransportClosed(const std::string& reason)
{
    {
        std::lock_guard<std::mutex> lock(mMutex);
        if (mEnding.end == End::kOpen) {
            mEnding.end = End::kLinkBroken;
            mEnding.linkReason = reason;
        }
    }
    Handler().OnTransportClosed(reason);
}

}  // namespace orin::xfer::host
