#include "xferfm/host/RemoteNameGuardTransport.h"

#include "xferfm/host/RemoteNameGuard.h"

namespace orin::xfer::host {

RemoteNameGuardTransport::RemoteNameGuardTransport(std::unique_ptr<ITransport> inner, std::string destinationRoot,
                                                   FileListLimits listLimits,
                                                   std::function<void(const std::string&)> onRefused)
    : mInner(std::move(inner)),
      mDestinationRoot(std::move(destinationRoot)),
      mListLimits(listLimits),
      mOnRefused(std::move(onRefused))
{
}

// The inner transport goes first: its deliveries call into this object.
RemoteNameGuardTransport::~RemoteNameGuardTransport() { mInner.reset(); }

void RemoteNameGuardTransport::Start(ITransportHandler& handler)
{
    mHandler = &handler;
    mInner->Start(*this);
}

bool RemoteNameGuardTransport::Send(Message message) { return mInner->Send(std::move(message)); }

void RemoteNameGuardTransport::Close() { mInner->Close(); }

void RemoteNameGuardTransport::OnMessage(Message message)
{
    if (mRefused) {
        return;
    }
    const std::string refusal = Refusal(message);
    if (!refusal.empty()) {
        Refuse(refusal);
        return;
    }
    mHandler->OnMessage(std::move(message));
}

void RemoteNameGuardTransport::OnTransportClosed(const std::string& reason)
{
    if (!mRefused) {
        mHandler->OnTransportClosed(reason);
    }
}

std::string RemoteNameGuardTransport::Refusal(const Message& message) const
{
    std::string error;
    if (const auto* start = std::get_if<FileStart>(&message)) {
        if (!CheckRemoteName(start->name, error)) {
            return error;
        }
        return "";
    }
    const auto* list = std::get_if<FileListMessage>(&message);
    if (list == nullptr) {
        return "";
    }
    ParsedFileList parsed;
    if (!ParseFileList(list->json, parsed, error, mListLimits)) {
        return "";  // the endpoint rejects it with its own message
    }
    for (const FileListEntry& entry : parsed.entries) {
        const std::string name = entry.RequestName();
        if (!CheckRemoteName(name, error) || !CheckDestinationParents(mDestinationRoot, name, error)) {
            return error;
        }
    }
    return "";
}

void RemoteNameGuardTransport::Refuse(const std::string& refusal)
{
    mRefused = true;
    if (mOnRefused) {
        mOnRefused(refusal);
    }
    mInner->Send(TransferError{0, 0, refusal});
    mInner->Send(Disconnect{false, refusal});
    mInner->Close();  // from the delivery thread: no further deliveries
    mHandler->OnTransportClosed(refusal);
}

}  // namespace orin::xfer::host
