#include "DigestOfferingLink.h"

#include <optional>

namespace xferfm::cli {
namespace host = orin::xfer::host;

DigestOfferingLink::DigestOfferingLink(std::unique_ptr<host::ITransport> inner, host::FileDigests digests,
                                       std::shared_ptr<RemoteVerdict> verdict,
                                       std::function<void(const std::string&)> onLinkLost)
    : ForwardingTransport(std::move(inner)),
      mDigests(std::move(digests)),
      mVerdict(std::move(verdict)),
      mOnLinkLost(std::move(onLinkLost))
{
}

// The inner transport goes first: its deliveries use this object's members.
DigestOfferingLink::~DigestOfferingLink() { ReleaseInner(); }

bool DigestOfferingLink::Send(host::Message message)
{
    if (auto* list = std::get_if<host::FileListMessage>(&message); list != nullptr && !mDigests.empty()) {
        std::string error;
        // A list this end cannot read goes as it is; the receiver judges it.
        host::AddFileDigests(list->json, mDigests, error);
    }
    return Inner().Send(std::move(message));
}

void DigestOfferingLink::OnMessage(host::Message message)
{
    if (const auto* goodbye = std::get_if<host::Disconnect>(&message)) {
        mGoodbyeReceived = true;
        if (const std::optional<host::VerifyVerdict> verdict = host::VerdictOf(*goodbye)) {
            mVerdict->set(verdict->matched ? RemoteVerdict::State::kVerified : RemoteVerdict::State::kFailed,
                          goodbye->reason);
        }
    } else if (const auto* error = std::get_if<host::TransferError>(&message)) {
        if (host::VerdictOf(*error)) {
            mVerdict->set(RemoteVerdict::State::kFailed, error->message);
        }
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

}  // namespace xferfm::cli
