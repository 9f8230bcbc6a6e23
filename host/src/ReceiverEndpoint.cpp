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
