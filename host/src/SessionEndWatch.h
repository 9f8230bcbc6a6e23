// How a receiving session's link ended, typed: the sender said goodbye
// (and why, as ReasonOf reads it), this end said goodbye first, or the link
// broke before either did (the sender died, the network failed, or the link
// cut a peer that stopped reading). NetworkReceiver turns this into the
// session's outcome: a sender that cancelled is not a failure of the
// receiver, and a lost link is not the sender's refusal.
//
// It sits right above the link, under every other wrapper, so it sees each
// goodbye this end sends (the endpoint's, the name guard's, the list
// time-out's) and each one the sender sends.
//
// THREADING CONTRACT: as ForwardingTransport. Ended() may be called from
// any thread; it is final once the link has closed.
#pragma once

#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "xferfm/host/ForwardingTransport.h"

namespace orin::xfer::host {

class SessionEndWatch final : public ForwardingTransport {
public:
    enum class End {
        kOpen,           // neither goodbye yet, the link still up
        kSenderGoodbye,  // the sender left first: `senderReason` says why
        kOurGoodbye,     // this end left first
        kLinkBroken,     // the link ended with no goodbye either way: `linkReason` says how
    };
    struct Ending {
        End end = End::kOpen;
        std::optional<DisconnectReason> senderReason;
        std::string linkReason;
    };

    explicit SessionEndWatch(std::unique_ptr<ITransport> inner);
    ~SessionEndWatch() override;

    bool Send(Message message) override;
    Ending Ended() const;

private:
    void OnMessage(Message message) override;
    void OnTransportClosed(const std::string& reason) override;

    mutable std::mutex mMutex;  // Send runs on any thread, the rest on the delivery thread
    Ending mEnding;
};

}  // namespace orin::xfer::host
