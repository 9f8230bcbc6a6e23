// The sender endpoint wires a transport, its own engine, the offered list
// (OfferedList), the upload pacer (UploadPacer) and the observer
// (ObserverRelay) together, and keeps the session's phase
// (SenderSessionState). How it honours the engine:
//
// - Threads: the endpoint runs on the transport's delivery thread
//   (requests, acknowledgements and errors from the receiver; UploadFiles
//   is called there), the engine's main looper (data hand-off), the
//   engine's upload worker, and the pacer's pump thread. The listener is
//   called on the engine's loopers (data on the main looper) and on the
//   caller's thread; it only queues messages and updates counters. Engine
//   operations are never called with the session lock held; all but
//   NotifyUpload are serialised by the engine lock (the engine's lists are
//   not guarded against concurrent host calls), which a listener callback
//   only ever tries (see UploadPacer.cpp). Lock order: engine lock, then
//   session lock, then the pacer's own lock (the pacer never takes the
//   session lock). The engine is never destroyed
//   from its own callbacks or loopers, and the listener outlives it: the
//   destructor ends the session, joins the pump, closes the transport, and
//   only then cancels (ClearTask) and destroys the engine.
// - Names: UploadFiles announces destFilePath + "/" + destFileName (or
//   destFileName alone), and every entry of the list has destFilePath =
//   filePath and destFileName = fileName (SourceTree.cpp), so the announced
//   name is the request name; onSendFileStart checks it against the name
//   the receiver asked for.
// - Transfer ids: this engine draws odd ids (3, 5, ...); they travel as
//   they are; the receiver maps them to even ones.
// - Directories: the announcement alone creates one remotely; it is never
//   handed to the pacer, so never to ProcessFileUploadData.
// - Bandwidth: with bandwidthKbps set, a TokenBucketRateLimiter is given to
//   the engine (behind the read-counting limiter the pacer needs) and flow
//   control is switched on; the engine's own delays floor to whole
//   milliseconds, the bucket corrects the rate.
// - Failures: the engine reports a failed upload as onClipboardRelease,
//   onFileTransferFailed(taskId, transferId, 1), onReportEvent; a missing
//   source file at UploadFiles as onFileTransferFailed(taskId, 0, 1) with
//   the entry left at the front; remote errors reach the engine through
//   ProcessXferError (result 3 for an upload), a lost link through
//   ProcessTansferDisconnect (0xFFFFFFFF, 0, 1). Each is reported once to
//   the observer and to the receiver (TransferError naming the path) and
//   ends the session.
#include "xferfm/host/SenderEndpoint.h"

#include <condition_variable>
#include <cstdlib>
#include <map>
#include <mutex>
#include <utility>

#include "HostLog.h"
#include "IFileTransferManager.h"
#include "ObserverRelay.h"
#include "OfferedList.h"
#include "ReadCountingRateLimiter.h"
#include "SenderSessionState.h"
#include "SessionText.h"
#include "SourceTree.h"
#include "UploadPacer.h"
#include "xferfm/host/ThreadLooperFactory.h"
#include "xferfm/host/TokenBucketRateLimiter.h"

namespace orin::xfer::host {

namespace {

constexpr uint32_t kNoTransferId = 0xFFFFFFFF;

}  // namespace

using detail::SenderState;

class SenderEndpoint::Impl final : public ITransportHandler, public FileTransferListener {
public:
    Impl(std::unique_ptr<ITransport> transport, SenderOptions options)
        : mOptions(std::move(options)), mTransport(std::move(transport)), mObserver(mOptions.observer)
    {
        std::unique_ptr<IFileTransferRateLimiter> bucket;
        const bool limited = mOptions.bandwidthKbps != 0;
        if (limited) {
            bucket = std::make_unique<TokenBucketRateLimiter>();
        }
        auto counter = std::make_unique<detail::ReadCountingRateLimiter>(std::move(bucket));
        detail::ReadCountingRateLimiter& workerReads = *counter;  // owned by the engine, which the pacer outlives
        mManager = IFileTransferManager::NewInstance(this, std::make_unique<ThreadLooperFactory>(),
                                                     mOptions.flowControl || limited, std::move(counter));
        if (limited) {
            mManager->SetBandwidth(mOptions.bandwidthKbps);
        }
        mManager->SetUploadWindowsSize(mOptions.ackWindow);
        detail::PacerSettings pacing;
        pacing.ackWindow = mOptions.ackWindow;
        pacing.flowControl = mOptions.flowControl || limited;
        pacing.renotifyInterval = mOptions.renotifyInterval;
        pacing.idleNudgeAfter = mOptions.idleNudgeAfter;
        mPacer = std::make_unique<detail::UploadPacer>(
            pacing, *mManager, mEngineMutex, workerReads,
            [this](const std::string& path, const std::string& message) { finish(Outcome::kFailed, path, message); });
        mTransport->Start(*this);
    }

