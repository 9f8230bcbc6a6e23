#include "xferfm/host/SenderEndpoint.h"

#include <algorithm>
#include <condition_variable>
#include <map>
#include <mutex>
#include <optional>
#include <thread>
#include <utility>

#include "HostLog.h"
#include "IFileTransferManager.h"
#include "SessionText.h"
#include "SourceTree.h"
#include "xferfm/host/ThreadLooperFactory.h"
#include "xferfm/host/TokenBucketRateLimiter.h"

namespace orin::xfer::host {

namespace {

using Clock = std::chrono::steady_clock;
constexpr uint32_t kNoTransferId = 0xFFFFFFFF;
// Entries handed to the engine at a time (see Offer).
constexpr size_t kUploadSlice = 64;

// The file being streamed now, as far as the endpoint can see it.
struct Upload {
    size_t index = 0;
    uint32_t taskId = 0;
    uint32_t transferId = 0;
    std::string sourcePath;
    bool isDirectory = false;
    uint64_t fileSize = 0;
    bool accepted = false;
    uint64_t bytesSeen = 0;
    uint64_t chunksSeen = 0;
    uint64_t chunksAcked = 0;   // the receiver's last cumulative count
    bool ackPending = false;    // an acknowledgement waits for the worker to move on
    uint64_t ackedAtChunk = 0;  // chunksSeen when that acknowledgement arrived
    Clock::time_point lastChunk;
    Clock::time_point lastNudge;
};

}  // namespace

class SenderEndpoint::Impl final : public ITransportHandler, public FileTransferListener {
public:
    Impl(std::unique_ptr<ITransport> transport, SenderOptions options)
        : mOptions(std::move(options)), mTransport(std::move(transport))
    {
        std::unique_ptr<IFileTransferRateLimiter> limiter;
        const bool limited = mOptions.bandwidthKbps != 0;
        if (limited) {
            limiter = std::make_unique<TokenBucketRateLimiter>();
        }
        mManager = IFileTransferManager::NewInstance(this, std::make_unique<ThreadLooperFactory>(),
                                                     mOptions.flowControl || limited, std::move(limiter));
        if (limited) {
            mManager->SetBandwidth(mOptions.bandwidthKbps);
        }
        mManager->SetUploadWindowsSize(mOptions.ackWindow);
        mPump = std::thread([this] { pumpAcknowledgements(); });
        mTransport->Start(*this);
    }

    ~Impl() override
    {
        finish(Outcome::kCancelled, "", "the sender was shut down");
        {
            std::lock_guard<std::mutex> lock(mMutex);
            mStopPump = true;
        }
        mPumpWake.notify_all();
        mPump.join();
        // No delivery and no blocked data hand-off after this.
        mTransport->Close();
        std::lock_guard<std::mutex> engine(mEngineMutex);
        mManager->Cancel();
        mManager.reset();  // the listener (this) outlives the engine
    }

    bool Offer(const std::vector<std::string>& paths, std::string& error)
    {
        std::vector<FileDescription> list;
        if (!detail::BuildUploadList(paths, list, error)) {
            return false;
        }
        std::lock_guard<std::mutex> engine(mEngineMutex);
        {
            std::lock_guard<std::mutex> lock(mMutex);
            if (mOffered || mFinished) {
                error = mFinished ? "the session has ended" : "a list was offered already";
                return false;
            }
        }
        // The whole list goes into the JSON; the engine then only ever holds
        // a short slice, because UploadFiles erases from the front of its
        // list (a long list would cost quadratic time).
        mManager->TriggerLocalCopy(list);
        mManager->SendFileDesc();  // onSendFileDesc keeps the text
        const size_t firstSlice = std::min(list.size(), kUploadSlice);
        mManager->TriggerLocalCopy(std::vector<FileDescription>(list.begin(), list.begin() + firstSlice));
        bool sendNow = false;
        std::string json;
        {
            std::lock_guard<std::mutex> lock(mMutex);
            mSliceLeft = firstSlice;
            mList = std::move(list);
            mOffered = true;
            mSummary.entriesTotal = mList.size();
            for (const FileDescription& entry : mList) {
                if ((entry.attribute & kAttributeDirectory) == 0) {
                    mSummary.bytesTotal += entry.fileSize;
                }
            }
            sendNow = mListRequested && !mListSent;
            mListSent = mListSent || sendNow;
            json = mListJson;
        }
        if (sendNow) {
            mTransport->Send(FileListMessage{std::move(json)});
        }
        return true;
    }

