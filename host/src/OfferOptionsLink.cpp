#include "OfferOptionsLink.h"

namespace orin::xfer::host {

OfferOptionsLink::OfferOptionsLink(std::unique_ptr<ITransport> inner, OfferOptions options, Callbacks callbacks)
    : ForwardingTransport(std::move(inner)), mOptions(options), mCallbacks(std::move(callbacks))
{
}

// The inner transport goes first: its deliveries use this object's members.
OfferOptionsLink::~OfferOptionsLink() { ReleaseInner(); }

bool OfferOptionsLink::Send(Message message)
{
    if (std::holds_alternative<FileListMessage>(message) && (mOptions.dryRun || mOptions.resume)) {
        if (!Inner().Send(mOptions)) {
            return false;
        }
    }
    return Inner().Send(std::move(message));
}

void OfferOptionsLink::OnMessage(Message message)
{
    if (const auto* landing = std::get_if<EntryLanding>(&message)) {
        if (mCallbacks.onLanding) {
            mCallbacks.onLanding(*landing);
        }
        return;
    }
    if (const auto* complete = std::get_if<EntryComplete>(&message)) {
        if (mCallbacks.onComplete) {
            mCallbacks.onComplete(*complete);
        }
        return;
    }
    if (const auto* refused = std::get_if<EntryRefused>(&message); refused != nullptr && mCallbacks.onRefused) {
        mCallbacks.onRefused(refused->index);
    }
    Handler().OnMessage(std::move(message));
}

}  // namespace orin::xfer::host
