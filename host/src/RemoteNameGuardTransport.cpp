#include "xferfm/host/RemoteNameGuardTransport.h"

#include "FileListScreening.h"
#include "xferfm/host/RemoteNameGuard.h"

namespace orin::xfer::host {

RemoteNameGuardTransport::RemoteNameGuardTransport(std::unique_ptr<ITransport> inner, std::string destinationRoot,
                                                   FileListLimits listLimits,
                                                   std::function<void(const std::string&)> onRefused,
                                                   std::function<void(const RefusedEntry&)> onEntryRefused)
    : ForwardingTransport(std::move(inner)),
      mDestinationRoot(std::move(destinationRoot)),
      mListLimits(listLimits),
      mOnRefused(std::move(onRefused)),
      mOnEntryRefused(std::move(onEntryRefused))
{
}

// The inner transport goes first: its deliveries use this object's members.
RemoteNameGuardTransport::~RemoteNameGuardTransport() { ReleaseInner(); }

// The endpoint counts entries in the list it was given; the sender in the
// list it offered. A request beyond the endpoint's list stays beyond.
bool RemoteNameGuardTransport::Send(Message message)
{
    // The endpoint's own refusals (its name rules) count in its list too.
    auto* request = std::get_if<NextFileRequest>(&message);
    auto* refused = std::get_if<EntryRefused>(&message);
    uint64_t* index = request != nullptr ? &request->index : refused != nullptr ? &refused->index : nullptr;
    if (index != nullptr) {
        std::lock_guard<std::mutex> lock(mMutex);
        if (!mOfferedIndex.empty() || mOfferedCount != 0) {
            const uint64_t kept = mOfferedIndex.size();
            *index = *index < kept ? mOfferedIndex[static_cast<size_t>(*index)] : mOfferedCount + (*index - kept);
        }
    }
    return ForwardingTransport::Send(std::move(message));
}

void RemoteNameGuardTransport::OnMessage(Message message)
{
    if (mRefused) {
        return;
    }
    if (const auto* start = std::get_if<FileStart>(&message)) {
        std::string error;
        if (!CheckRemoteName(start->name, error)) {
            Refuse(error);
            return;
        }
    } else if (auto* list = std::get_if<FileListMessage>(&message)) {
        if (mListSeen) {
            return;  // one list per session: a later one would not match the index map
        }
        mListSeen = true;
        ScreenList(*list);
    }
    Handler().OnMessage(std::move(message));
}

void RemoteNameGuardTransport::OnTransportClosed(const std::string& reason)
{
    if (!mRefused) {
        Handler().OnTransportClosed(reason);
    }
}

void RemoteNameGuardTransport::ScreenList(FileListMessage& list)
{
    detail::ScreenedList screened = detail::ScreenFileList(list.json, mDestinationRoot, mListLimits);
    if (!screened.readable) {
        return;  // the endpoint refuses it whole, with the same reason
    }
    // From here on the parsed list is the only copy: what was checked here
    // is what the endpoint copies.
    std::string().swap(list.json);
    list.parsed = std::make_shared<const ParsedFileList>(std::move(screened.list));
    if (screened.refused.empty()) {
        return;
    }
    {
        std::lock_guard<std::mutex> lock(mMutex);
        mOfferedCount = screened.keptIndices.size() + screened.refused.size();
        mOfferedIndex = std::move(screened.keptIndices);
    }
    // Every refusal is on its way before the endpoint can ask for anything.
    for (const RefusedEntry& entry : screened.refused) {
        if (mOnEntryRefused) {
            mOnEntryRefused(entry);
        }
        Inner().Send(EntryRefused{entry.index, entry.reason});
    }
}

void RemoteNameGuardTransport::Refuse(const std::string& refusal)
{
    mRefused = true;
    if (mOnRefused) {
        mOnRefused(refusal);
    }
    Inner().Send(TransferError{0, 0, refusal});
    Inner().Send(Disconnect{false, refusal});
    Inner().Close();  // from the delivery thread: no further deliveries
    Handler().OnTransportClosed(refusal);
}

}  // namespace orin::xfer::host
