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
//   session lock). The engine is never destroyed from its own callbacks or
//   loopers, and the listener outlives it: the destructor ends the
//   session, joins the pump, closes the transport, and only then cancels
//   (ClearTask) and destroys the engine.
// - Bandwidth: with bandwidthKbps set, a TokenBucketRateLimiter is given to
//   the engine (behind the read-counting limiter the pacer needs) and flow
//   control is switched on; the engine's own delays floor to whole
//   milliseconds, the bucket corrects the rate.
#include "SenderEndpointImpl.h"

#include <cstdlib>
#include <utility>

#include "FileListTimes.h"
#include "HostLog.h"
#include "ReadCountingRateLimiter.h"
#include "SlicedListText.h"
#include "UploadList.h"
#include "xferfm/host/ThreadLooperFactory.h"
#include "xferfm/host/TokenBucketRateLimiter.h"

namespace orin::xfer::host {

using detail::SenderState;

SenderEndpoint::Impl::Impl(std::unique_ptr<ITransport> transport, SenderOptions options)
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

SenderEndpoint::Impl::~Impl()
{
    finish(Outcome::kCancelled, "", "the sender was shut down");
    mPacer->Shutdown();
    // No delivery and no blocked data hand-off after this.
    mTransport->Close();
    std::lock_guard<std::mutex> engine(mEngineMutex);
    mManager->Cancel();
    mManager.reset();  // the listener (this) outlives the engine
}

bool SenderEndpoint::Impl::Offer(const SourcePlan& plan, std::string& error)
{
    const bool offered = offer(plan, error);
    checkInvariants();
    return offered;
}

bool SenderEndpoint::Impl::WaitFinished(std::chrono::milliseconds timeout)
{
    std::unique_lock<std::mutex> lock(mMutex);
    const bool finished = mChanged.wait_for(lock, timeout, [this] { return mState.Finished(); });
    lock.unlock();
    checkInvariants();
    return finished;
}

bool SenderEndpoint::Impl::Finished() const
{
    std::lock_guard<std::mutex> lock(mMutex);
    return mState.Finished();
}

// Safe from observer callbacks: the engine is stopped by the pump thread.
void SenderEndpoint::Impl::Cancel()
{
    finish(Outcome::kCancelled, "", CancelledDisconnect().reason);
    checkInvariants();
}

TransferSummary SenderEndpoint::Impl::Summary() const
{
    std::lock_guard<std::mutex> lock(mMutex);
    return summaryLocked();
}

bool SenderEndpoint::Impl::offer(const SourcePlan& plan, std::string& error)
{
    std::vector<FileDescription> list = detail::UploadListOf(plan);
    std::lock_guard<std::mutex> engine(mEngineMutex);
    {
        std::lock_guard<std::mutex> lock(mMutex);
        const SenderState state = mState.Current();
        if (state != SenderState::kCreated && state != SenderState::kListRequested) {
            error = mState.Finished() ? "the session has ended" : "a list was offered already";
            return false;
        }
    }
    // The whole list goes into the JSON, which the engine writes a slice
    // at a time (SlicedListText.h); the engine then only ever holds a short
    // slice (see OfferedList.cpp).
    std::string json =
        detail::SlicedListText(list, [this, &plan](const std::vector<FileDescription>& slice, size_t first) {
            mManager->TriggerLocalCopy(slice);
            mManager->SendFileDesc();  // onSendFileDesc keeps the text
            std::string text;
            {
                std::lock_guard<std::mutex> lock(mMutex);
                text = mList.TakeJson();
            }
            // The engine's list has no times: the kit adds its own field,
            // slice by slice, so the whole text is never copied for it.
            std::string ignored;  // unreadable: the slice goes out without times
            detail::AddModificationTimes(text, plan, ignored, first);
            return text;
        });
    {
        std::lock_guard<std::mutex> lock(mMutex);
        mList.KeepJson(std::move(json));
    }
    bool sendNow = false;
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
        if (sendNow) {
            json = mList.TakeJson();
        }
    }
    // Still under the engine lock: no request is served before the
    // engine holds its first slice.
    mManager->TriggerLocalCopy(firstSlice);
    if (sendNow) {
        mTransport->Send(FileListMessage{std::move(json)});
    }
    return true;
}

// Ends the session once; true for the call that ended it. Tells the
// pacer (which stops the engine), the receiver (unless it told us) and
// the observer.
bool SenderEndpoint::Impl::finish(Outcome outcome, const std::string& path, const std::string& message,
                                  bool tellPeer)
{
    TransferSummary summary;
    {
        std::lock_guard<std::mutex> lock(mMutex);
        if (mState.Finished()) {
            return false;  // a later end (a cancel, the destructor) changes nothing
        }
        mState.SetState(SenderState::kFinished, outcome == Outcome::kCompleted   ? "completed"
                                                : outcome == Outcome::kCancelled ? "cancelled"
                                                                                 : "failed");
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
        mTransport->Send(outcome == Outcome::kCancelled ? CancelledDisconnect() : Disconnect{false, message});
    }
    if (outcome == Outcome::kFailed) {
        mObserver.Notify([&](SenderObserver& observer) { observer.OnFailure(path, message); });
    }
    mObserver.NotifyLast([&](SenderObserver& observer) { observer.OnFinished(summary); });
    return true;
}

void SenderEndpoint::Impl::reportSkipped(const std::vector<SkippedEntry>& skipped)
{
    for (const SkippedEntry& entry : skipped) {
        mObserver.Notify([&](SenderObserver& observer) { observer.OnEntrySkipped(entry.path, entry.reason); });
    }
}

TransferSummary SenderEndpoint::Impl::summaryLocked() const
{
    TransferSummary summary = mSummary;
    summary.skipped = mList.Skipped();
    return summary;
}

// What must hold between public calls, whatever the threads do: the
// list is offered exactly in the phases after Offer, never more is
// announced than offered, and an ended session paces nothing.
void SenderEndpoint::Impl::checkInvariants() const
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

SenderEndpoint::SenderEndpoint(std::unique_ptr<ITransport> transport, SenderOptions options)
    : mImpl(std::make_unique<Impl>(std::move(transport), std::move(options)))
{
}

SenderEndpoint::~SenderEndpoint() = default;

bool SenderEndpoint::Offer(const std::vector<std::string>& paths, std::string& error)
{
    SourcePlan plan;
    SourceProblem problem;
    if (!PlanSources(paths, plan, problem)) {
        error = DescribeSourceProblem(problem);
        return false;
    }
    return mImpl->Offer(plan, error);
}

bool SenderEndpoint::Offer(const SourcePlan& plan, std::string& error)
{
    return mImpl->Offer(plan, error);
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
