#include "ReadCountingRateLimiter.h"

#include <limits>
#include <utility>

namespace orin::xfer::host::detail {

ReadCountingRateLimiter::ReadCountingRateLimiter(std::unique_ptr<IFileTransferRateLimiter> inner)
    : mInner(std::move(inner))
{
}

bool ReadCountingRateLimiter::Acquire(uint64_t bytes, int64_t nowMs)
{
    return mInner == nullptr || mInner->Acquire(bytes, nowMs);
}

void ReadCountingRateLimiter::Consume(uint64_t bytes, int64_t nowMs)
{
    {
        std::lock_guard<std::mutex> gate(mGate);
        // The engine only reads when data is left, so every call is one chunk.
        mChunksRead += bytes > 0 ? 1 : 0;
    }
    if (mInner != nullptr) {
        mInner->Consume(bytes, nowMs);
    }
}

void ReadCountingRateLimiter::SetBandwidth(uint32_t bitsPerSecond)
{
    if (mInner != nullptr) {
        mInner->SetBandwidth(bitsPerSecond);
    }
}

uint64_t ReadCountingRateLimiter::GetBandwidth()
{
    // Unlimited: the engine's delay for any chunk rounds down to 0 ms.
    return mInner != nullptr ? mInner->GetBandwidth() : std::numeric_limits<uint64_t>::max();
}

void ReadCountingRateLimiter::Reset()
{
    std::lock_guard<std::mutex> gate(mGate);
    mChunksRead = 0;
}

}  // namespace orin::xfer::host::detail
