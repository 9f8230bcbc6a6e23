// The receiving endpoint's lifecycle: construction, Start, Cancel, the
// end of the session, and the state shared by its threads.
//
// ENGINE CONTRACTS the receiving endpoint honours (its threads: the
// transport's delivery thread, or with an in-process link that delivers
// data inline the sender's hand-off thread, for the list, announcements
// and data; the session thread for the list walk, moves and every
// RequestFile but the first; the request thread for the first file's
// RequestFile, the only call that blocks; the engine's loopers for write
// progress and completion)
// - Serialisation: engine operations are never called with the endpoint's
//   lock held, and never from the engine's own listener callbacks. The
//   calls of the delivery thread and of the session thread are serialised
//   by an input lock, because the engine's lists and flags behind them are
//   unguarded.
// - Transfer ids: the sending engine draws odd ids; this engine treats
//   every even id as a download and every odd one as an upload, so the
//   receiver uses sender id + 1. Id 0 is never used here (RequestFile's
//   marker tasks carry transferId 0).
// - Order and names: the sender's UploadFiles takes the FRONT of its list,
//   so entries are requested in list order, one request per entry. The
//   announced name is the request name (filePath + "/" + fileName) and is
//   passed as fileName to ProcessFileDownloadStart, so it matches the
//   pending entry pushed with PushDownloadFile and RequestFile's marker.
// - Pipelining: entries are requested up to 32 ahead of the oldest one not
//   yet in place (in bursts, refilled at half that), and put in place
//   strictly in list order, in batches (the session thread wakes once 8
//   are complete, or when everything requested is). The sender streams
//   one file at a time, so files arrive, are written and complete in list
//   order too.
// - RequestFile(file, false) blocks until ANY download completes or the
//   writer is stopped; the first one of a paste wipes the cache directory
//   and posts onRequestFile on the main looper; when the pending list
//   becomes empty it stops the writer (dropping every download task and
//   every queued chunk). Hence:
//   * the first file of the list goes alone: everything before it is in
//     place, its RequestFile runs on the request thread, and the request
//     goes to the sender only once the marker file exists in the cache and
//     a lock barrier through the engine (a data call for an id no task
//     has) has proved that RequestFile waits; nothing else is requested
//     until it is in place. Otherwise the wipe could delete a file being
//     received;
//   * every later file is complete (and its size checked) before its
//     RequestFile runs, on the session thread: the call finds the file in
//     the cache and returns at once ("direct copy");
//   * a file is pushed to the pending list just before its RequestFile,
//     together with the next file already requested, so the list only
//     empties (and the writer is only replaced) when nothing else is in
//     flight, and RequestFile's walk of the list stays two entries long.
//     The record list is kept empty: its walk on every announcement would
//     grow with the list, and the endpoint reports no records.
// - A directory entry is never requested with RequestFile (it would create
//   a plain file of that name in the cache and wait): its announcement goes
//   to ProcessFileDownloadStart(isDir = true), which mkdirs in the cache and
//   reports completion at once without waking any RequestFile; the endpoint
//   then creates the directory at its destination. The list must carry
//   each directory before its children.
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

#include <limits.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstring>

#include "DestinationFiles.h"
#include "xferfm/host/ThreadLooper.h"
#include "xferfm/host/ThreadLooperFactory.h"

