#include "UploadSupport.h"

#include <stdexcept>

namespace orin::xfer::test {

uint64_t Fnv1a(const uint8_t* data, size_t size, uint64_t hash)
{
    for (size_t i = 0; i < size; ++i) {
        hash ^= data[i];
        hash *= 1099511628211ull;
    }
    return hash;
}

uint64_t HashBytes(const std::vector<uint8_t>& bytes)
{
    return Fnv1a(bytes.data(), bytes.size());
}

FileDescription TopLevelFile(const std::string& dir, const std::string& name, uint64_t size)
{
    FileDescription file;
    file.sourceDir = dir;
    file.fileName = name;
    file.destFileName = name;
    file.attribute = kAttributeNormal;
    file.fileSize = size;
    return file;
}

FileDescription WritePatternFile(const std::string& dir, const std::string& name, size_t size, uint32_t seed)
{
    WriteBytes(dir + "/" + name, PatternBytes(size, seed));
    return TopLevelFile(dir, name, size);
}

uint32_t Announce(OrinFileTransferManager& manager, const FileDescription& file, uint32_t taskId, size_t totalSize)
{
    manager.mUploadFileList.insert(manager.mUploadFileList.begin(), file);
    std::multimap<std::string, std::string> records;
    bool listEmpty = false;
    return manager.UploadFiles(taskId, totalSize == 0 ? file.fileSize : totalSize, "tag", records, listEmpty);
}

uint32_t StartPatternUpload(OrinFileTransferManager& manager, const std::string& dir, const std::string& name,
                            size_t size, uint32_t taskId)
{
    const uint32_t transferId = Announce(manager, WritePatternFile(dir, name, size), taskId);
    if (transferId != 0xFFFFFFFFu) {
        manager.ProcessFileUploadData(transferId);
    }
    return transferId;
}

size_t ChunkCountFor(uint64_t size)
{
    return static_cast<size_t>((size + 65535) / 65536);
}

bool WaitForWorkerEnd(const CapturingLogger& logger, const std::string& fileName, std::chrono::milliseconds timeout)
{
    const std::string done = fileName + " doFileUploadTask is completed !";
    return waitUntil([&] { return logger.HasMessage(done, kDebug); }, timeout);
}

bool DrainMainLooper(OrinFileTransferManager& manager, std::chrono::milliseconds timeout)
{
    auto reached = std::make_shared<std::atomic<bool>>(false);
    manager.mMainLooper->Post([reached] { *reached = true; });
    return waitUntil([&] { return reached->load(); }, timeout);
}

size_t ChunksRead(const CapturingLogger& logger)
{
    size_t count = 0;
    for (const LogLine& line : logger.WithMessagePrefix("doFileUploadTask readbytes=")) {
        count += line.level == kDebug ? 1 : 0;
    }
    return count;
}

// ---------------------------------------------------------------------------

bool GateRateLimiter::Acquire(uint64_t /*bytes*/, int64_t /*nowMs*/)
{
    const size_t number = ++mAcquires;
    if (number == mHoldAt) {
        std::unique_lock<std::mutex> lock(mMutex);
        mHeld = true;
        // Bounded so that a failing test cannot hang the manager's teardown.
        mOpened.wait_for(lock, std::chrono::seconds(10), [this] { return mOpen; });
    }
    return true;
}

void GateRateLimiter::Consume(uint64_t /*bytes*/, int64_t /*nowMs*/)
{
    ++mConsumes;
}

void GateRateLimiter::SetBandwidth(uint32_t /*bitsPerSecond*/) {}

uint64_t GateRateLimiter::GetBandwidth()
{
    return bandwidth;
}

bool GateRateLimiter::WaitUntilHeld(std::chrono::milliseconds timeout) const
{
    return waitUntil([this] { return mHeld.load(); }, timeout);
}

void GateRateLimiter::Open()
{
    {
        std::lock_guard<std::mutex> lock(mMutex);
        mOpen = true;
    }
    mOpened.notify_all();
}

GatedManagerFixture::GatedManagerFixture(size_t holdAt)
{
    auto owned = std::make_unique<GateRateLimiter>(holdAt);
    gate = owned.get();
    manager = std::make_unique<OrinFileTransferManager>(&listener, std::make_unique<TestLooperFactory>(journal), true,
                                                        std::move(owned));
}

GatedManagerFixture::~GatedManagerFixture()
{
    gate->Open();
    manager.reset();
}

// ---------------------------------------------------------------------------

AcknowledgingHost::AcknowledgingHost(OrinFileTransferManager& manager, RecordingListener& listener, uint32_t window,
                                     size_t expectedChunks)
    : mManager(manager), mWindow(window), mExpectedChunks(expectedChunks)
{
    std::shared_ptr<State> state = mState;
    listener.onSendFileDataHook = [state](uint32_t, uint32_t, const uint8_t* data, int64_t size) {
        {
            std::lock_guard<std::mutex> lock(state->mutex);
            if (data && size > 0) {
                state->hash = Fnv1a(data, static_cast<size_t>(size), state->hash);
            }
            const auto self = std::this_thread::get_id();
            if (state->deliveryThread == std::thread::id()) {
                state->deliveryThread = self;
            } else if (state->deliveryThread != self) {
                state->manyThreads = true;
            }
        }
        state->bytes += static_cast<uint64_t>(size);
        ++state->chunks;
    };
    mThread = std::thread([this] { Run(); });
}

AcknowledgingHost::~AcknowledgingHost()
{
    mStop = true;
    mThread.join();
}

uint64_t AcknowledgingHost::Hash() const
{
    std::lock_guard<std::mutex> lock(mState->mutex);
    return mState->hash;
}

bool AcknowledgingHost::SingleDeliveryThread() const
{
    std::lock_guard<std::mutex> lock(mState->mutex);
    return !mState->manyThreads;
}

std::thread::id AcknowledgingHost::DeliveryThread() const
{
    std::lock_guard<std::mutex> lock(mState->mutex);
    return mState->deliveryThread;
}

void AcknowledgingHost::Run()
{
    while (!mStop) {
        const size_t seen = mState->chunks;
        const bool atBoundary =
            seen < mExpectedChunks && (mWindow == 0 ? seen == 0 : (seen > 0 && seen % mWindow == 0));
        if (!atBoundary) {
            std::this_thread::sleep_for(std::chrono::microseconds(200));
            continue;
        }
        // Repeat until the worker moves on: an early acknowledgement is lost.
        // (A repeat may also release the next window while delivery lags.)
        while (!mStop && mState->chunks == seen) {
            mManager.NotifyUpload();
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    }
}

}  // namespace orin::xfer::test
