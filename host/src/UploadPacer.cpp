// How the pacer honours the engine's upload worker:
//
// - Window: the worker waits (up to 30 s, then QUITS and drops the upload
//   list silently) whenever its unacknowledged-chunk count EQUALS the
//   window; the count resets after each wait and at the end of each file;
//   the acknowledged flag is CLEARED when a wait begins, so an
//   acknowledgement that arrives before the wait is lost; NotifyUpload is
//   ignored while IsUploading() is false; window 0 waits before the first
//   chunk. So the window travels in FileStart and the receiver
//   acknowledges every `window` written chunks (and once at accept for
//   window 0). The worker pauses after every `window` chunks handed out;
//   the pacer releases it once the receiver has written all but the last
//   window (window 0: once acknowledged), so the receiver still has a
//   window of data to write while the acknowledgement travels, and at
//   most two windows are unwritten.
// - Repeats: a release is repeated at a short interval until the worker's
//   next chunk is seen (one that beats the worker into its wait is lost).
//   Since the data trails the worker, each release is checked against the
//   chunks the worker has really read (counted through the rate limiter
//   the endpoint gives the engine) and the worker cannot read on while it
//   is sent. As a safety net against a skewed count (the count is shared
//   with the previous file's worker), the pump also nudges a transfer that
//   has sent nothing for a while although the same rule would let it go.
// - One file at a time: requests may come ahead of the file streaming now;
//   each is announced at once, but ProcessFileUploadData for an accepted
//   file waits until the data of the file before it has all been handed
//   off (the worker's window count and flags are shared by all workers).
// - Directories are never given to the pacer: ProcessFileUploadData on one
//   would make its worker try to read it. A 0-byte file gets exactly one
//   onSendFileData(null, 0), inside ProcessFileUploadData.
// - Locks: engine operations other than NotifyUpload run under the
//   endpoint's engine lock and never with the pacer's lock held. The data
//   hand-off (onSendFileData, main looper) only tries the engine lock when
//   it starts the next file (ProcessFileUploadData takes only the engine's
//   task lock, which the hand-off never holds) and leaves the start to the
//   pump when the lock is busy: its holder may be joining that looper.
#include "UploadPacer.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <optional>
#include <utility>

#include "HostLog.h"
#include "xferfm/host/SystemErrorText.h"

