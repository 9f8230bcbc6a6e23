// The sending side of `send --verify`: a transport wrapper that adds the
// SHA-256 of every source file to the file list on its way out, and reads
// the receiver's verdict from its closing messages. With no digests it
// only passes messages through. It also tells the command when the link
// is lost before the receiver said goodbye, in the transport's own words.
//
// Threading: as ITransport (host/include/xferfm/host/Transport.h); Send
// may come from any thread, deliveries come on the inner transport's
// delivery thread and reach the handler there.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "RemoteVerdict.h"
#include "xferfm/host/FileListDigests.h"
#include "xferfm/host/ForwardingTransport.h"

namespace xferfm::cli {

class DigestOfferingLink final : public orin::xfer::host::ForwardingTransport {
public:
    // `onLinkLost` runs on the delivery thread, before the endpoint hears
    // of the loss.
    DigestOfferingLink(std::unique_ptr<orin::xfer::host::ITransport> inner, orin::xfer::host::FileDigests digests,
                       std::shared_ptr<RemoteVerdict> verdict,
                       std::function<void(const std::string& reason)> onLinkLost = {});
    ~DigestOfferingLink() override;
    DigestOfferingLink(const DigestOfferingLink&) = delete;
    DigestOfferingLink& operator=(const DigestOfferingLink&) = delete;

    bool Send(orin::xfer::host::Message message) override;

private:
    void OnMessage(orin::xfer::host::Message message) override;
    void OnTransportClosed(const std::string& reason) override;

    const orin::xfer::host::FileDigests mDigests;
    const std::shared_ptr<RemoteVerdict> mVerdict;
    const std::function<void(const std::string&)> mOnLinkLost;
    bool mGoodbyeReceived = false;  // delivery thread only
};

}  // namespace xferfm::cli
