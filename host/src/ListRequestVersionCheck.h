// The sending side's check of the receiver's list request: a request that
// carries another protocol version is refused rather than answered, as the
// hello of another version is. The link is closed with a goodbye naming
// both versions, and the handler hears the same words as a closed link.
//
// THREADING CONTRACT: as ForwardingTransport; the check runs on the inner
// transport's delivery thread.
#pragma once

#include <memory>

#include "xferfm/host/ForwardingTransport.h"

namespace orin::xfer::host {

class ListRequestVersionCheck final : public ForwardingTransport {
public:
    explicit ListRequestVersionCheck(std::unique_ptr<ITransport> inner);
    ~ListRequestVersionCheck() override;

private:
    void OnMessage(Message message) override;
    void OnTransportClosed(const std::string& reason) override;

    bool mRefused = false;  // delivery thread only
};

}  // namespace orin::xfer::host