namespace orin::xfer::host {

using namespace receiver;

namespace {

std::string errorText(int error)
{
    return std::strerror(error);
}

}  // namespace

ReceiverEndpoint::Impl::Impl(std::unique_ptr<ITransport> transport, ReceiverOptions options)
    : mOptions(std::move(options)), mTransport(std::move(transport))
{
    mEngineJobs = std::make_shared<JobCounter>();
    mManager = IFileTransferManager::NewInstance(
        this, std::make_unique<JobCountingLooperFactory>(std::make_unique<ThreadLooperFactory>(), mEngineJobs),
        false, nullptr);
    mRequestLooper = std::make_unique<ThreadLooper>(kRequestLooperName);
    mTransport->Start(*this);
}

ReceiverEndpoint::Impl::~Impl()
{
    Cancel();
    if (mSession.joinable()) {
        mSession.join();
    }
    mTransport->Close();
    bool requestInFlight = false;
    {
        std::lock_guard<std::mutex> lock(mMutex);
        requestInFlight = mRequestsPosted != mRequestsReturned;
    }
    if (requestInFlight) {
        mManager->Cancel();  // last resort; the session normally released it
    }
    mRequestLooper.reset();
    mManager.reset();  // the listener (this) outlives the engine
    detail::RemoveTree(mCacheDir);
}

bool ReceiverEndpoint::Impl::Start(std::string& error)
{
    {
        std::lock_guard<std::mutex> lock(mMutex);
        if (mStarted || mFinished) {
            error = mStarted ? "the receiver was started already" : "the receiver was cancelled";
            return false;
        }
        mStarted = true;
    }
    if (!prepareDestination(error)) {
        std::lock_guard<std::mutex> lock(mMutex);
        mFinished = true;
        mSummary.error = error;
        return false;
    }
    {
        std::lock_guard<std::mutex> lock(mMutex);
        mSessionStarted = true;
        mLastActivity = Clock::now();
    }
    mSession = std::thread([this] { runSession(); });
    std::lock_guard<std::mutex> input(mEngineInputMutex);
    mManager->RequestFileDesc();  // onRequestFileDesc sends the request
    return true;
}

bool ReceiverEndpoint::Impl::prepareDestination(std::string& error)
{
    char resolved[PATH_MAX];
    struct stat status {};
    if (realpath(mOptions.destinationDir.c_str(), resolved) == nullptr ||
        stat(resolved, &status) != 0) {
        error = mOptions.destinationDir + ": " + errorText(errno);
        return false;
    }
    if (!S_ISDIR(status.st_mode)) {
        error = mOptions.destinationDir + ": not a directory";
        return false;
    }
    mDestination = resolved;
    std::string cache;
    if (!detail::MakePrivateDirectory(mDestination, kCachePrefix, cache, error)) {
        return false;
    }
    mManager->SetCacheDir(cache);  // wipes it: the engine re-creates it on demand
    mkdir(cache.c_str(), 0700);
    std::lock_guard<std::mutex> lock(mMutex);
    mCacheDir = cache;
    return true;
}

bool ReceiverEndpoint::Impl::WaitFinished(std::chrono::milliseconds timeout)
{
    std::unique_lock<std::mutex> lock(mMutex);
    return mChanged.wait_for(lock, timeout, [this] { return mFinished; });
}

bool ReceiverEndpoint::Impl::Finished() const
{
    std::lock_guard<std::mutex> lock(mMutex);
    return mFinished;
}

void ReceiverEndpoint::Impl::Cancel()
{
    {
        std::lock_guard<std::mutex> lock(mMutex);
        if (mFinished || mCancelRequested) {
            return;
        }
        mCancelRequested = true;
        if (!mSessionStarted) {
            mFinished = true;  // nothing runs: the session never began
            mSummary.cancelled = true;
            mSummary.error = "cancelled";
        }
    }
    mChanged.notify_all();
    wakeSession();
}

TransferSummary ReceiverEndpoint::Impl::Summary() const
{
    std::lock_guard<std::mutex> lock(mMutex);
    return mSummary;
}

std::string ReceiverEndpoint::Impl::CacheDirectory() const
{
    std::lock_guard<std::mutex> lock(mMutex);
    return mCacheDir;
}

bool ReceiverEndpoint::Impl::requestReturned()
{
    std::lock_guard<std::mutex> lock(mMutex);
    return mRequestsPosted == mRequestsReturned;
}

void ReceiverEndpoint::Impl::fail(const std::string& path, const std::string& message, bool fromPeer)
{
    {
        std::lock_guard<std::mutex> lock(mMutex);
        if (mFailed || mFinished) {
            return;
        }
        mFailed = true;
        mFailureFromPeer = fromPeer;
        mFailurePath = path;
        mFailureMessage = message;
        if (!mSessionStarted) {
            // No session to conclude (never started): end here.
            mFinished = true;
            mSummary.error = message;
        }
    }
    mChanged.notify_all();
    wakeSession();
}

bool ReceiverEndpoint::Impl::failed()
{
    std::lock_guard<std::mutex> lock(mMutex);
    return mFailed;
}

void ReceiverEndpoint::Impl::touch()
{
    std::lock_guard<std::mutex> lock(mMutex);
    mLastActivity = Clock::now();
}

std::string ReceiverEndpoint::Impl::currentDestination()
{
    std::lock_guard<std::mutex> lock(mMutex);
    return destinationGuessLocked();
}

Slot* ReceiverEndpoint::Impl::slotByReceiverId(uint32_t receiverId)
{
    for (Slot& slot : mSlots) {
        if (slot.announced && slot.receiverId == receiverId) {
            return &slot;
        }
    }
    return nullptr;
}

Slot* ReceiverEndpoint::Impl::slotBySenderId(uint32_t senderId)
{
    for (Slot& slot : mSlots) {
        if (slot.announced && slot.senderId == senderId) {
            return &slot;
        }
    }
    return nullptr;
}

// The session settles completed entries in batches: one wake-up per batch
// rather than per file. It is woken early when nothing else is in flight.
bool ReceiverEndpoint::Impl::settleDueLocked() const
{
    size_t completed = 0;
    for (const Slot& slot : mSlots) {
        if (!slot.completed) {
            break;
        }
        ++completed;
    }
    return completed > 0 && (completed >= kSettleBatch || completed == mSlots.size());
}

std::vector<Accept> ReceiverEndpoint::Impl::takeDueAcceptsLocked()
{
    std::vector<Accept> due;
    if (mAcceptsDue == 0) {
        return due;
    }
    uint64_t owed = 0;
    for (const Slot& slot : mSlots) {
        if (slot.accepted && !slot.completed) {
            owed += slot.fileSize - std::min(slot.fileSize, slot.bytesWritten);
        }
    }
    for (Slot& slot : mSlots) {
        if (!slot.acceptDue) {
            continue;
        }
        if (owed > 0 && owed + slot.fileSize > kAcceptBacklogBytes) {
            break;  // in list order: the sender streams them in that order
        }
        slot.acceptDue = false;
        slot.accepted = true;
        --mAcceptsDue;
        owed += slot.fileSize;
        due.push_back(Accept{slot.senderId, slot.window});
    }
    return due;
}

void ReceiverEndpoint::Impl::sendAccepts(const std::vector<Accept>& accepts)
{
    for (const Accept& accept : accepts) {
        mTransport->Send(FileAccept{accept.senderId});
        if (accept.window == 0) {
            mTransport->Send(DataAck{accept.senderId, 0});  // the worker waits before its first chunk
        }
    }
}

std::string ReceiverEndpoint::Impl::destinationGuessLocked() const
{
    if (mSlots.empty()) {
        return {};
    }
    const std::string& name = mSlots.front().name;
    const size_t slash = name.find('/');
    if (slash == std::string::npos) {
        return mDestination + "/" + name;
    }
    auto top = mFinalDirectories.find(name.substr(0, slash));
    const std::string root = top != mFinalDirectories.end() ? top->second : mDestination + "/" + name.substr(0, slash);
    return root + name.substr(slash);
}

ReceiverEndpoint::Impl::Progress ReceiverEndpoint::Impl::progressLocked(const Slot& slot) const
{
    Progress progress;
    progress.name = slot.name;
    progress.fileBytes = slot.bytesWritten;
    progress.fileSize = slot.fileSize;
    progress.totalBytes = mBytesWritten;
    progress.total = mList.totalFileBytes;
    return progress;
}

void ReceiverEndpoint::Impl::reportProgress(const Progress& progress)
{
    notifyObserver([&](ReceiverObserver& observer) {
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
