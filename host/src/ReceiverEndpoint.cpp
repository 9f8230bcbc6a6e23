// The receiving endpoint's lifecycle (construction, Start, Cancel, the
// public calls), its failures and the state its threads share.
//
// ENGINE CONTRACTS honoured here and by the endpoint's other files. The
// threads: the transport's delivery thread (or with an in-process link
// that delivers data inline, the sender's hand-off thread) brings the
// list, announcements and data; the session thread walks the list, moves
// files and makes every RequestFile but the first; the request thread
// (RequestGate) makes the first file's RequestFile, the only call that
// blocks; the engine's loopers report write progress and completion.
// - Serialisation: engine operations are never called with the endpoint's
//   lock held, and never from the engine's own listener callbacks. The
//   calls of the delivery thread and of the session thread are serialised
//   by an input lock, because the engine's lists and flags behind them are
//   unguarded.
// - Failures: the engine reports a local failure as onClipboardRelease,
//   onFileTransferFailed(taskId, transferId, 1), onReportEvent. A write
//   failure replaces the writer and drops every download task, which also
//   releases a blocked RequestFile: the session then fails cleanly. A
//   write error the stream only sees when closing is caught by checking
//   the cached file's size before the move. Remote errors arrive as
//   TransferError, a lost link as OnTransportClosed
//   (ProcessTansferDisconnect); a silent sender fails the session after
//   `stallTimeout`.
// - Teardown: the engine's Cancel()/ClearTask touch the task list without
//   its lock, so before calling Cancel the endpoint stops feeding the
//   engine, waits until the engine's loopers hold no job (its looper
//   factory counts them) and until a RequestFile that a completion or a
//   writer failure has woken has returned; Cancel then releases a
//   RequestFile still waiting. The listener outlives the engine, which is
//   never destroyed from its own callbacks or loopers.
#include "ReceiverEndpointImpl.h"

#include <sys/stat.h>

#include <cassert>

#include "HostLog.h"
#include "xferfm/host/ThreadLooperFactory.h"

