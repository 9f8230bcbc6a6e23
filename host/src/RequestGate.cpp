#include "RequestGate.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <thread>
#include <utility>

#include "HostLog.h"
#include "ReceiverSlotTable.h"
#include "xferfm/host/ThreadLooper.h"

namespace orin::xfer::host::detail {

namespace {

using Clock = std::chrono::steady_clock;
// Local engine steps that take microseconds; the bounds only guard
// against an engine that never answers.
constexpr auto kRequestStartLimit = std::chrono::seconds(10);
constexpr auto kWriterDrainLimit = std::chrono::seconds(5);
constexpr auto kRequestReleaseLimit = std::chrono::seconds(10);

}  // namespace

RequestGate::RequestGate(IFileTransferManager& engine, std::function<void()> wake)
    : mEngine(engine), mWake(std::move(wake)), mLooper(std::make_unique<ThreadLooper>("xfer-request"))
{
}

RequestGate::~RequestGate()
{
    Shutdown();
}

void RequestGate::Shutdown()
{
    if (!mLooper) {
        return;
    }
    if (!Returned()) {
        mEngine.Cancel();  // last resort; the session normally released it
    }
    mLooper.reset();
}

void RequestGate::PostFirst(const FileDescription& description, const std::string& marker)
{
    {
        std::lock_guard<std::mutex> lock(mMutex);
        ++mPosted;
        mMarker = marker;
        mWriterEventsAtRequest = mWriterEvents;
    }
    mLooper->Post("RequestFile", [this, description] {
        mEngine.RequestFile(description, false);  // blocks until written or stopped
        {
            std::lock_guard<std::mutex> lock(mMutex);
            ++mReturned;
        }
        mReturnedChanged.notify_all();
        mWake();
    });
}

bool RequestGate::FirstPosted() const
{
    std::lock_guard<std::mutex> lock(mMutex);
    return mPosted > 0;
}

bool RequestGate::Returned() const
{
    std::lock_guard<std::mutex> lock(mMutex);
    return mPosted == mReturned;
}

void RequestGate::NoteWriterEvent()
{
    std::lock_guard<std::mutex> lock(mMutex);
    ++mWriterEvents;
}

void RequestGate::Barrier()
{
    mEngine.ProcessFileDownloadData(kNoTransferId, kNoTransferId, 0, nullptr);
}

// False when the call returned, the session stops or the bound passed
// before the marker appeared.
bool RequestGate::waitForMarker(const std::string& marker, const std::function<bool()>& stopping) const
{
    const auto deadline = Clock::now() + kRequestStartLimit;
    auto pause = std::chrono::microseconds(20);
    while (access(marker.c_str(), F_OK) != 0) {
        if (stopping() || Returned() || Clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(pause);
        pause = std::min(pause * 2, std::chrono::microseconds(1000));
    }
    return true;
}

RequestStart RequestGate::AwaitWaiting(const std::function<bool()>& stopping)
{
    std::string marker;
    {
        std::lock_guard<std::mutex> lock(mMutex);
        marker = mMarker;
    }
    if (!waitForMarker(marker, stopping)) {
        if (stopping()) {
            return RequestStart::Stopped;
        }
        if (!Returned()) {
            return RequestStart::NotStarted;
        }
        // It gave up before creating the marker; its failure was reported.
    }
    Barrier();
    return Returned() ? RequestStart::Refused : RequestStart::Waiting;
}

void RequestGate::CancelEngine(JobCounter& engineJobs)
{
    // With no more input, the loopers' jobs are the last engine work that
    // can wake the first file's RequestFile.
    if (!engineJobs.WaitIdle(kWriterDrainLimit)) {
        HOST_LOG_E << "the engine's writer did not finish its queued chunks";
    }
    std::string marker;
    bool woken = false;
    {
        std::lock_guard<std::mutex> lock(mMutex);
        if (mPosted != mReturned) {
            marker = mMarker;
            woken = mWriterEvents != mWriterEventsAtRequest;
        }
    }
    if (woken) {
        // Woken by a completion or a writer failure, it is walking the
        // lists that Cancel clears without a lock: let it return first.
        std::unique_lock<std::mutex> lock(mMutex);
        mReturnedChanged.wait_for(lock, kRequestReleaseLimit, [this] { return mPosted == mReturned; });
    } else if (!marker.empty()) {
        // One still setting up must reach its wait, where it touches
        // nothing until Cancel itself wakes it.
        waitForMarker(marker, [] { return false; });
        Barrier();
    }
    mEngine.Cancel();
    std::unique_lock<std::mutex> lock(mMutex);
    if (!mReturnedChanged.wait_for(lock, kRequestReleaseLimit, [this] { return mPosted == mReturned; })) {
        HOST_LOG_E << "the engine did not release a pending file request";
    }
}

}  // namespace orin::xfer::host::detail
