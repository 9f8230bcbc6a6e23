// Bandwidth accountant supplied by the host and owned by the engine.
//
// Threading: SetBandwidth runs on the host's control thread; Acquire,
// Consume and GetBandwidth run on the upload worker thread. An
// implementation must be safe for that mix. Times are milliseconds of the
// system clock since its epoch.
#pragma once

#include <cstdint>

namespace orin::xfer {

class IFileTransferRateLimiter {
public:
    virtual ~IFileTransferRateLimiter() = default;
    // Admission check before a chunk is released while flow control is on.
    virtual bool Acquire(uint64_t bytes, int64_t nowMs) = 0;
    // Record of bytes actually read for sending.
    virtual void Consume(uint64_t bytes, int64_t nowMs) = 0;
    virtual void SetBandwidth(uint32_t bitsPerSecond) = 0;
    virtual uint64_t GetBandwidth() = 0;
};

}  // namespace orin::xfer