    bool WaitFinished(std::chrono::milliseconds timeout)
    {
        std::unique_lock<std::mutex> lock(mMutex);
        return mChanged.wait_for(lock, timeout, [this] { return mFinished; });
    }

    bool Finished() const
    {
        std::lock_guard<std::mutex> lock(mMutex);
        return mFinished;
    }

    // Safe from observer callbacks: the engine is stopped by the pump thread.
    void Cancel() { finish(Outcome::kCancelled, "", kCancelledReason); }

    TransferSummary Summary() const
    {
        std::lock_guard<std::mutex> lock(mMutex);
        return mSummary;
    }

    // ---- messages from the receiver (delivery thread) ----

    void OnMessage(Message message) override
    {
        std::visit([this](auto& body) { handle(body); }, message);
    }

    void OnTransportClosed(const std::string& reason) override
    {
        if (Finished()) {
            return;
        }
        {
            std::lock_guard<std::mutex> engine(mEngineMutex);
            mManager->ProcessTansferDisconnect();
        }
        finish(Outcome::kFailed, "", "the link to the receiver was lost: " + reason);
    }

    // ---- engine listener ----

    // Only Offer asks for the description; it is sent once requested.
    void onSendFileDesc(const std::string& jsonData) override
    {
        std::lock_guard<std::mutex> lock(mMutex);
        mListJson = jsonData;
    }

    void onSendFileStart(uint32_t taskId, uint32_t transferId, const std::string& fileName, const std::string& dest,
                         bool isDir, uint32_t flag, uint64_t totalSize, uint64_t size) override
    {
        (void)dest, (void)flag;
        std::string mismatch;
        std::string sourcePath;
        {
            std::lock_guard<std::mutex> lock(mMutex);
            if (mFinished) {
                return;
            }
            if (fileName != mExpectedName) {
                mismatch = "the sender announced \"" + fileName + "\" where the receiver asked for \"" +
                           mExpectedName + "\"";
            } else {
                Upload upload;
                upload.index = mNextIndex;
                upload.taskId = taskId;
                upload.transferId = transferId;
                upload.isDirectory = isDir;
                upload.fileSize = size;
                upload.sourcePath = detail::SourcePathOf(mList[mNextIndex]);
                upload.lastChunk = Clock::now();
                sourcePath = upload.sourcePath;
                mUpload = upload;
                mSourceByTransfer[transferId] = upload.sourcePath;
                ++mNextIndex;
                if (isDir) {
                    ++mSummary.directoriesDone;
                }
            }
        }
        if (!mismatch.empty()) {
            finish(Outcome::kFailed, "", mismatch);
            return;
        }
        notifyObserver([&](SenderObserver& observer) { observer.OnFileStarted(sourcePath, size); });
        mTransport->Send(FileStart{taskId, transferId, fileName, isDir, size, totalSize, mOptions.ackWindow});
    }

