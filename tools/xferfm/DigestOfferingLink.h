// The sending side of `send --verify`: a transport wrapper that adds the
// SHA-256 of every source file to the file list on its way out, and reads
// the receiver's verdict from its closing messages. With no digests it
// only passes messages through.
//
// Threading: as ITransport (host/include/xferfm/host/Transport.h); Send
// may come from any thread, deliveries come on the inner transport's
// delivery thread and reach the handler there.
#pragma once

#include <memory>

#include "RemoteVerdict.h"
#include "xferfm/host/FileListDigests.h"
#include "xferfm/host/Transport.h"

namespace xferfm::cli {

class DigestOfferingLink final : public orin::xfer::host::ITransport, private orin::xfer::host::ITransportHandler {
public:
    DigestOfferingLink(std::unique_ptr<orin::xfer::host::ITransport> inner, orin::xfer::host::FileDigests digests,
                       std::shared_ptr<RemoteVerdict> verdict);
    ~DigestOfferingLink() override;
    DigestOfferingLink(const DigestOfferingLink&) = delete;
    DigestOfferingLink& operator=(const DigestOfferingLink&) = delete;

    void Start(orin::xfer::host::ITransportHandler& handler) override;
    bool Send(orin::xfer::host::Message message) override;
    void Close() override;

private:
    void OnMessage(orin::xfer::host::Message message) override;
    void OnTransportClosed(const std::string& reason) override;

    std::unique_ptr<orin::xfer::host::ITransport> mInner;
    const orin::xfer::host::FileDigests mDigests;
    const std::shared_ptr<RemoteVerdict> mVerdict;
    orin::xfer::host::ITransportHandler* mHandler = nullptr;
};

}  // namespace xferfm::cli