namespace orin::xfer::host::detail {

namespace {

// How long the pump sleeps while nothing streams (it is woken for work).
constexpr auto kPumpIdleSleep = std::chrono::milliseconds(100);
// A file that streams nothing for this long although the window lets its
// worker go has its source looked at: the worker ends quietly where the
// file ends now, so a file cut short would otherwise never finish.
constexpr auto kSourceCheckAfter = std::chrono::milliseconds(250);

const char* phaseName(int phase)
{
    static const char* const names[] = {"pacing", "engine-stop-due", "engine-stopped", "shut-down"};
    return names[phase];
}

}  // namespace

UploadPacer::UploadPacer(PacerSettings settings, IFileTransferManager& engine, std::mutex& engineMutex,
                         ReadCountingRateLimiter& workerReads, SourceChanged onSourceChanged)
    : mSettings(settings),
      mEngine(engine),
      mEngineMutex(engineMutex),
      mWorkerReads(workerReads),
      mOnSourceChanged(std::move(onSourceChanged))
{
    mPump = std::thread([this] { pump(); });
}

UploadPacer::~UploadPacer()
{
    Shutdown();
}

void UploadPacer::Announce(size_t index, uint32_t taskId, uint32_t transferId, std::string sourcePath,
                           uint64_t fileSize)
{
    std::lock_guard<std::mutex> lock(mMutex);
    if (mPhase != Phase::kPacing) {
        return;
    }
    Upload upload;
    upload.index = index;
    upload.taskId = taskId;
    upload.transferId = transferId;
    upload.fileSize = fileSize;
    upload.sourcePath = std::move(sourcePath);
    upload.lastChunk = Clock::now();
    mUploads.push_back(std::move(upload));
}

void UploadPacer::Accept(uint32_t transferId)
{
    {
        std::lock_guard<std::mutex> lock(mMutex);
        auto upload = uploadLocked(transferId);
        if (mPhase != Phase::kPacing || upload == mUploads.end() || upload->accepted) {
            return;
        }
        upload->accepted = true;
    }
    StartUploads(true);
}

void UploadPacer::Acknowledge(uint32_t transferId, uint64_t chunksWritten)
{
    bool releaseNow = false;
    {
        std::lock_guard<std::mutex> lock(mMutex);
        auto upload = uploadLocked(transferId);
        if (mPhase != Phase::kPacing || upload == mUploads.end()) {
            return;
        }
        upload->chunksAcked = std::max(upload->chunksAcked, chunksWritten);
        upload->ackSeen = true;
        releaseNow = releaseDueLocked(*upload);
    }
    if (releaseNow) {
        Release();
    }
}

DataSeen UploadPacer::CountData(uint32_t transferId, uint64_t length)
{
    DataSeen seen;
    std::lock_guard<std::mutex> lock(mMutex);
    auto upload = uploadLocked(transferId);
    if (mPhase != Phase::kPacing || upload == mUploads.end()) {
        return seen;
    }
    // The worker reads to the end of the file as it is now: data past the
    // size announced means the file grew while it was read. None of it may
    // go to the receiver, which would wait for the announced size forever.
    if (upload->bytesSeen + length > upload->fileSize) {
        seen.kind = DataSeen::Kind::kGrew;
        seen.sourcePath = upload->sourcePath;
        seen.announced = upload->fileSize;
        return seen;
    }
    upload->bytesSeen += length;
    upload->chunksSeen += length > 0 ? 1 : 0;
    upload->lastChunk = Clock::now();
    if (upload->releasePending && static_cast<int64_t>(upload->chunksSeen) > upload->releaseAt) {
        upload->releasePending = false;
    }
    if (upload->bytesSeen >= upload->fileSize) {
        seen.kind = DataSeen::Kind::kFileDone;
        mUploads.erase(upload);
        // The next file's worker may start once this one's data is all
        // handed off.
        seen.startNext = !mUploads.empty() && mUploads.front().accepted && !mUploads.front().started;
    } else {
        seen.kind = DataSeen::Kind::kCounted;
        seen.releaseNow = releaseDueLocked(*upload);  // the worker waits at this window's end by now
    }
    return seen;
}

// The only caller of NotifyUpload. The decisions above go by the data seen,
// which trails the worker; a release repeated after the worker has already
// moved on would free it from a later wait. So the window rule is checked
// again against the chunks the worker has really read, and the worker
// cannot read on until the release has been sent.
void UploadPacer::Release()
{
    std::lock_guard<std::mutex> gate(mWorkerReads.Gate());
    {
        std::lock_guard<std::mutex> lock(mMutex);
        const Upload* upload = mPhase == Phase::kPacing ? streamingLocked() : nullptr;
        if (upload == nullptr) {
            return;
        }
        const uint64_t window = mSettings.ackWindow;
        const bool allowed =
            window == 0 ? upload->ackSeen : upload->chunksAcked + window >= mWorkerReads.ChunksReadLocked();
        if (!allowed) {
            return;
        }
    }
    mEngine.NotifyUpload();
}

// Starts the oldest accepted file if nothing streams, and the ones after it
// that end inside their start (0-byte files). Called on the delivery and
// pump threads (`mayWait`), and from the data hand-off on the main looper,
// which only tries the engine lock. A 0-byte file's empty piece comes back
// into the hand-off inside ProcessFileUploadData, and that nested call
// starts nothing: the loop here goes on with the next file.
void UploadPacer::StartUploads(bool mayWait)
{
    if (mStartingOn.load() == std::this_thread::get_id()) {
        return;
    }
    std::unique_lock<std::mutex> engine(mEngineMutex, std::defer_lock);
    if (mayWait) {
        engine.lock();
    } else if (!engine.try_lock()) {
        std::lock_guard<std::mutex> lock(mMutex);
        mStartDue = true;
        wakePumpLocked();
        return;
    }
    mStartingOn = std::this_thread::get_id();
    while (true) {
        uint32_t transferId = 0;
        {
            std::lock_guard<std::mutex> lock(mMutex);
            if (mPhase != Phase::kPacing || mUploads.empty() || !mUploads.front().accepted ||
                mUploads.front().started) {
                break;
            }
            Upload& upload = mUploads.front();
            upload.started = true;
            upload.lastChunk = Clock::now();
            transferId = upload.transferId;
            if (mPumpResting) {
                wakePumpLocked();  // watch this transfer at the short cadence
            }
            if (evaluateReleaseLocked(upload)) {
                wakePumpLocked();
            }
        }
        mWorkerReads.Reset();  // the previous worker has read all it will
        mEngine.ProcessFileUploadData(transferId);
    }
    mStartingOn = std::thread::id();
}

void UploadPacer::Stop()
{
    std::lock_guard<std::mutex> lock(mMutex);
    if (mPhase != Phase::kPacing) {
        return;
    }
    mUploads.clear();
    setPhaseLocked(Phase::kStopDue);
    wakePumpLocked();
}

void UploadPacer::Shutdown()
{
    {
        std::lock_guard<std::mutex> lock(mMutex);
        if (mPhase != Phase::kShutDown) {
            setPhaseLocked(Phase::kShutDown);
        }
    }
    mPumpWake.notify_all();
    if (mPump.joinable()) {
        mPump.join();
    }
}

bool UploadPacer::Idle() const
{
    std::lock_guard<std::mutex> lock(mMutex);
    return mUploads.empty();
}

void UploadPacer::setPhaseLocked(Phase next)
{
    HOST_LOG_D << "upload pacer: " << phaseName(static_cast<int>(mPhase)) << " -> "
               << phaseName(static_cast<int>(next));
    mPhase = next;
}

std::deque<UploadPacer::Upload>::iterator UploadPacer::uploadLocked(uint32_t transferId)
{
    return std::find_if(mUploads.begin(), mUploads.end(),
                        [transferId](const Upload& upload) { return upload.transferId == transferId; });
}

// The upload whose worker runs now, if any.
UploadPacer::Upload* UploadPacer::streamingLocked()
{
    return !mUploads.empty() && mUploads.front().started ? &mUploads.front() : nullptr;
}

// The worker pauses whenever it has handed out a window of chunks (window
// 0: once, before the first chunk). It is released as soon as the receiver
// has written all but the last window. True when a release became due.
bool UploadPacer::evaluateReleaseLocked(Upload& upload)
{
    if (!upload.started || upload.releasePending) {
        return false;
    }
    const uint64_t window = mSettings.ackWindow;
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

// A due release goes out at once from the calling thread when no bandwidth
// delay can hold NotifyUpload up (true: the caller calls Release() once
// unlocked); with flow control on, the pump sends it. Either way the pump
// repeats it until the worker moves on.
bool UploadPacer::releaseDueLocked(Upload& upload)
{
    if (!evaluateReleaseLocked(upload)) {
        return false;
    }
    if (mSettings.flowControl) {
        wakePumpLocked();
        return false;
    }
    upload.lastNudge = Clock::now();
    return true;
}

// Whether a worker seen to be stalled may be let go: the window rule above,
// applied wherever it stopped (its count can be skewed by the previous
// file's worker, which resets the shared count when it ends).
bool UploadPacer::mayReleaseLocked(const Upload& upload) const
{
    const uint64_t window = mSettings.ackWindow;
    return window == 0 || upload.chunksAcked + window >= upload.chunksSeen;
}

// Ends the session when a quiet file's source no longer matches what was
// announced: cut short (its worker has ended), or gone before its worker
// could open it. A file removed after it was opened is still read to its
// end, so that case waits.
void UploadPacer::failIfSourceChanged(const std::string& sourcePath, uint64_t fileSize)
{
    struct stat status {};
    std::string change;
    if (::stat(sourcePath.c_str(), &status) != 0) {
        const int error = errno;
        std::lock_guard<std::mutex> gate(mWorkerReads.Gate());
        if (mWorkerReads.ChunksReadLocked() == 0 && fileSize > 0) {
            change = error == ENOENT ? "no longer exists" : "cannot be read: " + SystemErrorText(error);
        }
    } else if (static_cast<uint64_t>(status.st_size) != fileSize) {
        change = "changed while it was read (" + std::to_string(fileSize) + " bytes announced, " +
                 std::to_string(status.st_size) + " now)";
    }
    if (!change.empty()) {
        mOnSourceChanged(sourcePath, sourcePath + ": " + change);
    }
}

void UploadPacer::wakePumpLocked()
{
    mWakePending = true;
    mPumpWake.notify_one();
}

// Stops the engine once the session is over (Cancel may come from an
// observer callback that runs inside an engine call), starts a file whose
// predecessor finished streaming when the hand-off could not, repeats a
// due release until the worker hands out its next chunk, nudges a transfer
// that has gone quiet although it may be released, and looks at the source
// of one that stays quiet.
void UploadPacer::pump()
{
    std::unique_lock<std::mutex> lock(mMutex);
    while (mPhase != Phase::kShutDown) {
        mWakePending = false;
        if (mPhase == Phase::kStopDue) {
            setPhaseLocked(Phase::kEngineStopped);
            lock.unlock();
            {
                std::lock_guard<std::mutex> engine(mEngineMutex);
                mEngine.Cancel();
            }
            lock.lock();
            continue;
        }
        if (mStartDue) {
            mStartDue = false;
            lock.unlock();
            StartUploads(true);
            lock.lock();
            continue;
        }
        bool nudge = false;
        std::optional<std::pair<std::string, uint64_t>> check;  // source path, announced size
        Clock::duration sleepFor = kPumpIdleSleep;
        Upload* upload = mPhase == Phase::kPacing ? streamingLocked() : nullptr;
        if (upload != nullptr) {
            const auto now = Clock::now();
            const bool quiet = now - upload->lastChunk >= mSettings.idleNudgeAfter &&
                               now - upload->lastNudge >= mSettings.idleNudgeAfter;
            sleepFor = mSettings.idleNudgeAfter;
            if (upload->releasePending) {
                nudge = now - upload->lastNudge >= mSettings.renotifyInterval;
                sleepFor = mSettings.renotifyInterval;
            } else if (quiet && mayReleaseLocked(*upload)) {
                nudge = true;
            }
            if (nudge) {
                upload->lastNudge = now;
            }
            if (now - upload->lastChunk >= kSourceCheckAfter && now - upload->lastSourceCheck >= kSourceCheckAfter &&
                mayReleaseLocked(*upload)) {
                upload->lastSourceCheck = now;
                check.emplace(upload->sourcePath, upload->fileSize);
            }
        }
        if (nudge) {
            lock.unlock();
            Release();
            lock.lock();
        }
        if (check) {
            lock.unlock();
            failIfSourceChanged(check->first, check->second);
            lock.lock();
            continue;
        }
        if (!mWakePending && mPhase != Phase::kShutDown) {
            mPumpResting = sleepFor == kPumpIdleSleep;
            mPumpWake.wait_for(lock, sleepFor);
            mPumpResting = false;
        }
    }
}

}  // namespace orin::xfer::host::detail
