// The rate limiter the sender endpoint gives its engine: it counts the
// chunks the upload worker reads, on the worker's own thread, and passes
// everything on to the host's limiter when there is one. Without one it
// admits everything at once, so the engine never delays.
//
// The count is the only view of where the worker really is: its data
// reaches the endpoint later, through the engine's main looper. The upload
// pacer (UploadPacer) decides a release that the worker could mistake for
// a later window's against this count, under Gate(), which Consume also
// takes, so the worker cannot read on while a release is decided and sent.
//
// Threading: Consume, Acquire and GetBandwidth run on the upload worker;
// SetBandwidth on the engine's caller; Reset and Gate on any thread.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>

#include "IFileTransferRateLimiter.h"

namespace orin::xfer::host::detail {

class ReadCountingRateLimiter final : public IFileTransferRateLimiter {
public:
    explicit ReadCountingRateLimiter(std::unique_ptr<IFileTransferRateLimiter> inner);

    bool Acquire(uint64_t bytes, int64_t nowMs) override;
    void Consume(uint64_t bytes, int64_t nowMs) override;
    void SetBandwidth(uint32_t bitsPerSecond) override;
    uint64_t GetBandwidth() override;

    // Held while a release is decided and sent; the worker's next read
    // waits for it.
    std::mutex& Gate() { return mGate; }
    // Chunks read since the last Reset. Call with Gate() held.
    uint64_t ChunksReadLocked() const { return mChunksRead; }
    // A new worker starts: its count starts from zero.
    void Reset();

private:
    const std::unique_ptr<IFileTransferRateLimiter> mInner;  // may be null
    std::mutex mGate;
    uint64_t mChunksRead = 0;  // guarded by mGate
};

}  // namespace orin::xfer::host::detail
