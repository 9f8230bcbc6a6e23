#include "xferfm/host/TokenBucketRateLimiter.h"

#include <algorithm>
#include <chrono>
#include <utility>

namespace orin::xfer::host {

int64_t TokenBucketRateLimiter::SystemClockMs()
{
    // The engine's clock: whole microseconds of the system clock / 1000.
    const auto since = std::chrono::system_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::microseconds>(since).count() / 1000;
}

TokenBucketRateLimiter::TokenBucketRateLimiter(uint64_t bitsPerSecond, Clock clock)
    : mClock(clock ? std::move(clock) : Clock(SystemClockMs)), mBitsPerSecond(bitsPerSecond)
{
}

// The engine hands Acquire a time read before its delay, so the refill
// time is the later of that and our own reading. Time never runs backwards
// for the bucket.
void TokenBucketRateLimiter::refillLocked(int64_t nowMs)
{
    const int64_t now = std::max(nowMs, mClock());
    if (!mClockStarted) {
        mClockStarted = true;
        mLastRefillMs = now;
        return;
    }
    if (now <= mLastRefillMs) {
        return;
    }
    const double bytesPerMs = static_cast<double>(mBitsPerSecond) / 8000.0;
    mTokens = std::min(static_cast<double>(kBurstBytes),
                       mTokens + static_cast<double>(now - mLastRefillMs) * bytesPerMs);
    mLastRefillMs = now;
}

bool TokenBucketRateLimiter::Acquire(uint64_t bytes, int64_t nowMs)
{
    (void)bytes;  // only what was really sent counts (Consume); see the header
    std::lock_guard<std::mutex> lock(mMutex);
    if (mBitsPerSecond == 0) {
        return true;
    }
    refillLocked(nowMs);
    return mTokens >= 0.0;
}

void TokenBucketRateLimiter::Consume(uint64_t bytes, int64_t nowMs)
{
    std::lock_guard<std::mutex> lock(mMutex);
    refillLocked(nowMs);
    if (mBitsPerSecond == 0) {
        return;
    }
    mTokens -= static_cast<double>(bytes);
}

void TokenBucketRateLimiter::SetBandwidth(uint32_t bitsPerSecond)
{
    std::lock_guard<std::mutex> lock(mMutex);
    // Settle the time elapsed at the old rate before switching.
    if (mBitsPerSecond != 0) {
        refillLocked(mClock());
    }
    mBitsPerSecond = bitsPerSecond;
    if (bitsPerSecond == 0) {
        mTokens = static_cast<double>(kBurstBytes);
    }
}

uint64_t TokenBucketRateLimiter::GetBandwidth()
{
    std::lock_guard<std::mutex> lock(mMutex);
    return mBitsPerSecond;
}

double TokenBucketRateLimiter::Tokens()
{
    std::lock_guard<std::mutex> lock(mMutex);
    return mTokens;
}

}  // namespace orin::xfer::host
