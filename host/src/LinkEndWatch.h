// The innermost wrapper of a network receiving session's link: how the
// sender left (ReceiveSession.cpp).
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <variant>

#include "xferfm/host/ForwardingTransport.h"
#include "xferfm/host/TransportMessages.h"

namespace orin::xfer::host::detail {

// Innermost on the link: tells whether the sender went away without a
// goodbye (kLinkLost) while the session was still on: neither end had said
// goodbye when the link closed under it; and why the sender left when it
// said goodbye first (a cancel is not a failure of the receiver).
class LinkEndWatch final : public ForwardingTransport {
public:
    LinkEndWatch(std::unique_ptr<ITransport> inner, std::function<bool()> peerWentAway,
                 std::function<void()> onSenderGone, std::function<void(DisconnectReason)> onSenderGoodbye)
        : ForwardingTransport(std::move(inner)),
          mPeerWentAway(std::move(peerWentAway)),
          mOnSenderGone(std::move(onSenderGone)),
          mOnSenderGoodbye(std::move(onSenderGoodbye))
    {
    }
    ~LinkEndWatch() override { ReleaseInner(); }

    bool Send(Message message) override
    {
        if (std::holds_alternative<Disconnect>(message)) {
            mGoodbyeSent = true;
        }
        return ForwardingTransport::Send(std::move(message));
    }

private:
    void OnMessage(Message message) override
    {
        if (const auto* goodbye = std::get_if<Disconnect>(&message)) {
            if (!mGoodbyeHeard && !mGoodbyeSent) {
                mOnSenderGoodbye(ReasonOf(*goodbye));
            }
            mGoodbyeHeard = true;
        }
        ForwardingTransport::OnMessage(std::move(message));
    }
    void OnTransportClosed(const std::string& reason) override
    {
        if (!mGoodbyeHeard && !mGoodbyeSent && mPeerWentAway && mPeerWentAway()) {
            mOnSenderGone();
        }
        ForwardingTransport::OnTransportClosed(reason);
    }

    const std::function<bool()> mPeerWentAway;
    const std::function<void()> mOnSenderGone;
    const std::function<void(DisconnectReason)> mOnSenderGoodbye;
    bool mGoodbyeHeard = false;  // delivery thread only
    std::atomic<bool> mGoodbyeSent{false};
};

}  // namespace orin::xfer::host::detail