namespace orin::xfer::host {

using detail::ReceiverState;

ReceiverEndpoint::Impl::Impl(std::unique_ptr<ITransport> transport, ReceiverOptions options)
    : mOptions(std::move(options)),
      mTransport(std::move(transport)),
      mObserver(mOptions.observer),
      mLanding([this](const std::string& parent, const std::string& name, bool isDirectory) {
          std::vector<FileDescription> one(1);
          one[0].destDir = parent;
          one[0].fileName = name;
          one[0].attribute = isDirectory ? kAttributeDirectory : kAttributeNormal;
          mManager->RenameDuplicatedFilePath(one);
          return one[0].destFileName;
      },
      mOptions.permissionMask, mOptions.resumeNames)
{
    mEngineJobs = std::make_shared<JobCounter>();
    mManager = IFileTransferManager::NewInstance(
        this, std::make_unique<JobCountingLooperFactory>(std::make_unique<ThreadLooperFactory>(), mEngineJobs),
        false, nullptr);
    mGate = std::make_unique<detail::RequestGate>(*mManager, [this] { wakeSession(); });
    mTransport->Start(*this);
}

ReceiverEndpoint::Impl::~Impl()
{
    Cancel();
    if (mSession.joinable()) {
        mSession.join();
    }
    mTransport->Close();
    mGate->Shutdown();  // releases and joins a request still in the engine
    mManager.reset();  // the listener (this) outlives the engine
    mLanding.RemoveCache();
}

// The list, which the rules are read for, is asked for only by Start.
bool ReceiverEndpoint::Impl::SetNameRules(std::optional<ReceiverNameRules> rules)
{
    std::lock_guard<std::mutex> lock(mMutex);
    if (!mState.Is(ReceiverState::Created)) {
        return false;
    }
    mOptions.names = std::move(rules);
    return true;
}

bool ReceiverEndpoint::Impl::Start(std::string& error)
{
    {
        std::lock_guard<std::mutex> lock(mMutex);
        if (!mState.Is(ReceiverState::Created)) {
            const bool cancelledUnstarted =
                mState.Is(ReceiverState::Finished) && mState.Previous() == ReceiverState::Created;
            error = cancelledUnstarted ? "the receiver was cancelled" : "the receiver was started already";
            return false;
        }
        mState.SetState(ReceiverState::Preparing, "Start");
    }
    const bool prepared = mLanding.Prepare(
        mOptions.destinationDir,
        [this](const std::string& cache) {
            mManager->SetCacheDir(cache);  // wipes it: the engine re-creates it on demand
            mkdir(cache.c_str(), 0700);
        },
        error);
    {
        std::lock_guard<std::mutex> lock(mMutex);
        if (!prepared) {
            mState.Summary().error = error;
            mState.SetState(ReceiverState::Finished, "the destination cannot be used");
        } else {
            // A cancel or a failure meanwhile is the session's to conclude.
            mState.SetState(ReceiverState::AwaitingList, "the session starts");
            mLastActivity = Clock::now();
        }
    }
    if (!prepared) {
        mChanged.notify_all();
        checkInvariants();
        return false;
    }
    mSession = std::thread([this] { runSession(); });
    {
        std::lock_guard<std::mutex> input(mEngineInputMutex);
        mManager->RequestFileDesc();  // onRequestFileDesc sends the request
    }
    checkInvariants();
    return true;
}

bool ReceiverEndpoint::Impl::WaitFinished(std::chrono::milliseconds timeout)
{
    bool finished = false;
    {
        std::unique_lock<std::mutex> lock(mMutex);
        finished = mChanged.wait_for(lock, timeout, [this] { return mState.Is(ReceiverState::Finished); });
    }
    checkInvariants();
    return finished;
}

bool ReceiverEndpoint::Impl::Finished() const
{
    bool finished = false;
    {
        std::lock_guard<std::mutex> lock(mMutex);
        finished = mState.Is(ReceiverState::Finished);
    }
    checkInvariants();
    return finished;
}

void ReceiverEndpoint::Impl::Cancel()
{
    {
        std::lock_guard<std::mutex> lock(mMutex);
        if (!mState.RequestCancel()) {
            return;
        }
        if (mState.Is(ReceiverState::Created)) {
            // Nothing runs: the session never began.
            mState.Summary().cancelled = true;
            mState.Summary().error = "cancelled";
            mState.SetState(ReceiverState::Finished, "cancelled before Start");
        }
    }
    mChanged.notify_all();
    wakeSession();
    checkInvariants();
}

TransferSummary ReceiverEndpoint::Impl::Summary() const
{
    TransferSummary summary;
    {
        std::lock_guard<std::mutex> lock(mMutex);
        summary = mState.Summary();
    }
    checkInvariants();
    return summary;
}

std::string ReceiverEndpoint::Impl::CacheDirectory() const
{
    checkInvariants();
    return mLanding.CacheDirectory();
}

void ReceiverEndpoint::Impl::checkInvariants() const
{
#ifndef NDEBUG
    std::string why;
    bool hold = false;
    {
        std::lock_guard<std::mutex> lock(mMutex);
        hold = mState.InvariantsHold(why);
    }
    if (!hold) {
        HOST_LOG_E << "receiver: broken session invariant: " << why;
    }
    assert(hold);
#endif
}

void ReceiverEndpoint::Impl::fail(const std::string& path, const std::string& message, bool fromPeer)
{
    {
        std::lock_guard<std::mutex> lock(mMutex);
        if (!mState.RecordFailure(detail::ReceiverFailure{path, message, fromPeer})) {
            return;
        }
        if (mState.Is(ReceiverState::Created)) {
            // No session to conclude (never started): end here.
            mState.Summary().error = message;
            mState.SetState(ReceiverState::Finished, "failed before Start");
        }
    }
    mChanged.notify_all();
    wakeSession();
}

void ReceiverEndpoint::Impl::recordStallLocked()
{
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(mOptions.stallTimeout);
    const std::string path = destinationGuessLocked();
    mState.RecordFailure(detail::ReceiverFailure{
        path,
        "no data from the sender for " + std::to_string(seconds.count()) + " s while copying " +
            (path.empty() ? std::string("the list") : path),
        false});
}

bool ReceiverEndpoint::Impl::failed() const
{
    std::lock_guard<std::mutex> lock(mMutex);
    return mState.Failure().has_value();
}

bool ReceiverEndpoint::Impl::stopping() const
{
    std::lock_guard<std::mutex> lock(mMutex);
    return mState.Stopping();
}

void ReceiverEndpoint::Impl::touch()
{
    std::lock_guard<std::mutex> lock(mMutex);
    mLastActivity = Clock::now();
}

void ReceiverEndpoint::Impl::wakeSession()
{
    { std::lock_guard<std::mutex> lock(mMutex); }
    mSessionWake.notify_all();
}

std::string ReceiverEndpoint::Impl::currentDestination() const
{
    std::lock_guard<std::mutex> lock(mMutex);
    return destinationGuessLocked();
}

std::string ReceiverEndpoint::Impl::destinationGuessLocked() const
{
    return mSlots.Empty() ? std::string() : mLanding.DestinationOf(mSlots.Front().name);
}

ReceiverEndpoint::Impl::Progress ReceiverEndpoint::Impl::progressLocked(const detail::ReceiverSlot& slot) const
{
    Progress progress;
    progress.name = slot.name;
    progress.fileBytes = slot.bytesWritten;
    progress.fileSize = slot.fileSize;
    progress.totalBytes = mSlots.BytesWritten();
    progress.total = mList ? mList->totalFileBytes : 0;
    return progress;
}

void ReceiverEndpoint::Impl::reportProgress(const Progress& progress)
{
    mObserver.Notify([&](ReceiverObserver& observer) {
        observer.OnProgress(progress.name, progress.fileBytes, progress.fileSize, progress.totalBytes,
                            progress.total);
    });
}

ReceiverEndpoint::ReceiverEndpoint(std::unique_ptr<ITransport> transport, ReceiverOptions options)
    : mImpl(std::make_unique<Impl>(std::move(transport), std::move(options)))
{
}

ReceiverEndpoint::~ReceiverEndpoint() = default;

bool ReceiverEndpoint::Start(std::string& error)
{
    return mImpl->Start(error);
}

bool ReceiverEndpoint::SetNameRules(std::optional<ReceiverNameRules> rules)
{
    return mImpl->SetNameRules(std::move(rules));
}

bool ReceiverEndpoint::WaitFinished(std::chrono::milliseconds timeout)
{
    return mImpl->WaitFinished(timeout);
}

bool ReceiverEndpoint::Finished() const
{
    return mImpl->Finished();
}

void ReceiverEndpoint::Cancel()
{
    mImpl->Cancel();
}

TransferSummary ReceiverEndpoint::Summary() const
{
    return mImpl->Summary();
}

std::string ReceiverEndpoint::CacheDirectory() const
{
    return mImpl->CacheDirectory();
}

}  // namespace orin::xfer::host