    ~Impl() override
    {
        finish(Outcome::kCancelled, "", "the sender was shut down");
        mPacer->Shutdown();
        // No delivery and no blocked data hand-off after this.
        mTransport->Close();
        std::lock_guard<std::mutex> engine(mEngineMutex);
        mManager->Cancel();
        mManager.reset();  // the listener (this) outlives the engine
    }

    bool Offer(const std::vector<std::string>& paths, std::string& error)
    {
        const bool offered = offer(paths, error);
        checkInvariants();
        return offered;
    }

    bool WaitFinished(std::chrono::milliseconds timeout)
    {
        std::unique_lock<std::mutex> lock(mMutex);
        const bool finished = mChanged.wait_for(lock, timeout, [this] { return mState.Finished(); });
        lock.unlock();
        checkInvariants();
        return finished;
    }

    bool Finished() const
    {
        std::lock_guard<std::mutex> lock(mMutex);
        return mState.Finished();
    }

    // Safe from observer callbacks: the engine is stopped by the pump thread.
    void Cancel()
    {
        finish(Outcome::kCancelled, "", kCancelledReason);
        checkInvariants();
    }

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
        mList.KeepJson(jsonData);
    }

    void onSendFileStart(uint32_t taskId, uint32_t transferId, const std::string& fileName, const std::string& dest,
                         bool isDir, uint32_t flag, uint64_t totalSize, uint64_t size) override
    {
        (void)dest, (void)flag;
        std::string mismatch;
        std::string sourcePath;
        size_t index = 0;
        {
            std::lock_guard<std::mutex> lock(mMutex);
            if (mState.Finished()) {
                return;
            }
            if (fileName != mList.ExpectedName()) {
                mismatch = "the sender announced \"" + fileName + "\" where the receiver asked for \"" +
                           mList.ExpectedName() + "\"";
            } else {
                index = mList.NextIndex();
                sourcePath = mList.Announce(transferId, size);
                if (isDir) {
                    ++mSummary.directoriesDone;  // nothing to stream
                }
            }
        }
        if (!mismatch.empty()) {
            finish(Outcome::kFailed, "", mismatch);
            return;
        }
        if (!isDir) {
            mPacer->Announce(index, taskId, transferId, sourcePath, size);
        }
        mObserver.Notify([&](SenderObserver& observer) { observer.OnFileStarted(sourcePath, size); });
        mTransport->Send(FileStart{taskId, transferId, fileName, isDir, size, totalSize, mOptions.ackWindow});
    }

    // Main looper for file data; for the one empty piece of a 0-byte file,
    // the thread that started the upload (delivery or pump thread).
    void onSendFileData(uint32_t taskId, uint32_t transferId, const uint8_t* data, int64_t size) override
    {
        (void)taskId;
        const uint64_t length = size > 0 ? static_cast<uint64_t>(size) : 0;
        detail::DataSeen seen = mPacer->CountData(transferId, length);
        uint64_t bytesSent = 0;
        {
            std::lock_guard<std::mutex> lock(mMutex);
            if (mState.Finished()) {
                return;
            }
            const detail::AnnouncedSource* known = mList.SourceOf(transferId);
            if (seen.kind == detail::DataSeen::Kind::kUnknown && length > 0 && known != nullptr) {
                seen.kind = detail::DataSeen::Kind::kGrew;  // all announced bytes went out already
                seen.sourcePath = known->path;
                seen.announced = known->size;
            }
            if (seen.kind != detail::DataSeen::Kind::kGrew) {
                mSummary.filesDone += seen.kind == detail::DataSeen::Kind::kFileDone ? 1 : 0;
                mSummary.bytesDone += length;
                bytesSent = mSummary.bytesDone;
            }
        }
        if (seen.kind == detail::DataSeen::Kind::kGrew) {
            finish(Outcome::kFailed, seen.sourcePath,
                   seen.sourcePath + ": changed while it was read (it grew past the " +
                       std::to_string(seen.announced) + " bytes announced)");
            return;
        }
        if (seen.releaseNow) {
            mPacer->Release();
        }
        if (seen.startNext) {
            // Before this piece goes on, so the next worker's start overlaps
            // the receiver's handling of it.
            mPacer->StartUploads(false);
        }
        mTransport->SendData(transferId, data, static_cast<size_t>(length));
        mObserver.Notify([&](SenderObserver& observer) { observer.OnBytesSent(bytesSent); });
    }

