// Helpers for the tests of the outgoing side: announcing local files,
// following the upload worker, a rate limiter that can hold the worker at a
// chosen admission check, and a host that acknowledges every window.
//
// Threading: GateRateLimiter and AcknowledgingHost are called from the
// worker thread, the main looper thread and the test thread; their state is
// atomic or guarded by their own mutex.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "TestSupport.h"

namespace orin::xfer::test {

// 64-bit FNV-1a, continued from `hash` (start with kFnvOffset).
constexpr uint64_t kFnvOffset = 14695981039346656037ull;
uint64_t Fnv1a(const uint8_t* data, size_t size, uint64_t hash = kFnvOffset);
uint64_t HashBytes(const std::vector<uint8_t>& bytes);

// A top-level description of `dir`/`name` as a host would offer it.
FileDescription TopLevelFile(const std::string& dir, const std::string& name, uint64_t size);

// Writes PatternBytes(size, seed) to dir/name and describes it.
FileDescription WritePatternFile(const std::string& dir, const std::string& name, size_t size, uint32_t seed = 7);

// Puts `file` at the front of the upload list and announces it; returns the
// transfer id (0xFFFFFFFF on failure).
uint32_t Announce(OrinFileTransferManager& manager, const FileDescription& file, uint32_t taskId = 1,
                  size_t totalSize = 0);

// Writes a pattern file into `dir`, announces it and lets the remote side
// accept it (the worker starts); returns the transfer id.
uint32_t StartPatternUpload(OrinFileTransferManager& manager, const std::string& dir, const std::string& name,
                            size_t size, uint32_t taskId = 1);

// Number of chunks the worker hands out for a file of `size` bytes.
size_t ChunkCountFor(uint64_t size);

// True once the worker of `fileName` has left its loop.
bool WaitForWorkerEnd(const CapturingLogger& logger, const std::string& fileName,
                      std::chrono::milliseconds timeout = std::chrono::seconds(20));

// True once every job posted to the main looper before this call has run.
bool DrainMainLooper(OrinFileTransferManager& manager,
                     std::chrono::milliseconds timeout = std::chrono::seconds(10));

// Common ground of the upload suites: a capturing sink, a manager wired to
// recording collaborators, a scratch directory, and transfer ids from 3.
class UploadTest : public ::testing::Test {
protected:
    explicit UploadTest(bool flowControl = false) : fixture(flowControl) {}

    void SetUp() override { OrinFileTransferManager::mTaskId = 1; }

    // Waits until the worker has left its loop and its hand-offs have run.
    void Finish(const std::string& name)
    {
        ASSERT_TRUE(WaitForWorkerEnd(*logger, name));
        ASSERT_TRUE(DrainMainLooper(*fixture.manager));
    }

    ScopedCapturingLogger logger;
    ManagerFixture fixture;
    TempDir dir;
};

// Count of "doFileUploadTask readbytes=" lines: chunks the worker has read.
size_t ChunksRead(const CapturingLogger& logger);

// A limiter whose admission check number `holdAt` (1-based) blocks until
// Open() (or a 10-second safety limit), so a test can pin the worker at a
// known point. Answers true; reports a bandwidth so high that no delay
// results unless `bandwidth` is changed.
class GateRateLimiter : public IFileTransferRateLimiter {
public:
    explicit GateRateLimiter(size_t holdAt) : mHoldAt(holdAt) {}
    bool Acquire(uint64_t bytes, int64_t nowMs) override;
    void Consume(uint64_t bytes, int64_t nowMs) override;
    void SetBandwidth(uint32_t bitsPerSecond) override;
    uint64_t GetBandwidth() override;

    bool WaitUntilHeld(std::chrono::milliseconds timeout = std::chrono::seconds(10)) const;
    void Open();
    size_t Acquires() const { return mAcquires; }
    size_t Consumes() const { return mConsumes; }

    std::atomic<uint64_t> bandwidth{1000000000000ull};

private:
    const size_t mHoldAt;
    std::atomic<size_t> mAcquires{0};
    std::atomic<size_t> mConsumes{0};
    std::atomic<bool> mHeld{false};
    mutable std::mutex mMutex;
    std::condition_variable mOpened;
    bool mOpen = false;
};

// A manager wired like ManagerFixture, but with a GateRateLimiter and flow
// control on. The manager goes first on destruction.
struct GatedManagerFixture {
    explicit GatedManagerFixture(size_t holdAt);
    ~GatedManagerFixture();

    std::shared_ptr<LooperJournal> journal = std::make_shared<LooperJournal>();
    RecordingListener listener;
    GateRateLimiter* gate = nullptr;  // owned by the manager
    std::unique_ptr<OrinFileTransferManager> manager;
};

// Plays the remote side's acknowledgements: whenever the delivered chunk
// count reaches a multiple of the window (and the file is not complete), it
// keeps calling NotifyUpload until the next chunk shows up, because an
// acknowledgement sent before the worker starts waiting is lost. It also
// hashes the delivered bytes in order (install before the upload starts).
class AcknowledgingHost {
public:
    AcknowledgingHost(OrinFileTransferManager& manager, RecordingListener& listener, uint32_t window,
                      size_t expectedChunks);
    ~AcknowledgingHost();
    AcknowledgingHost(const AcknowledgingHost&) = delete;
    AcknowledgingHost& operator=(const AcknowledgingHost&) = delete;

    size_t Chunks() const { return mState->chunks; }
    uint64_t Bytes() const { return mState->bytes; }
    uint64_t Hash() const;
    // True when every delivered chunk came on one thread.
    bool SingleDeliveryThread() const;
    std::thread::id DeliveryThread() const;

private:
    // Shared with the listener hook, which may still run after the host is
    // gone if the manager outlives it.
    struct State {
        std::atomic<size_t> chunks{0};
        std::atomic<uint64_t> bytes{0};
        std::mutex mutex;
        uint64_t hash = kFnvOffset;
        std::thread::id deliveryThread;
        bool manyThreads = false;
    };
    void Run();
    OrinFileTransferManager& mManager;
    const uint32_t mWindow;
    const size_t mExpectedChunks;
    std::shared_ptr<State> mState = std::make_shared<State>();
    std::atomic<bool> mStop{false};
    std::thread mThread;
};

}  // namespace orin::xfer::test