    // Main looper for file data; the delivery thread for the one empty
    // piece of a 0-byte file.
    void onSendFileData(uint32_t taskId, uint32_t transferId, const uint8_t* data, int64_t size) override
    {
        (void)taskId;
        const uint64_t length = size > 0 ? static_cast<uint64_t>(size) : 0;
        uint64_t bytesSent = 0;
        {
            std::lock_guard<std::mutex> lock(mMutex);
            if (mFinished) {
                return;
            }
            if (mUpload && mUpload->transferId == transferId) {
                mUpload->bytesSeen += length;
                mUpload->chunksSeen += length > 0 ? 1 : 0;
                mUpload->lastChunk = Clock::now();
                if (mUpload->ackPending && mUpload->chunksSeen > mUpload->ackedAtChunk) {
                    mUpload->ackPending = false;
                }
                if (mUpload->bytesSeen == mUpload->fileSize) {
                    ++mSummary.filesDone;
                }
            }
            mSummary.bytesDone += length;
            bytesSent = mSummary.bytesDone;
        }
        FileData piece;
        piece.transferId = transferId;
        if (length > 0) {
            piece.bytes.assign(data, data + length);
        }
        mTransport->Send(std::move(piece));
        notifyObserver([&](SenderObserver& observer) { observer.OnBytesSent(bytesSent); });
    }

    void onFileTransferFailed(uint32_t taskId, uint32_t transferId, uint32_t result) override
    {
        (void)taskId;
        std::string path;
        {
            std::lock_guard<std::mutex> lock(mMutex);
            if (mFinished) {
                return;
            }
            auto known = mSourceByTransfer.find(transferId);
            if (known != mSourceByTransfer.end()) {
                path = known->second;
            } else if (transferId == 0 && mNextIndex < mList.size()) {
                path = detail::SourcePathOf(mList[mNextIndex]);  // UploadFiles found it missing
            }
        }
        std::string message;
        if (transferId == kNoTransferId || (transferId == 0 && path.empty())) {
            message = "the link to the receiver was lost";
        } else if (result == 3) {
            message = "the receiver reported an error for " + path;
        } else if (transferId == 0) {
            message = path + ": no longer exists";
        } else {
            message = path + ": cannot be read";
        }
        finish(Outcome::kFailed, path, message);
    }

private:
    enum class Outcome { kCompleted, kFailed, kCancelled };

    void handle(FileListRequest&)
    {
        bool sendNow = false;
        std::string json;
        {
            std::lock_guard<std::mutex> lock(mMutex);
            mListRequested = true;
            sendNow = mOffered && !mListSent && !mFinished;
            mListSent = mListSent || sendNow;
            json = mListJson;
        }
        if (sendNow) {
            mTransport->Send(FileListMessage{std::move(json)});
        }
    }

    void handle(NextFileRequest& request)
    {
        std::lock_guard<std::mutex> engine(mEngineMutex);
        std::vector<FileDescription> nextSlice;
        {
            std::lock_guard<std::mutex> lock(mMutex);
            if (mFinished) {
                return;
            }
            if (mSliceLeft == 0 && mNextIndex < mList.size()) {
                const size_t end = std::min(mList.size(), mNextIndex + kUploadSlice);
                nextSlice.assign(mList.begin() + static_cast<std::ptrdiff_t>(mNextIndex),
                                 mList.begin() + static_cast<std::ptrdiff_t>(end));
                mSliceLeft = nextSlice.size();
            }
            if (request.index != mNextIndex) {
                mExpectedName.clear();
            } else {
                mExpectedName = request.name;
            }
            mUpload.reset();  // the receiver only asks again once the last entry is done
        }
        if (request.index != mNextIndex) {
            finish(Outcome::kFailed, "",
                                "the receiver asked for entry " + std::to_string(request.index) +
                                    " out of order");
            return;
        }
        if (!nextSlice.empty()) {
            mManager->TriggerLocalCopy(nextSlice);
        }
        std::multimap<std::string, std::string> records;
        bool listEmpty = false;
        const uint32_t transferId =
            mManager->UploadFiles(request.taskId, static_cast<size_t>(request.totalSize), "", records, listEmpty);
        if (transferId != kNoTransferId) {
            std::lock_guard<std::mutex> lock(mMutex);
            --mSliceLeft;
        }
        if (transferId == kNoTransferId && listEmpty) {
            mTransport->Send(EndOfList{});
            finish(Outcome::kFailed, "", "the upload was abandoned: nothing is left to send");
        }
        // A missing source file was reported through onFileTransferFailed.
    }