    void onFileTransferFailed(uint32_t taskId, uint32_t transferId, uint32_t result) override
    {
        // A lost link is reported with no task (0xFFFFFFFF) and transfer id
        // 0; a missing source with its task and transfer id 0.
        const bool linkLost = taskId == kNoTransferId;
        std::string path;
        {
            std::lock_guard<std::mutex> lock(mMutex);
            if (mState.Finished()) {
                return;
            }
            const detail::AnnouncedSource* known = mList.SourceOf(transferId);
            if (linkLost) {
                // No file to name.
            } else if (known != nullptr) {
                path = known->path;
            } else if (transferId == 0) {
                path = mList.PathOfNext();  // UploadFiles found it missing
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

    bool offer(const std::vector<std::string>& paths, std::string& error)
    {
        std::vector<FileDescription> list;
        if (!detail::BuildUploadList(paths, list, error)) {
            return false;
        }
        std::lock_guard<std::mutex> engine(mEngineMutex);
        {
            std::lock_guard<std::mutex> lock(mMutex);
            const SenderState state = mState.Current();
            if (state != SenderState::kCreated && state != SenderState::kListRequested) {
                error = mState.Finished() ? "the session has ended" : "a list was offered already";
                return false;
            }
        }
        // The whole list goes into the JSON; the engine then only ever holds
        // a short slice (see OfferedList.cpp).
        mManager->TriggerLocalCopy(list);
        mManager->SendFileDesc();  // onSendFileDesc keeps the text
        bool sendNow = false;
        std::string json;
        std::vector<FileDescription> firstSlice;
        {
            std::lock_guard<std::mutex> lock(mMutex);
            firstSlice = mList.Take(std::move(list));
            mSummary.entriesTotal = mList.Size();
            mSummary.bytesTotal += mList.FileBytes();
            sendNow = mState.Current() == SenderState::kListRequested;
            if (sendNow) {
                mState.SetState(SenderState::kListSent, "offered after the receiver asked for the list");
            } else if (!mState.Finished()) {
                mState.SetState(SenderState::kOffered, "offered");
            }
            json = mList.Json();
        }
        // Still under the engine lock: no request is served before the
        // engine holds its first slice.
        mManager->TriggerLocalCopy(firstSlice);
        if (sendNow) {
            mTransport->Send(FileListMessage{std::move(json)});
        }
        return true;
    }

    void handle(FileListRequest&)
    {
        bool sendNow = false;
        std::string json;
        {
            std::lock_guard<std::mutex> lock(mMutex);
            if (mState.Current() == SenderState::kCreated) {
                mState.SetState(SenderState::kListRequested, "the receiver asked for the list before the offer");
            } else if (mState.Current() == SenderState::kOffered) {
                sendNow = mState.SetState(SenderState::kListSent, "the receiver asked for the list");
                json = mList.Json();
            }
        }
        if (sendNow) {
            mTransport->Send(FileListMessage{std::move(json)});
        }
    }

    // Requests go up the list (see OfferedList.cpp): one that passes over
    // entries hands the engine a fresh slice from the requested entry; one
    // that may not be served ends the session.
    void handle(NextFileRequest& request)
    {
        std::lock_guard<std::mutex> engine(mEngineMutex);
        std::vector<FileDescription> nextSlice;
        std::vector<SkippedEntry> passedOver;
        detail::RequestVerdict verdict = detail::RequestVerdict::kServe;
        std::string problem;
        {
            std::lock_guard<std::mutex> lock(mMutex);
            if (mState.Finished()) {
                return;
            }
            verdict = mList.CheckRequest(request.index);
            if (verdict == detail::RequestVerdict::kServe) {
                passedOver = mList.Serve(static_cast<size_t>(request.index), request.name, nextSlice);
            } else {
                problem = mList.DescribeRefusedRequest(verdict, request.index);
                mList.ExpectNothing();
            }
        }
        reportSkipped(passedOver);
        if (verdict != detail::RequestVerdict::kServe) {
            if (verdict == detail::RequestVerdict::kBeyondList) {
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
            mList.SliceEntryTaken();
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
            const detail::RefusalVerdict verdict = mState.Current() == SenderState::kListSent
                                                       ? mList.Refuse(refused.index, refused.reason, path)
                                                       : detail::RefusalVerdict::kNotAhead;
            if (verdict == detail::RefusalVerdict::kNotAhead) {
                HOST_LOG_W << "the receiver refused entry " << refused.index << ", which is not ahead in the list";
                return;
            }
            if (verdict == detail::RefusalVerdict::kAlreadyRecorded) {
                return;
            }
        }
        mObserver.Notify([&](SenderObserver& observer) { observer.OnEntrySkipped(path, refused.reason); });
    }

    void handle(FileAccept& accept) { mPacer->Accept(accept.transferId); }

    void handle(DataAck& ack) { mPacer->Acknowledge(ack.transferId, ack.chunksWritten); }

    void handle(TransferError& error)
    {
        std::string path;
        {
            std::lock_guard<std::mutex> lock(mMutex);
            if (const detail::AnnouncedSource* known = mList.SourceOf(error.transferId)) {
                path = known->path;
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
                if (mState.Current() == SenderState::kListSent) {
                    passedOver = mList.PassOverRest();
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
    // pacer (which stops the engine), the receiver (unless it told us) and
    // the observer.
    bool finish(Outcome outcome, const std::string& path, const std::string& message, bool tellPeer = true)
    {
        TransferSummary summary;
        {
            std::lock_guard<std::mutex> lock(mMutex);
            const char* why = outcome == Outcome::kCompleted ? "completed"
                              : outcome == Outcome::kCancelled ? "cancelled"
                                                                 : "failed";
            if (mState.Finished()) {
                return false;  // a later end (a cancel, the destructor) changes nothing
            }
            mState.SetState(SenderState::kFinished, why);
            mSummary.completed = outcome == Outcome::kCompleted && mList.NothingSkipped();
            mSummary.partial = outcome == Outcome::kCompleted && !mList.NothingSkipped();
            mSummary.cancelled = outcome == Outcome::kCancelled;
            if (outcome != Outcome::kCompleted) {
                mSummary.error = message;
            } else if (mSummary.partial) {
                mSummary.error = mList.SkippedText();
            }
            summary = summaryLocked();
            mPacer->Stop();  // with the phase, so no file is paced in a finished session
        }
        mChanged.notify_all();
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
            mObserver.Notify([&](SenderObserver& observer) { observer.OnFailure(path, message); });
        }
        mObserver.NotifyLast([&](SenderObserver& observer) { observer.OnFinished(summary); });
        return true;
    }

    void reportSkipped(const std::vector<SkippedEntry>& skipped)
    {
        for (const SkippedEntry& entry : skipped) {
            mObserver.Notify([&](SenderObserver& observer) { observer.OnEntrySkipped(entry.path, entry.reason); });
        }
    }

    TransferSummary summaryLocked() const
    {
        TransferSummary summary = mSummary;
        summary.skipped = mList.Skipped();
        return summary;
    }

    // What must hold between public calls, whatever the threads do: the
    // list is offered exactly in the phases after Offer, never more is
    // announced than offered, and an ended session paces nothing.
    void checkInvariants() const
    {
#ifndef NDEBUG
        bool ended = false;
        {
            std::lock_guard<std::mutex> lock(mMutex);
            const SenderState state = mState.Current();
            const bool beforeOffer = state == SenderState::kCreated || state == SenderState::kListRequested;
            if (beforeOffer && (mList.Size() != 0 || mSummary.entriesTotal != 0)) {
                HOST_LOG_E << "sender session: entries before the offer in " << detail::SenderStateName(state);
                std::abort();
            }
            if (mList.NextIndex() > mList.Size() || mList.SliceLeft() > detail::OfferedList::kSliceSize) {
                HOST_LOG_E << "sender session: entry " << mList.NextIndex() << " announced of " << mList.Size();
                std::abort();
            }
            ended = mState.Finished();
        }
        if (ended && !mPacer->Idle()) {
            HOST_LOG_E << "sender session: files still paced after the end";
            std::abort();
        }
#endif
    }

    SenderOptions mOptions;
    std::unique_ptr<ITransport> mTransport;
    std::unique_ptr<IFileTransferManager> mManager;
    // Serialises the engine operations the endpoint's threads make (all but
    // NotifyUpload). Inside a listener callback it is only ever tried.
    std::mutex mEngineMutex;
    detail::ObserverRelay<SenderObserver> mObserver;
    std::unique_ptr<detail::UploadPacer> mPacer;

    mutable std::mutex mMutex;  // the session lock: guards everything below
    std::condition_variable mChanged;
    detail::SenderSessionState mState;
    detail::OfferedList mList;
    TransferSummary mSummary;
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
