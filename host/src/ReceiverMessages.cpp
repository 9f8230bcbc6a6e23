#include "ReceiverEndpointImpl.h"


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
    Progress progress;
    {
        std::lock_guard<std::mutex> lock(mMutex);
        if (!mCurrent.active || mCurrent.receiverId != transferId) {
            return;
        }
        mLastActivity = Clock::now();
        mCurrent.bytesWritten += chunkSize;
        ++mCurrent.chunksWritten;
        ++mCurrent.chunksAccounted;
        mBytesWritten += chunkSize;
        if (mCurrent.window > 0 && mCurrent.chunksWritten % mCurrent.window == 0) {
            ack = DataAck{mCurrent.senderId, mCurrent.chunksWritten};
        }
        progress = progressLocked();
    }
    mChanged.notify_all();
    if (ack) {
        mTransport->Send(*ack);
    }
    reportProgress(progress);
}

void ReceiverEndpoint::Impl::onFileTransferCompleted(uint32_t taskId, uint32_t transferId, uint32_t result)
{
    (void)taskId, (void)result;
    Progress progress;
    {
        std::lock_guard<std::mutex> lock(mMutex);
        if (!mCurrent.active || mCurrent.receiverId != transferId || !mCurrent.announced) {
            return;
        }
        mLastActivity = Clock::now();
        mCurrent.completed = true;
        if (!mCurrent.isDirectory) {
            ++mCurrent.chunksAccounted;
            mBytesWritten += mCurrent.fileSize - mCurrent.bytesWritten;
            mCurrent.bytesWritten = mCurrent.fileSize;
        }
        progress = progressLocked();
    }
    mChanged.notify_all();
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
        if (!mCurrent.active) {
            return;  // the link or a teardown: reported by its own path
        }
        path = destinationGuessLocked();
        if (transferId == mCurrent.receiverId && transferId != 0) {
            message = mCurrent.isDirectory ? path + ": cannot be created" : path + ": writing failed";
        } else if (taskId == kNoTransferId && transferId == 0) {
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
    mChanged.notify_all();
    notifyObserver([&](ReceiverObserver& observer) { observer.OnListReceived(entries, bytes); });
}

void ReceiverEndpoint::Impl::handle(FileStart& start)
{
    std::string problem;
    Current current;
    {
        std::lock_guard<std::mutex> lock(mMutex);
        if (!mCurrent.active || mCurrent.announced) {
            problem = "the sender announced \"" + start.name + "\" unasked";
        } else if (start.name != mCurrent.name || start.isDirectory != mCurrent.isDirectory) {
            problem = "the sender announced \"" + start.name + "\" where \"" + mCurrent.name + "\" was asked for";
        } else if ((start.transferId & 1u) == 0 || start.transferId == kNoTransferId) {
            problem = "the sender announced \"" + start.name + "\" with an invalid transfer id";
        } else {
            mCurrent.announced = true;
            mCurrent.senderId = start.transferId;
            mCurrent.receiverId = start.transferId + 1;
            mCurrent.window = start.ackWindow;
            mCurrent.fileSize = start.fileSize;  // the file may have changed since it was listed
            current = mCurrent;
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
    mTransport->Send(FileAccept{start.transferId});
    if (start.ackWindow == 0) {
        mTransport->Send(DataAck{start.transferId, 0});  // the worker waits before its first chunk
    }
}

void ReceiverEndpoint::Impl::handle(FileData& data)
{
    uint32_t taskId = 0;
    uint32_t receiverId = 0;
    {
        std::lock_guard<std::mutex> lock(mMutex);
        if (!mCurrent.active || !mCurrent.announced || mCurrent.isDirectory ||
            mCurrent.senderId != data.transferId || mFailed) {
            return;
        }
        taskId = mCurrent.taskId;
        receiverId = mCurrent.receiverId;
    }
    std::lock_guard<std::mutex> input(mEngineInputMutex);
    if (mAborting) {
        return;
    }
    {
        std::lock_guard<std::mutex> lock(mMutex);
        ++mCurrent.chunksSubmitted;
    }
    mManager->ProcessFileDownloadData(taskId, receiverId, data.bytes.size(), data.bytes.data());
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