    void handle(FileAccept& accept)
    {
        {
            std::lock_guard<std::mutex> lock(mMutex);
            if (mFinished || !mUpload || mUpload->transferId != accept.transferId || mUpload->isDirectory ||
                mUpload->accepted) {
                return;
            }
            mUpload->accepted = true;
            mUpload->lastChunk = Clock::now();
        }
        std::lock_guard<std::mutex> engine(mEngineMutex);
        mManager->ProcessFileUploadData(accept.transferId);
    }

    void handle(DataAck& ack)
    {
        {
            std::lock_guard<std::mutex> lock(mMutex);
            if (mFinished || !mUpload || mUpload->transferId != ack.transferId) {
                return;
            }
            mUpload->chunksAcked = std::max(mUpload->chunksAcked, ack.chunksWritten);
            mUpload->ackPending = true;
            mUpload->ackedAtChunk = mUpload->chunksSeen;
        }
        mPumpWake.notify_all();
    }

    void handle(TransferError& error)
    {
        std::string path;
        {
            std::lock_guard<std::mutex> lock(mMutex);
            auto known = mSourceByTransfer.find(error.transferId);
            if (known != mSourceByTransfer.end()) {
                path = known->second;
            }
        }
        // Finish first, so the engine's own failure report is not echoed.
        const bool first = finish(Outcome::kFailed, path, "the receiver failed: " + error.message, false);
        if (first && error.transferId != 0 && (error.transferId & 1u) != 0) {
            std::lock_guard<std::mutex> engine(mEngineMutex);
            mManager->ProcessXferError(error.taskId, error.transferId);
        }
    }

    void handle(Disconnect& goodbye)
    {
        if (goodbye.completed) {
            finish(Outcome::kCompleted, "", "", false);
        } else if (goodbye.reason == kCancelledReason) {
            finish(Outcome::kCancelled, "", "the receiver cancelled the copy", false);
        } else {
            finish(Outcome::kFailed, "", "the receiver left: " + goodbye.reason, false);
        }
    }

    void handle(FileListMessage&) {}
    void handle(FileStart&) {}
    void handle(FileData&) {}
    void handle(EndOfList&) {}

    // Ends the session once; true for the call that ended it. Tells the
    // receiver (unless it told us) and the observer.
    bool finish(Outcome outcome, const std::string& path, const std::string& message, bool tellPeer = true)
    {
        TransferSummary summary;
        {
            std::lock_guard<std::mutex> lock(mMutex);
            if (mFinished) {
                return false;
            }
            mFinished = true;
            mSummary.completed = outcome == Outcome::kCompleted;
            mSummary.cancelled = outcome == Outcome::kCancelled;
            if (outcome != Outcome::kCompleted) {
                mSummary.error = message;
            }
            mUpload.reset();
            mEngineStopDue = true;
            summary = mSummary;
        }
        mChanged.notify_all();
        mPumpWake.notify_all();
        if (outcome != Outcome::kCompleted) {
            HOST_LOG_W << "copy ended: " << message;
        }
        if (tellPeer) {
            if (outcome == Outcome::kFailed) {
                mTransport->Send(TransferError{0, 0, message});
            }
            mTransport->Send(Disconnect{false, outcome == Outcome::kCancelled ? kCancelledReason : message});
        }
        if (outcome == Outcome::kFailed) {
            notifyObserver([&](SenderObserver& observer) { observer.OnFailure(path, message); });
        }
        notifyObserver([&](SenderObserver& observer) {
            observer.OnFinished(summary);
            mObserverFinished = true;
        });
        return true;
    }

    template <typename Call>
    void notifyObserver(Call&& call)
    {
        if (mOptions.observer == nullptr) {
            return;
        }
        std::lock_guard<std::recursive_mutex> lock(mObserverMutex);
        if (mObserverFinished) {
            return;  // a data hand-off that lost the race with finish(): OnFinished stays the last call
        }
        call(*mOptions.observer);
    }

