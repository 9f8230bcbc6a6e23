// The sending side of a verified copy: a transport wrapper that adds the
// SHA-256 of every source file to the file list on its way out, and reads
// the receiver's verdict from its closing messages (VerdictOf). With no
// digests it only passes messages through. It also tells its owner when
// the link is lost before the receiver said goodbye, in the transport's
// own words.
//
// THREADING CONTRACT: as ForwardingTransport. `onVerdict` and `onLinkLost`
// run on the inner transport's delivery thread, before the handler hears
// the message or the loss.
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include "xferfm/host/FileListDigests.h"
#include "xferfm/host/ForwardingTransport.h"

namespace orin::xfer::host {

class DigestOfferingLink final : public ForwardingTransport {
public:
    DigestOfferingLink(std::unique_ptr<ITransport> inner, FileDigests digests,
                       std::function<void(const VerifyVerdict&)> onVerdict,
                       std::function<void(const std::string& reason)> onLinkLost,
                       std::function<void(DisconnectReason reason)> onGoodbye = {});
    ~DigestOfferingLink() override;

    bool Send(Message message) override;

    // Digests known only after the link was made (a host that hashes what
    // it offers): replaces the constructor's; effective for a list sent
    // after the call. Any thread.
    void SetDigests(FileDigests digests);

private:
    void OnMessage(Message message) override;
    void OnTransportClosed(const std::string& reason) override;

    std::mutex mDigestsMutex;
    FileDigests mDigests;  // guarded by mDigestsMutex
    const std::function<void(const VerifyVerdict&)> mOnVerdict;
    const std::function<void(const std::string&)> mOnLinkLost;
    const std::function<void(DisconnectReason)> mOnGoodbye;
    bool mGoodbyeReceived = false;  // delivery thread only
};

}  // namespace orin::xfer::host
