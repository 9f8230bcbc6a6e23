// Paces the sender engine's upload worker against the receiver's
// acknowledgements, and drives the engine calls no listener callback may
// make: it starts each accepted file once the one before it has been
// handed off, releases the worker at each window's end, repeats a release
// until the worker moves on, nudges a transfer that went quiet, looks at
// the source of a file that stopped streaming, and stops the engine once
// the session is over.
//
// Files stream one at a time, in list order: the worker's window count and
// flags are shared by all of the engine's workers.
//
// THREADING CONTRACT
// - Announce, Accept, Acknowledge, CountData, Release, StartUploads and
//   Stop may be called from any thread (the transport's delivery thread,
//   the engine's main looper); none of them may be called with the
//   engine lock held, except that the engine's listener callbacks may run
//   inside engine calls made here.
// - The pump thread is the only caller of NotifyUpload when flow control
//   is on (a bandwidth delay may block it), and the thread that stops the
//   engine, so the session may end from inside any engine callback.
// - Shutdown joins the pump; call it before the engine is destroyed. The
//   pacer must not outlive the engine, the engine lock or the rate limiter
//   it is given.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

#include "IFileTransferManager.h"
#include "ReadCountingRateLimiter.h"

namespace orin::xfer::host::detail {

struct PacerSettings {
    uint32_t ackWindow = 50;
    bool flowControl = false;  // the engine may sleep inside NotifyUpload
    std::chrono::microseconds renotifyInterval{200};
    std::chrono::milliseconds idleNudgeAfter{2};
};

// What one piece of file data handed off by the engine means.
struct DataSeen {
    enum class Kind {
        kUnknown,   // no announced file still streams under this transfer id
        kGrew,      // past the size announced: the source grew while read
        kCounted,   // part of its file
        kFileDone,  // the last piece of its file
    };
    Kind kind = Kind::kUnknown;
    std::string sourcePath;  // kGrew
    uint64_t announced = 0;  // kGrew
    bool releaseNow = false; // the caller calls Release() (no lock held)
    bool startNext = false;  // the caller calls StartUploads(false)
};

class UploadPacer {
public:
    // Called on the pump thread when a quiet file's source no longer
    // matches its announcement: the session must end.
    using SourceChanged = std::function<void(const std::string& path, const std::string& message)>;

    UploadPacer(PacerSettings settings, IFileTransferManager& engine, std::mutex& engineMutex,
                ReadCountingRateLimiter& workerReads, SourceChanged onSourceChanged);
    ~UploadPacer();
    UploadPacer(const UploadPacer&) = delete;
    UploadPacer& operator=(const UploadPacer&) = delete;

    // A file was announced: it streams after the ones announced before it.
    void Announce(size_t index, uint32_t taskId, uint32_t transferId, std::string sourcePath, uint64_t fileSize);
    // The receiver accepted a file; starts it if nothing streams.
    void Accept(uint32_t transferId);
    // The receiver has written `chunksWritten` chunks of a transfer.
    void Acknowledge(uint32_t transferId, uint64_t chunksWritten);
    // Counts a piece of data the engine handed off (main looper).
    DataSeen CountData(uint32_t transferId, uint64_t length);
    // Lets the worker go past its wait if the window rule allows it now.
    void Release();
    // Starts the oldest accepted file if nothing streams (see the .cpp).
    void StartUploads(bool mayWait);
    // The session is over: forget every file and stop the engine soon.
    void Stop();
    // Joins the pump thread; nothing is paced afterwards.
    void Shutdown();

    // No file is waiting or streaming.
    bool Idle() const;

private:
    using Clock = std::chrono::steady_clock;

    // A file announced to the receiver whose data has not all been handed
    // off yet, as far as the pacer can see it. Only the oldest one streams.
    struct Upload {
        size_t index = 0;
        uint32_t taskId = 0;
        uint32_t transferId = 0;
        std::string sourcePath;
        uint64_t fileSize = 0;
        bool accepted = false;
        bool started = false;  // ProcessFileUploadData was called
        uint64_t bytesSeen = 0;
        uint64_t chunksSeen = 0;
        uint64_t chunksAcked = 0;  // the receiver's last cumulative count
        bool ackSeen = false;
        bool releasePending = false;  // the worker waits at releaseAt: notify until it moves on
        int64_t releaseAt = -1;       // chunksSeen at the last release
        Clock::time_point lastChunk;
        Clock::time_point lastNudge;
        Clock::time_point lastSourceCheck;
    };
    enum class Phase { kPacing, kStopDue, kEngineStopped, kShutDown };

    void setPhaseLocked(Phase next);
    std::deque<Upload>::iterator uploadLocked(uint32_t transferId);
    Upload* streamingLocked();
    bool evaluateReleaseLocked(Upload& upload);
    bool releaseDueLocked(Upload& upload);
    bool mayReleaseLocked(const Upload& upload) const;
    void failIfSourceChanged(const std::string& sourcePath, uint64_t fileSize);
    void wakePumpLocked();
    void pump();

    const PacerSettings mSettings;
    IFileTransferManager& mEngine;
    std::mutex& mEngineMutex;
    ReadCountingRateLimiter& mWorkerReads;
    const SourceChanged mOnSourceChanged;

    mutable std::mutex mMutex;  // guards everything below
    std::condition_variable mPumpWake;
    Phase mPhase = Phase::kPacing;
    std::deque<Upload> mUploads;  // announced files not yet all handed off, in list order
    bool mWakePending = false;    // something for the pump arrived since it last looked
    bool mPumpResting = false;    // the pump sleeps the long, nothing-streams interval
    bool mStartDue = false;       // the hand-off could not start the next accepted file
    std::atomic<std::thread::id> mStartingOn{};  // the thread inside StartUploads, if any
    std::thread mPump;
};

}  // namespace orin::xfer::host::detail
