// What the receiving endpoint hears: the sender's messages (delivery
// thread) and the engine's reports on its downloads (writer looper), fed
// into the slot table.
//
// ENGINE CONTRACTS honoured here
// - Transfer ids: the sending engine draws odd ids; this engine treats
//   every even id as a download and every odd one as an upload, so the
//   receiver uses sender id + 1. Id 0 is never used here (RequestFile's
//   marker tasks carry transferId 0).
// - Order and names: the sender's UploadFiles takes the FRONT of its list,
//   so entries are requested in list order, one request per entry. The
//   announced name is the request name (filePath + "/" + fileName) and is
//   passed as fileName to ProcessFileDownloadStart, so it matches the
//   pending entry pushed with PushDownloadFile and RequestFile's marker.
// - A 0-byte file completes only when its 0-length data message arrives.
// - Acknowledgements: the engine's onFileDataAck fires every 50th data
//   message, which only matches a window of 50; it is ignored. Instead the
//   endpoint acknowledges every `ackWindow` chunks WRITTEN (counted from
//   onFileTransferProgress on the writer looper), so the sender's window
//   bounds the data in memory end to end; a window of 0 is acknowledged
//   once at accept. The window bounds each file on its own, so across
//   files the accept is the brake: a file is accepted (FileAccept, which
//   lets the sender stream it) only while the files accepted before it
//   still have at most 4 MiB to write, or nothing at all.
// - Sizes: the engine writes whatever data arrives for a transfer into the
//   cache and only checks the size at the end. Data beyond a file's
//   announced size is therefore refused here, before it reaches the engine,
//   and fails that file at once.
#include "ReceiverEndpointImpl.h"

#include <map>

#include "ListNaming.h"

