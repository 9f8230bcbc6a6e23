// The line rate of one direction of the shaped link. Bytes leave the line
// when the bucket holds a token for each; tokens flow in at the line rate up
// to a burst of one segment, so over any stretch of time no more than
// rate * time + one segment leaves. The departure time is computed exactly
// when the bytes are handed over, not sampled by a timer, so the rate does
// not depend on how promptly the shaper is woken.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstddef>

#include "LinkProfile.h"

namespace xferfm::link {

class TokenBucket {
public:
    // An unlimited bucket (bytesPerSecond 0) lets everything leave at once.
    TokenBucket(double bytesPerSecond, double burstBytes, Clock::time_point start)
        : rate_(bytesPerSecond), burst_(burstBytes), tokens_(burstBytes), at_(start)
    {
    }

    // When `bytes` handed over at `ready` leave: never before `ready`, never
    // before what was handed over earlier, and not before the line had time
    // to send them.
    Clock::time_point Depart(std::size_t bytes, Clock::time_point ready)
    {
        const Clock::time_point t = std::max(ready, at_);
        if (rate_ <= 0) {
            at_ = t;
            return t;
        }
        const double elapsed = std::chrono::duration<double>(t - at_).count();
        const double tokens = std::min(burst_, tokens_ + elapsed * rate_);
        const double need = static_cast<double>(bytes);
        if (tokens >= need) {
            tokens_ = tokens - need;
            at_ = t;
            return t;
        }
        const auto wait = std::chrono::duration<double>((need - tokens) / rate_);
        at_ = t + std::chrono::duration_cast<Clock::duration>(wait);
        tokens_ = 0;
        return at_;
    }

private:
    double rate_;
    double burst_;
    double tokens_;
    Clock::time_point at_;
};

}  // namespace xferfm::link
