#include "ReceiverEndpointImpl.h"

#include <algorithm>

namespace orin::xfer::host {

using namespace receiver;

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

void ReceiverEndpoint::Impl::onFileTransferProgress(uint32_t taskId, uint32_t transferId, uint32_t percent, uint64_t chunkSize)
{
    (void)taskId, (void)percent;
    std::optional<DataAck> ack;
    std::vector<Accept> accepts;
    Progress progress;
    {
        std::lock_guard<std::mutex> lock(mMutex);
        Slot* slot = slotByReceiverId(transferId);
        if (slot == nullptr) {
            return;
        }
        mLastActivity = Clock::now();
        slot->bytesWritten += chunkSize;
        ++slot->chunksWritten;
        mBytesWritten += chunkSize;
        if (slot->window > 0 && slot->chunksWritten % slot->window == 0) {
            ack = DataAck{slot->senderId, slot->chunksWritten};
        }
        progress = progressLocked(*slot);
        accepts = takeDueAcceptsLocked();
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
    std::vector<Accept> accepts;
    {
        std::lock_guard<std::mutex> lock(mMutex);
        Slot* slot = slotByReceiverId(transferId);
        if (slot == nullptr || !slot->isDirectory) {
            ++mWriterEvents;  // a file's completion wakes a waiting RequestFile
        }
        if (slot == nullptr || !slot->announced) {
            return;
        }
        mLastActivity = Clock::now();
        slot->completed = true;
        if (!slot->isDirectory) {
            mBytesWritten += slot->fileSize - slot->bytesWritten;
            slot->bytesWritten = slot->fileSize;
        }
        progress = progressLocked(*slot);
        wake = settleDueLocked();
        accepts = takeDueAcceptsLocked();
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
    {
        std::lock_guard<std::mutex> lock(mMutex);
        if (transferId != 0) {
            ++mWriterEvents;  // a download's failure stops the writer, which wakes RequestFile
        }
        if (mSlots.empty()) {
            return;  // the link or a teardown: reported by its own path
        }
        const Slot* slot = transferId != 0 ? slotByReceiverId(transferId) : nullptr;
        if (slot != nullptr) {
            path = slot->name == mSlots.front().name ? destinationGuessLocked()
                                                       : mDestination + "/" + slot->name;
            message = slot->isDirectory ? path + ": cannot be created" : path + ": writing failed";
        } else if (taskId == kNoTransferId && transferId == 0) {
            path = destinationGuessLocked();
            message = path + ": cannot be prepared in the cache directory " + mCacheDir;
        } else {
            return;
        }
    }
    fail(path, message, false);
}

void ReceiverEndpoint::Impl::handle(FileListMessage& list)
{
    ParsedFileList parsed;
    std::string error;
    const bool accepted = ParseFileList(list.json, parsed, error, mOptions.listLimits);
    if (!accepted) {
        fail("", "rejected the sender's file list: " + error, false);
        return;
    }
    size_t entries = 0;
    uint64_t bytes = 0;
    {
        std::lock_guard<std::mutex> lock(mMutex);
        if (mListReady) {
            return;  // one list per session
        }
        mList = std::move(parsed);
        mListReady = true;
        entries = mList.entries.size();
        bytes = mList.totalFileBytes;
        mSummary.entriesTotal = entries;
        mSummary.bytesTotal = bytes;
    }
    wakeSession();
    notifyObserver([&](ReceiverObserver& observer) { observer.OnListReceived(entries, bytes); });
}

// Announcements come in list order: each one is for the oldest requested
// entry not yet announced.
void ReceiverEndpoint::Impl::handle(FileStart& start)
{
    std::string problem;
    Slot current;
    {
        std::lock_guard<std::mutex> lock(mMutex);
        auto expected = std::find_if(mSlots.begin(), mSlots.end(), [](const Slot& slot) { return !slot.announced; });
        if (expected == mSlots.end()) {
            problem = "the sender announced \"" + start.name + "\" unasked";
        } else if (start.name != expected->name || start.isDirectory != expected->isDirectory) {
            problem = "the sender announced \"" + start.name + "\" where \"" + expected->name + "\" was asked for";
        } else if ((start.transferId & 1u) == 0 || start.transferId == kNoTransferId ||
                   slotBySenderId(start.transferId) != nullptr) {
            problem = "the sender announced \"" + start.name + "\" with an invalid transfer id";
        } else {
            expected->announced = true;
            expected->senderId = start.transferId;
            expected->receiverId = start.transferId + 1;
            expected->window = start.ackWindow;
            expected->fileSize = start.fileSize;  // the file may have changed since it was listed
            current = *expected;
        }
    }
    if (!problem.empty()) {
        fail("", problem, false);
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
    std::vector<Accept> accepts;
    {
        std::lock_guard<std::mutex> lock(mMutex);
        Slot* slot = slotBySenderId(start.transferId);
        if (slot == nullptr) {
            return;
        }
        slot->acceptDue = true;
        ++mAcceptsDue;
        accepts = takeDueAcceptsLocked();
    }
    sendAccepts(accepts);
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
    {
        std::lock_guard<std::mutex> lock(mMutex);
        mLastActivity = Clock::now();
        const Slot* slot = slotBySenderId(senderId);
        if (slot == nullptr || slot->isDirectory || mFailed) {
            return;
        }
        taskId = slot->taskId;
        receiverId = slot->receiverId;
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
    if (goodbye.reason == kCancelledReason) {
        {
            std::lock_guard<std::mutex> lock(mMutex);
            mPeerCancelled = true;
        }
        fail("", "the sender cancelled the copy", true);
    } else {
        fail("", "the sender left: " + goodbye.reason, true);
    }
}

}  // namespace orin::xfer::host
