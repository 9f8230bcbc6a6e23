// Bandwidth limiter for the engine's upload worker: a token bucket in bytes,
// refilled at the configured rate, with a burst of one chunk (65,536 bytes).
//
// How the engine drives it (with flow control on): before every chunk but
// the first of a file it sleeps floor(previousBytes * 8000 / GetBandwidth())
// whole milliseconds, then calls Acquire(previousBytes, t) with a time t it
// read BEFORE that sleep; on false it repeats the whole sequence, sleep
// included. Consume(bytesRead, now) follows every chunk read, flow control
// or not. The floor makes the sleeps alone run fast (6 ms instead of 6.55 ms
// for 64 KiB at 80 Mbps), so the bucket supplies the correction:
// - Consume charges the bytes actually read; the bucket may go into debt;
// - Acquire only checks: it answers false only while the bucket is in debt,
//   i.e. when the bytes already sent exceed what the rate allows by now;
// - every refill uses the later of the time given and the limiter's own
//   clock reading, so the stale time that Acquire receives does not hide
//   the sleep that just happened;
// - tokens never exceed one chunk, so idle time buys no more than one chunk
//   of burst.
// Over a long transfer the average rate therefore stays within one chunk of
// the configured rate. A bandwidth of 0 means no limit (Acquire is always
// true), so the engine never spins on a limiter that cannot refill.
//
// THREADING CONTRACT: every operation is safe from any thread; one mutex
// guards the bucket. The clock function is called under that mutex.
#pragma once

#include <cstdint>
#include <functional>
#include <mutex>

#include "IFileTransferRateLimiter.h"

namespace orin::xfer::host {

class TokenBucketRateLimiter final : public IFileTransferRateLimiter {
public:
    // Milliseconds since the epoch of the system clock, the engine's clock.
    using Clock = std::function<int64_t()>;
    static constexpr uint64_t kBurstBytes = 65536;

    static int64_t SystemClockMs();

    explicit TokenBucketRateLimiter(uint64_t bitsPerSecond = 50000000, Clock clock = SystemClockMs);

    bool Acquire(uint64_t bytes, int64_t nowMs) override;
    void Consume(uint64_t bytes, int64_t nowMs) override;
    void SetBandwidth(uint32_t bitsPerSecond) override;
    uint64_t GetBandwidth() override;

    // Current balance in bytes (negative while in debt); for diagnostics.
    double Tokens();

private:
    void refillLocked(int64_t nowMs);

    std::mutex mMutex;
    Clock mClock;
    uint64_t mBitsPerSecond;
    double mTokens = static_cast<double>(kBurstBytes);
    int64_t mLastRefillMs = 0;
    bool mClockStarted = false;
};

}  // namespace orin::xfer::host