    // The only caller of NotifyUpload, and the thread that stops the engine
    // once the session is over (Cancel may come from an observer callback
    // that runs inside an engine call). After an acknowledgement it keeps
    // notifying until the worker sends its next chunk (an acknowledgement
    // that beats the worker into its wait is otherwise lost); a transfer
    // that has gone quiet with window room left is nudged now and then.
    void pumpAcknowledgements()
    {
        std::unique_lock<std::mutex> lock(mMutex);
        while (!mStopPump) {
            if (mEngineStopDue && !mEngineStopped) {
                mEngineStopped = true;
                lock.unlock();
                {
                    std::lock_guard<std::mutex> engine(mEngineMutex);
                    mManager->Cancel();
                }
                lock.lock();
                continue;
            }
            bool nudge = false;
            auto sleepFor = std::chrono::duration_cast<Clock::duration>(mOptions.idleNudgeAfter);
            if (!mFinished && mUpload && mUpload->accepted && mUpload->bytesSeen < mUpload->fileSize) {
                const auto now = Clock::now();
                const uint32_t window = mOptions.ackWindow;
                const bool roomLeft = window > 0 && mUpload->chunksSeen - mUpload->chunksAcked < window;
                const bool quiet = now - mUpload->lastChunk >= mOptions.idleNudgeAfter &&
                                   now - mUpload->lastNudge >= mOptions.idleNudgeAfter;
                if (mUpload->ackPending) {
                    nudge = true;
                    sleepFor = mOptions.renotifyInterval;
                } else if (roomLeft && quiet) {
                    nudge = true;
                }
                if (nudge) {
                    mUpload->lastNudge = now;
                }
            }
            if (nudge) {
                lock.unlock();
                mManager->NotifyUpload();
                lock.lock();
            }
            mPumpWake.wait_for(lock, sleepFor);
        }
    }

    SenderOptions mOptions;
    std::unique_ptr<ITransport> mTransport;
    std::unique_ptr<IFileTransferManager> mManager;

    // Serialises the engine operations the endpoint's threads make (all but
    // NotifyUpload): the engine's lists are not guarded against concurrent
    // host calls. Never taken inside a listener callback.
    std::mutex mEngineMutex;
    // Recursive: an observer may call Cancel() from a callback, and the
    // OnFailure/OnFinished that Cancel reports then come on the same thread.
    std::recursive_mutex mObserverMutex;
    bool mObserverFinished = false;  // guarded by mObserverMutex

    mutable std::mutex mMutex;  // guards everything below
    std::condition_variable mChanged;
    std::condition_variable mPumpWake;
    std::vector<FileDescription> mList;
    bool mOffered = false;
    bool mListRequested = false;
    bool mListSent = false;
    std::string mListJson;
    size_t mSliceLeft = 0;  // entries of the engine's current slice not yet announced
    size_t mNextIndex = 0;
    std::string mExpectedName;
    std::optional<Upload> mUpload;
    std::map<uint32_t, std::string> mSourceByTransfer;
    bool mFinished = false;
    bool mStopPump = false;
    bool mEngineStopDue = false;  // the session is over: the pump stops the engine
    bool mEngineStopped = false;
    TransferSummary mSummary;
    std::thread mPump;
};

SenderEndpoint::SenderEndpoint(std::unique_ptr<ITransport> transport, SenderOptions options)
    : mImpl(std::make_unique<Impl>(std::move(transport), std::move(options)))
{
}

SenderEndpoint::~SenderEndpoint() = default;

bool SenderEndpoint::Offer(const std::vector<std::string>& paths, std::string& error)
{
    return mImpl->Offer(paths, error);
}

bool SenderEndpoint::WaitFinished(std::chrono::milliseconds timeout)
{
    return mImpl->WaitFinished(timeout);
}

bool SenderEndpoint::Finished() const
{
    return mImpl->Finished();
}

void SenderEndpoint::Cancel()
{
    mImpl->Cancel();
}

TransferSummary SenderEndpoint::Summary() const
{
    return mImpl->Summary();
}

}  // namespace orin::xfer::host
