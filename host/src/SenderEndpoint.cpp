#include "xferfm/host/SenderEndpoint.h"

#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <deque>
#include <map>
#include <mutex>
#include <optional>
#include <thread>
#include <utility>

#include "HostLog.h"
#include "IFileTransferManager.h"
#include "ReadCountingRateLimiter.h"
#include "SessionText.h"
#include "SkippedEntries.h"
#include "SourceTree.h"
#include "SystemErrorText.h"
#include "xferfm/host/ThreadLooperFactory.h"
#include "xferfm/host/TokenBucketRateLimiter.h"

namespace orin::xfer::host {

namespace {

using Clock = std::chrono::steady_clock;
constexpr uint32_t kNoTransferId = 0xFFFFFFFF;
// Entries handed to the engine at a time (see Offer).
constexpr size_t kUploadSlice = 64;
// How long the pump sleeps while nothing streams (it is woken for work).
constexpr auto kPumpIdleSleep = std::chrono::milliseconds(100);
// A file that streams nothing for this long although the window lets its
// worker go has its source looked at: the worker ends quietly where the
// file ends now, so a file cut short would otherwise never finish.
constexpr auto kSourceCheckAfter = std::chrono::milliseconds(250);

// A file announced to the receiver whose data has not all been handed off
// yet, as far as the endpoint can see it. Only the oldest one streams.
struct Upload {
    size_t index = 0;
    uint32_t taskId = 0;
    uint32_t transferId = 0;
    std::string sourcePath;
    uint64_t fileSize = 0;
    bool accepted = false;
    bool started = false;       // ProcessFileUploadData was called
    uint64_t bytesSeen = 0;
    uint64_t chunksSeen = 0;
    uint64_t chunksAcked = 0;   // the receiver's last cumulative count
    bool ackSeen = false;
    bool releasePending = false;  // the worker waits at releaseAt: notify until it moves on
    int64_t releaseAt = -1;       // chunksSeen at the last release
    Clock::time_point lastChunk;
    Clock::time_point lastNudge;
    Clock::time_point lastSourceCheck;
};

struct AnnouncedSource {
    std::string path;
    uint64_t size = 0;
};

}  // namespace

class SenderEndpoint::Impl final : public ITransportHandler, public FileTransferListener {
public:
    Impl(std::unique_ptr<ITransport> transport, SenderOptions options)
        : mOptions(std::move(options)),
          mFlowControl(mOptions.flowControl || mOptions.bandwidthKbps != 0),
          mTransport(std::move(transport))
    {
        std::unique_ptr<IFileTransferRateLimiter> bucket;
        const bool limited = mOptions.bandwidthKbps != 0;
        if (limited) {
            bucket = std::make_unique<TokenBucketRateLimiter>();
        }
        auto counter = std::make_unique<detail::ReadCountingRateLimiter>(std::move(bucket));
        mWorkerReads = counter.get();  // owned by the engine, which this outlives
        mManager = IFileTransferManager::NewInstance(this, std::make_unique<ThreadLooperFactory>(),
                                                     mOptions.flowControl || limited, std::move(counter));
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
        return summaryLocked();
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
                sourcePath = detail::SourcePathOf(mList[mNextIndex]);
                mSourceByTransfer[transferId] = AnnouncedSource{sourcePath, size};
                if (isDir) {
                    ++mSummary.directoriesDone;  // nothing to stream
                } else {
                    Upload upload;
                    upload.index = mNextIndex;
                    upload.taskId = taskId;
                    upload.transferId = transferId;
                    upload.fileSize = size;
                    upload.sourcePath = sourcePath;
                    upload.lastChunk = Clock::now();
                    mUploads.push_back(std::move(upload));
                }
                ++mNextIndex;
            }
        }
        if (!mismatch.empty()) {
            finish(Outcome::kFailed, "", mismatch);
            return;
        }
        notifyObserver([&](SenderObserver& observer) { observer.OnFileStarted(sourcePath, size); });
        mTransport->Send(FileStart{taskId, transferId, fileName, isDir, size, totalSize, mOptions.ackWindow});
    }

    // Main looper for file data; for the one empty piece of a 0-byte file,
    // the thread that started the upload (delivery or pump thread).
    void onSendFileData(uint32_t taskId, uint32_t transferId, const uint8_t* data, int64_t size) override
    {
        (void)taskId;
        const uint64_t length = size > 0 ? static_cast<uint64_t>(size) : 0;
        uint64_t bytesSent = 0;
        bool startNext = false;
        bool releaseNow = false;
        std::string grownSource;
        uint64_t announced = 0;
        {
            std::lock_guard<std::mutex> lock(mMutex);
            if (mFinished) {
                return;
            }
            auto upload = uploadLocked(transferId);
            // The worker reads to the end of the file as it is now: data past
            // the size announced means the file grew while it was read. None
            // of it goes to the receiver, which would wait for the announced
            // size forever.
            if (upload != mUploads.end() && upload->bytesSeen + length > upload->fileSize) {
                grownSource = upload->sourcePath;
                announced = upload->fileSize;
            } else if (upload == mUploads.end() && length > 0) {
                const auto known = mSourceByTransfer.find(transferId);
                if (known != mSourceByTransfer.end()) {
                    grownSource = known->second.path;  // all announced bytes went out already
                    announced = known->second.size;
                }
            }
            if (!grownSource.empty()) {
                // handled below, unlocked
            } else if (upload != mUploads.end()) {
                upload->bytesSeen += length;
                upload->chunksSeen += length > 0 ? 1 : 0;
                upload->lastChunk = Clock::now();
                if (upload->releasePending && static_cast<int64_t>(upload->chunksSeen) > upload->releaseAt) {
                    upload->releasePending = false;
                }
                if (upload->bytesSeen >= upload->fileSize) {
                    ++mSummary.filesDone;
                    mUploads.erase(upload);
                    // The next file's worker may start once this one's data
                    // is all handed off.
                    startNext = !mUploads.empty() && mUploads.front().accepted && !mUploads.front().started;
                } else {
                    releaseNow = releaseDueLocked(*upload);
                }
            }
            if (grownSource.empty()) {
                mSummary.bytesDone += length;
                bytesSent = mSummary.bytesDone;
            }
        }
        if (!grownSource.empty()) {
            finish(Outcome::kFailed, grownSource, grownSource + ": changed while it was read (it grew past the " +
                                                      std::to_string(announced) + " bytes announced)");
            return;
        }
        if (releaseNow) {
            releaseWorker();  // the worker waits at this window's end by now
        }
        if (startNext) {
            // Before this piece goes on, so the next worker's start overlaps
            // the receiver's handling of it.
            startUploads(false);
        }
        mTransport->SendData(transferId, data, static_cast<size_t>(length));
        notifyObserver([&](SenderObserver& observer) { observer.OnBytesSent(bytesSent); });
    }

    void onFileTransferFailed(uint32_t taskId, uint32_t transferId, uint32_t result) override
    {
        // A lost link is reported with no task (0xFFFFFFFF) and transfer id
        // 0; a missing source with its task and transfer id 0.
        const bool linkLost = taskId == kNoTransferId;
        std::string path;
        {
            std::lock_guard<std::mutex> lock(mMutex);
            if (mFinished) {
                return;
            }
            auto known = mSourceByTransfer.find(transferId);
            if (linkLost) {
                // No file to name.
            } else if (known != mSourceByTransfer.end()) {
                path = known->second.path;
            } else if (transferId == 0 && mNextIndex < mList.size()) {
                path = detail::SourcePathOf(mList[mNextIndex]);  // UploadFiles found it missing
            }
        }
        std::string message;
        if (linkLost || (transferId == 0 && path.empty())) {
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

    // Requests go up the list. One that passes over entries leaves them
    // unsent (the receiver refused them) and hands the engine a fresh
    // slice from the requested entry, since UploadFiles serves the front of
    // its list. A request for an entry already announced or passed over,
    // for one the receiver refused, or beyond the list ends the session.
    void handle(NextFileRequest& request)
    {
        std::lock_guard<std::mutex> engine(mEngineMutex);
        std::vector<FileDescription> nextSlice;
        std::vector<SkippedEntry> passedOver;
        std::string problem;
        bool beyondList = false;
        {
            std::lock_guard<std::mutex> lock(mMutex);
            if (mFinished) {
                return;
            }
            problem = requestProblemLocked(request.index, beyondList);
            if (problem.empty()) {
                if (request.index > mNextIndex) {
                    passedOver = passOverLocked(static_cast<size_t>(request.index));
                }
                if (mSliceLeft == 0 && mNextIndex < mList.size()) {
                    const size_t end = std::min(mList.size(), mNextIndex + kUploadSlice);
                    nextSlice.assign(mList.begin() + static_cast<std::ptrdiff_t>(mNextIndex),
                                     mList.begin() + static_cast<std::ptrdiff_t>(end));
                    mSliceLeft = nextSlice.size();
                }
                mExpectedName = request.name;
            } else {
                mExpectedName.clear();
            }
        }
        reportSkipped(passedOver);
        if (!problem.empty()) {
            if (beyondList) {
                mTransport->Send(EndOfList{});
            }
            finish(Outcome::kFailed, "", problem);
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

    // The receiver will not take this entry: recorded, and told to the
    // observer, at once. An entry already announced or passed over, or one
    // outside the list, is ignored: it changes nothing on this side.
    void handle(EntryRefused& refused)
    {
        std::string path;
        {
            std::lock_guard<std::mutex> lock(mMutex);
            if (mFinished || !mListSent || refused.index >= mList.size() || refused.index < mNextIndex) {
                HOST_LOG_W << "the receiver refused entry " << refused.index << ", which is not ahead in the list";
                return;
            }
            path = detail::SourcePathOf(mList[static_cast<size_t>(refused.index)]);
            if (!mSkipped.Refuse(static_cast<size_t>(refused.index), path, refused.reason)) {
                return;
            }
        }
        notifyObserver([&](SenderObserver& observer) { observer.OnEntrySkipped(path, refused.reason); });
    }

    // Files stream one at a time: the engine's window count and flags are
    // shared by its workers. A file accepted while the one before it is
    // still streaming starts once that one's data is all handed off.
    void handle(FileAccept& accept)
    {
        {
            std::lock_guard<std::mutex> lock(mMutex);
            auto upload = uploadLocked(accept.transferId);
            if (mFinished || upload == mUploads.end() || upload->accepted) {
                return;
            }
            upload->accepted = true;
        }
        startUploads(true);
    }

    void handle(DataAck& ack)
    {
        bool releaseNow = false;
        {
            std::lock_guard<std::mutex> lock(mMutex);
            auto upload = uploadLocked(ack.transferId);
            if (mFinished || upload == mUploads.end()) {
                return;
            }
            upload->chunksAcked = std::max(upload->chunksAcked, ack.chunksWritten);
            upload->ackSeen = true;
            releaseNow = releaseDueLocked(*upload);
        }
        if (releaseNow) {
            releaseWorker();
        }
    }

    void handle(TransferError& error)
    {
        std::string path;
        {
            std::lock_guard<std::mutex> lock(mMutex);
            auto known = mSourceByTransfer.find(error.transferId);
            if (known != mSourceByTransfer.end()) {
                path = known->second.path;
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
            // The entries never asked for were passed over.
            std::vector<SkippedEntry> passedOver;
            {
                std::lock_guard<std::mutex> lock(mMutex);
                if (!mFinished && mListSent) {
                    passedOver = passOverLocked(mList.size());
                }
            }
            reportSkipped(passedOver);
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
            mSummary.completed = outcome == Outcome::kCompleted && mSkipped.Empty();
            mSummary.partial = outcome == Outcome::kCompleted && !mSkipped.Empty();
            mSummary.cancelled = outcome == Outcome::kCancelled;
            if (outcome != Outcome::kCompleted) {
                mSummary.error = message;
            } else if (mSummary.partial) {
                mSummary.error = mSkipped.Text(mList.size());
            }
            mUploads.clear();
            mEngineStopDue = true;
            summary = summaryLocked();
        }
        mChanged.notify_all();
        {
            std::lock_guard<std::mutex> lock(mMutex);
            kickPumpLocked();
        }
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

    // Empty when the request may be served; otherwise why not.
    std::string requestProblemLocked(uint64_t index, bool& beyondList) const
    {
        beyondList = index >= mList.size();
        if (beyondList) {
            return "the receiver asked for entry " + std::to_string(index) + " of a list of " +
                   std::to_string(mList.size()) + " entries";
        }
        if (index < mNextIndex) {
            return "the receiver asked for entry " + std::to_string(index) + " out of order (entries before " +
                   std::to_string(mNextIndex) + " were announced or passed over)";
        }
        if (mSkipped.Contains(static_cast<size_t>(index))) {
            return "the receiver asked for entry " + std::to_string(index) + ", which it had refused";
        }
        return "";
    }

    // The entries from the next one up to `index` will not be sent: they
    // are recorded as skipped (those not refused before are returned, for
    // the observer), and the engine's slice is refilled from `index`.
    std::vector<SkippedEntry> passOverLocked(size_t index)
    {
        std::vector<SkippedEntry> passed =
            mSkipped.PassOver(mNextIndex, index, [this](size_t at) { return detail::SourcePathOf(mList[at]); });
        mNextIndex = index;
        mSliceLeft = 0;
        return passed;
    }

    void reportSkipped(const std::vector<SkippedEntry>& skipped)
    {
        for (const SkippedEntry& entry : skipped) {
            notifyObserver([&](SenderObserver& observer) { observer.OnEntrySkipped(entry.path, entry.reason); });
        }
    }

    TransferSummary summaryLocked() const
    {
        TransferSummary summary = mSummary;
        summary.skipped = mSkipped.InListOrder();
        return summary;
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

    std::deque<Upload>::iterator uploadLocked(uint32_t transferId)
    {
        return std::find_if(mUploads.begin(), mUploads.end(),
                            [transferId](const Upload& upload) { return upload.transferId == transferId; });
    }

    // The upload whose worker runs now, if any.
    Upload* streamingLocked()
    {
        return !mUploads.empty() && mUploads.front().started ? &mUploads.front() : nullptr;
    }

    // The worker pauses whenever it has handed out a window of chunks
    // (window 0: once, before the first chunk). It is released as soon as
    // the receiver has written all but the last window, so the receiver
    // always has data queued while the acknowledgement travels, and at most
    // two windows are ever unwritten. True when a release became due.
    bool evaluateReleaseLocked(Upload& upload)
    {
        if (!upload.started || upload.releasePending) {
            return false;
        }
        const uint64_t window = mOptions.ackWindow;
        const bool atWaitPoint = window == 0 ? upload.chunksSeen == 0 && upload.ackSeen
                                             : upload.chunksSeen > 0 && upload.chunksSeen % window == 0 &&
                                                   upload.chunksAcked + window >= upload.chunksSeen;
        if (!atWaitPoint || upload.releaseAt == static_cast<int64_t>(upload.chunksSeen)) {
            return false;  // released at this point already
        }
        upload.releasePending = true;
        upload.releaseAt = static_cast<int64_t>(upload.chunksSeen);
        return true;
    }

    // A due release goes out at once from the calling thread when no
    // bandwidth delay can hold NotifyUpload up (true: the caller calls it
    // once unlocked); with flow control on, the pump sends it. Either way
    // the pump repeats it until the worker moves on.
    bool releaseDueLocked(Upload& upload)
    {
        if (!evaluateReleaseLocked(upload)) {
            return false;
        }
        if (mFlowControl) {
            kickPumpLocked();
            return false;
        }
        upload.lastNudge = Clock::now();
        return true;
    }

    // Whether a worker seen to be stalled may be let go: the window rule
    // above, applied wherever it stopped (its count can be skewed by the
    // previous file's worker, which resets the shared count when it ends).
    bool mayReleaseLocked(const Upload& upload) const
    {
        const uint64_t window = mOptions.ackWindow;
        return window == 0 || upload.chunksAcked + window >= upload.chunksSeen;
    }

    // Ends the session when a quiet file's source no longer matches what
    // was announced: cut short (its worker has ended), or gone before its
    // worker could open it. A file removed after it was opened is still
    // read to its end, so that case waits.
    void failIfSourceChanged(const Upload& upload)
    {
        struct stat status {};
        std::string change;
        if (::stat(upload.sourcePath.c_str(), &status) != 0) {
            const int error = errno;
            std::lock_guard<std::mutex> gate(mWorkerReads->Gate());
            if (mWorkerReads->ChunksReadLocked() == 0 && upload.fileSize > 0) {
                change = error == ENOENT ? "no longer exists" : "cannot be read: " + SystemErrorText(error);
            }
        } else if (static_cast<uint64_t>(status.st_size) != upload.fileSize) {
            change = "changed while it was read (" + std::to_string(upload.fileSize) + " bytes announced, " +
                     std::to_string(status.st_size) + " now)";
        }
        if (!change.empty()) {
            finish(Outcome::kFailed, upload.sourcePath, upload.sourcePath + ": " + change);
        }
    }

    // The only caller of NotifyUpload. The decisions above go by the data
    // seen, which trails the worker; a release repeated after the worker
    // has already moved on would free it from a later wait. So the window
    // rule is checked again against the chunks the worker has really read,
    // and the worker cannot read on until the release has been sent.
    void releaseWorker()
    {
        std::lock_guard<std::mutex> gate(mWorkerReads->Gate());
        {
            std::lock_guard<std::mutex> lock(mMutex);
            const Upload* upload = mFinished ? nullptr : streamingLocked();
            if (upload == nullptr) {
                return;
            }
            const uint64_t window = mOptions.ackWindow;
            const bool allowed = window == 0 ? upload->ackSeen
                                             : upload->chunksAcked + window >= mWorkerReads->ChunksReadLocked();
            if (!allowed) {
                return;
            }
        }
        mManager->NotifyUpload();
    }

    void kickPumpLocked()
    {
        mPumpKicked = true;
        mPumpWake.notify_one();
    }

    // Starts the oldest accepted file if nothing streams, and the ones after
    // it that end inside their start (0-byte files). Called on the delivery
    // and pump threads (`mayWait`), and from the data hand-off on the main
    // looper, which only tries the engine lock (its holder may be joining
    // that looper) and leaves the start to the pump when it is busy. The
    // hand-off holds no engine lock, so ProcessFileUploadData (task lock,
    // thread start) is safe there; a 0-byte file's empty piece comes back
    // into onSendFileData inside it, and that nested call starts nothing.
    void startUploads(bool mayWait)
    {
        if (mStartingOn.load() == std::this_thread::get_id()) {
            return;  // nested: the loop below goes on with the next file
        }
        std::unique_lock<std::mutex> engine(mEngineMutex, std::defer_lock);
        if (mayWait) {
            engine.lock();
        } else if (!engine.try_lock()) {
            std::lock_guard<std::mutex> lock(mMutex);
            mStartDue = true;
            kickPumpLocked();
            return;
        }
        mStartingOn = std::this_thread::get_id();
        while (true) {
            uint32_t transferId = 0;
            {
                std::lock_guard<std::mutex> lock(mMutex);
                if (mFinished || mUploads.empty() || !mUploads.front().accepted || mUploads.front().started) {
                    break;
                }
                Upload& upload = mUploads.front();
                upload.started = true;
                upload.lastChunk = Clock::now();
                transferId = upload.transferId;
                if (mPumpNapping) {
                    kickPumpLocked();  // watch this transfer at the short cadence
                }
                if (evaluateReleaseLocked(upload)) {
                    kickPumpLocked();
                }
            }
            mWorkerReads->Reset();  // the previous worker has read all it will
            mManager->ProcessFileUploadData(transferId);
        }
        mStartingOn = std::thread::id();
    }

    // The only caller of NotifyUpload, and the thread that stops the engine
    // once the session is over (Cancel may come from an observer callback
    // that runs inside an engine call). It also starts a file whose
    // predecessor finished streaming. A due release is repeated until the
    // worker hands out its next chunk (a NotifyUpload that beats the worker
    // into its wait is lost); a transfer that has gone quiet although it
    // may be released is nudged now and then.
    void pumpAcknowledgements()
    {
        std::unique_lock<std::mutex> lock(mMutex);
        while (!mStopPump) {
            mPumpKicked = false;
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
            if (mStartDue) {
                mStartDue = false;
                lock.unlock();
                startUploads(true);
                lock.lock();
                continue;
            }
            bool nudge = false;
            std::optional<Upload> check;
            Clock::duration sleepFor = kPumpIdleSleep;
            Upload* upload = mFinished ? nullptr : streamingLocked();
            if (upload != nullptr) {
                const auto now = Clock::now();
                const bool quiet = now - upload->lastChunk >= mOptions.idleNudgeAfter &&
                                   now - upload->lastNudge >= mOptions.idleNudgeAfter;
                sleepFor = mOptions.idleNudgeAfter;
                if (upload->releasePending) {
                    nudge = now - upload->lastNudge >= mOptions.renotifyInterval;
                    sleepFor = mOptions.renotifyInterval;
                } else if (quiet && mayReleaseLocked(*upload)) {
                    nudge = true;
                }
                if (nudge) {
                    upload->lastNudge = now;
                }
                if (now - upload->lastChunk >= kSourceCheckAfter && now - upload->lastSourceCheck >= kSourceCheckAfter &&
                    mayReleaseLocked(*upload)) {
                    upload->lastSourceCheck = now;
                    check = *upload;
                }
            }
            if (nudge) {
                lock.unlock();
                releaseWorker();
                lock.lock();
            }
            if (check) {
                lock.unlock();
                failIfSourceChanged(*check);
                lock.lock();
                continue;
            }
            if (!mPumpKicked && !mStopPump) {
                mPumpNapping = sleepFor == kPumpIdleSleep;
                mPumpWake.wait_for(lock, sleepFor);
                mPumpNapping = false;
            }
        }
    }

    SenderOptions mOptions;
    const bool mFlowControl;  // the engine may sleep inside NotifyUpload (bandwidth delay)
    std::unique_ptr<ITransport> mTransport;
    std::unique_ptr<IFileTransferManager> mManager;
    detail::ReadCountingRateLimiter* mWorkerReads = nullptr;  // owned by mManager

    // Serialises the engine operations the endpoint's threads make (all but
    // NotifyUpload): the engine's lists are not guarded against concurrent
    // host calls. Inside a listener callback it is only ever tried.
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
    std::deque<Upload> mUploads;  // announced files not yet all handed off, in list order
    std::map<uint32_t, AnnouncedSource> mSourceByTransfer;
    detail::SkippedEntries mSkipped;  // entries the receiver will not take
    bool mFinished = false;
    bool mStopPump = false;
    bool mPumpKicked = false;  // something for the pump arrived since it last looked
    bool mPumpNapping = false; // the pump sleeps the long, nothing-streams interval
    bool mStartDue = false;    // the next accepted file may start streaming
    std::atomic<std::thread::id> mStartingOn{};  // the thread inside startUploads, if any
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