namespace orin::xfer::host {

using detail::AnnouncementCheck;
using detail::ReceiverAccept;
using detail::ReceiverSlot;

void ReceiverEndpoint::Impl::OnMessage(Message message)
{
    touch();
    std::visit([this](auto& body) { handle(body); }, message);
}

void ReceiverEndpoint::Impl::OnTransportClosed(const std::string& reason)
{
    fail("", "the link to the sender was lost: " + reason, true);
    std::lock_guard<std::mutex> input(mEngineInputMutex);
    if (!mAborting) {
        mManager->ProcessTansferDisconnect();
    }
}

void ReceiverEndpoint::Impl::onFileTransferProgress(uint32_t taskId, uint32_t transferId, uint32_t percent,
                                                    uint64_t chunkSize)
{
    (void)taskId, (void)percent;
    std::optional<DataAck> ack;
    std::vector<ReceiverAccept> accepts;
    Progress progress;
    {
        std::lock_guard<std::mutex> lock(mMutex);
        bool ackDue = false;
        const ReceiverSlot* slot = mSlots.RecordChunkWritten(transferId, chunkSize, ackDue);
        if (slot == nullptr) {
            return;
        }
        mLastActivity = Clock::now();
        if (ackDue) {
            ack = DataAck{slot->senderId, slot->chunksWritten};
        }
        progress = progressLocked(*slot);
        accepts = mSlots.TakeDueAccepts();
    }
    sendAccepts(accepts);
    // Nothing waits for progress itself (the session's waits time out to
    // check for a stall), so no thread is woken here.
    if (ack) {
        mTransport->Send(*ack);
    }
    reportProgress(progress);
}

void ReceiverEndpoint::Impl::onFileTransferCompleted(uint32_t taskId, uint32_t transferId, uint32_t result)
{
    (void)taskId, (void)result;
    Progress progress;
    bool wake = false;
    std::vector<ReceiverAccept> accepts;
    {
        std::lock_guard<std::mutex> lock(mMutex);
        const ReceiverSlot* known = mSlots.ByReceiverId(transferId);
        if (known == nullptr || !known->isDirectory) {
            mGate->NoteWriterEvent();  // a file's completion wakes a waiting RequestFile
        }
        const ReceiverSlot* slot = mSlots.Complete(transferId);
        if (slot == nullptr) {
            return;
        }
        mLastActivity = Clock::now();
        progress = progressLocked(*slot);
        wake = mSlots.SettleDue();
        accepts = mSlots.TakeDueAccepts();
    }
    sendAccepts(accepts);
    if (wake) {
        wakeSession();
    }
    if (!progress.name.empty() && progress.fileSize > 0) {
        reportProgress(progress);
    }
}

void ReceiverEndpoint::Impl::onFileTransferFailed(uint32_t taskId, uint32_t transferId, uint32_t result)
{
    (void)result;
    std::string path;
    std::string message;
    std::string writtenName;  // a file whose write failed: asked for the reason below
    uint64_t writtenSize = 0;
    {
        std::lock_guard<std::mutex> lock(mMutex);
        if (transferId != 0) {
            mGate->NoteWriterEvent();  // a download's failure stops the writer, which wakes RequestFile
        }
        if (mSlots.Empty()) {
            return;  // the link or a teardown: reported by its own path
        }
        const ReceiverSlot* slot = transferId != 0 ? mSlots.ByReceiverId(transferId) : nullptr;
        if (slot != nullptr) {
            path = slot->name == mSlots.Front().name ? destinationGuessLocked()
                                                       : mLanding.Destination() + "/" + slot->name;
            message = slot->isDirectory ? path + ": cannot be created" : path + ": writing failed";
            if (!slot->isDirectory) {
                writtenName = slot->name;
                writtenSize = slot->fileSize;
            }
        } else if (taskId == detail::kNoTransferId && transferId == 0) {
            path = destinationGuessLocked();
            message = path + ": cannot be prepared in the cache directory " + mLanding.CacheDirectory();
        } else {
            return;
        }
    }
    if (!writtenName.empty()) {  // outside the lock: it asks the file system
        const std::string reason = mLanding.WriteFailureReason(writtenName, writtenSize);
        if (!reason.empty()) {
            message += ": " + reason;
        }
    }
    fail(path, message, false);
}

void ReceiverEndpoint::Impl::handle(FileListMessage& list)
{
    // Over the network the guard in front has read the list; in one
    // process the text comes as the sender wrote it and is read here.
    std::shared_ptr<const ParsedFileList> parsed = std::move(list.parsed);
    if (!parsed) {
        auto read = std::make_shared<ParsedFileList>();
        std::string error;
        if (!ParseFileList(list.json, *read, error, mOptions.listLimits)) {
            fail("", "rejected the sender's file list: " + error, false);
            return;
        }
        parsed = std::move(read);
    }
    std::string().swap(list.json);  // the text is not needed once read
    std::optional<ReceiverNameRules> rules;
    {
        std::lock_guard<std::mutex> lock(mMutex);
        if (mList) {
            return;  // one list per session
        }
        rules = mOptions.names;  // settled: the list comes only after Start
    }
    // With name rules, every refusal is on its way to the sender, and heard
    // by the observer, before the session thread can see the list and ask
    // for anything.
    detail::NamedList named;
    if (rules) {
        named = detail::ApplyNameRules(*parsed, *rules);
        parsed = std::make_shared<const ParsedFileList>(std::move(named.list));
        mLanding.UseLandingNames(std::move(named.landingNames));
        for (const detail::NameRefusal& refusal : named.refused) {
            mTransport->Send(EntryRefused{refusal.index, refusal.reason});
            mObserver.Notify([&](ReceiverObserver& observer) {
                observer.OnNameRefused(refusal.index, refusal.name, refusal.reason);
            });
        }
        for (const auto& mapping : named.mapped) {
            mObserver.Notify([&](ReceiverObserver& observer) { observer.OnNameMapped(mapping.first, mapping.second); });
        }
    }
    size_t entries = 0;
    uint64_t bytes = 0;
    {
        std::lock_guard<std::mutex> lock(mMutex);
        if (mList) {
            return;  // one list per session
        }
        mOfferedIndex = std::move(named.offeredIndex);
        for (detail::NameRefusal& refusal : named.refused) {
            mState.Summary().namesRefused.push_back({std::move(refusal.name), std::move(refusal.reason)});
        }
        mState.Summary().namesMapped = std::move(named.mapped);
        mList = std::move(parsed);
        if (mOptions.resumeNamesFromLink) {
            mLanding.ContinueUnder(mOptions.resumeNamesFromLink());
        }
        entries = mList->entries.size();
        bytes = mList->totalFileBytes;
        mState.Summary().entriesTotal = entries;
        mState.Summary().bytesTotal = bytes;
    }
    wakeSession();
    mObserver.Notify([&](ReceiverObserver& observer) { observer.OnListReceived(entries, bytes); });
}

// Announcements come in list order: each one is for the oldest requested
// entry not yet announced.
void ReceiverEndpoint::Impl::handle(FileStart& start)
{
    AnnouncementCheck check = AnnouncementCheck::Unasked;
    std::string expectedName;
    ReceiverSlot current;
    {
        std::lock_guard<std::mutex> lock(mMutex);
        check = mSlots.Announce(start.name, start.isDirectory, start.transferId, start.ackWindow, start.fileSize,
                                expectedName, current);
    }
    switch (check) {
    case AnnouncementCheck::Expected:
        break;
    case AnnouncementCheck::Unasked:
        fail("", "the sender announced \"" + start.name + "\" unasked", false);
        return;
    case AnnouncementCheck::NotTheExpectedEntry:
        fail("", "the sender announced \"" + start.name + "\" where \"" + expectedName + "\" was asked for", false);
        return;
    case AnnouncementCheck::WrongKind:
        fail("", "the sender announced \"" + start.name + "\" as " + (start.isDirectory ? "a directory" : "a file") +
                     ", which the list announces as " + (start.isDirectory ? "a file" : "a directory"),
             false);
        return;
    case AnnouncementCheck::InvalidTransferId:
        fail("", "the sender announced \"" + start.name + "\" with an invalid transfer id", false);
        return;
    }
    {
        std::lock_guard<std::mutex> input(mEngineInputMutex);
        if (mAborting) {
            return;
        }
        std::multimap<std::string, std::string> records;
        mManager->ProcessFileDownloadStart(current.taskId, current.receiverId, start.totalSize, start.fileSize,
                                           start.name, start.isDirectory, "", records, "", 0);
    }
    if (start.isDirectory || failed()) {
        return;
    }
    std::vector<ReceiverAccept> accepts;
    {
        std::lock_guard<std::mutex> lock(mMutex);
        if (!mSlots.MarkAcceptDue(start.transferId)) {
            return;
        }
        accepts = mSlots.TakeDueAccepts();
    }
    sendAccepts(accepts);
}

void ReceiverEndpoint::Impl::sendAccepts(const std::vector<ReceiverAccept>& accepts)
{
    for (const ReceiverAccept& accept : accepts) {
        mTransport->Send(FileAccept{accept.senderId});
        if (accept.window == 0) {
            mTransport->Send(DataAck{accept.senderId, 0});  // the worker waits before its first chunk
        }
    }
}

void ReceiverEndpoint::Impl::handle(FileData& data)
{
    receiveData(data.transferId, data.bytes.data(), data.bytes.size());
}

// The delivery thread, or with inline data the sender's hand-off thread.
void ReceiverEndpoint::Impl::receiveData(uint32_t senderId, const uint8_t* bytes, size_t size)
{
    uint32_t taskId = 0;
    uint32_t receiverId = 0;
    std::string refusal;
    std::string path;
    {
        std::lock_guard<std::mutex> lock(mMutex);
        mLastActivity = Clock::now();
        const ReceiverSlot* slot = mSlots.BySenderId(senderId);
        if (slot == nullptr || mState.Failure()) {
            return;
        }
        if (slot->isDirectory) {
            // Nothing is written for a directory: a sender that sends data
            // for one is not copying the list it offered.
            refusal = "the sender sent file data for '" + slot->name + "', which the list announces as a directory";
            path = slot->name;
        } else if (size == 0 && slot->fileSize > 0) {
            return;  // moves nothing; passed on, it would be written and acknowledged as a chunk
        } else {
            taskId = slot->taskId;
            receiverId = slot->receiverId;
            if (!mSlots.RecordDataReceived(senderId, size)) {
                refusal = "'" + slot->name + "' was announced as " + std::to_string(slot->fileSize) +
                          " bytes, and the sender sent more";
                path = slot->name;
            }
        }
    }
    if (!refusal.empty()) {
        // Refused here, before the engine writes a byte of it to the cache.
        fail(path, refusal, false);
        return;
    }
    std::lock_guard<std::mutex> input(mEngineInputMutex);
    if (mAborting) {
        return;
    }
    // The engine copies the chunk before it returns; it never writes to it.
    mManager->ProcessFileDownloadData(taskId, receiverId, size, const_cast<uint8_t*>(bytes));
}

void ReceiverEndpoint::Impl::handle(Disconnect& goodbye)
{
    if (ReasonOf(goodbye) == DisconnectReason::kCancelled) {
        {
            std::lock_guard<std::mutex> lock(mMutex);
            mState.NotePeerCancelled();
        }
        fail("", "the sender cancelled the copy", true);
    } else {
        fail("", "the sender left: " + goodbye.reason, true);
    }
}

}  // namespace orin::xfer::host
