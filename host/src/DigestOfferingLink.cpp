#include "DigestOfferingLink.h"

#include <optional>

namespace orin::xfer::host {

DigestOfferingLink::DigestOfferingLink(std::unique_ptr<ITransport> inner, FileDigests digests,
                                       std::function<void(const VerifyVerdict&)> onVerdict,
                                       std::function<void(const std::string&)> onLinkLost,
                                       std::function<void(DisconnectReason)> onGoodbye)
    : ForwardingTransport(std::move(inner)),
      mDigests(std::move(digests)),
      mOnVerdict(std::move(onVerdict)),
      mOnLinkLost(std::move(onLinkLost)),
      mOnGoodbye(std::move(onGoodbye))
{
}

// The inner transport goes first: its deliveries use this object's members.
DigestOfferingLink::~DigestOfferingLink() { ReleaseInner(); }

void DigestOfferingLink::SetDigests(FileDigests digests)
{
    std::lock_guard<std::mutex> lock(mDigestsMutex);
    mDigests = std::move(digests);
}

bool DigestOfferingLink::Send(Message message)
{
    if (auto* list = std::get_if<FileListMessage>(&message)) {
        std::lock_guard<std::mutex> lock(mDigestsMutex);
        if (!mDigests.empty()) {
            std::string error;
            // A list this end cannot read goes as it is; the receiver judges it.
            AddFileDigests(list->json, mDigests, error);
        }
    }
    return Inner().Send(std::move(message));
}

void DigestOfferingLink::OnMessage(Message message)
{
    std::optional<VerifyVerdict> verdict;
    if (const auto* goodbye = std::get_if<Disconnect>(&message)) {
        mGoodbyeReceived = true;
        verdict = VerdictOf(*goodbye);
        if (mOnGoodbye) {
            mOnGoodbye(ReasonOf(*goodbye));
        }
    } else if (const auto* error = std::get_if<TransferError>(&message)) {
        verdict = VerdictOf(*error);
    }
    if (verdict && mOnVerdict) {
        mOnVerdict(*verdict);
    }
    Handler().OnMessage(std::move(message));
}

void DigestOfferingLink::OnTransportClosed(const std::string& reason)
{
    if (mOnLinkLost && !mGoodbyeReceived) {
        mOnLinkLost(reason);
    }
    Handler().OnTransportClosed(reason);
}

}  // namespace orin::xfer::host
