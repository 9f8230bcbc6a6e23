#include "RequestAhead.h"

#include <sys/resource.h>

#include <algorithm>
#include <cmath>

namespace orin::xfer::host::detail {

namespace {

// A quarter of the soft descriptor limit leaves the rest to the writer,
// the landing and the host.
size_t MaximumForDescriptors()
{
    struct rlimit limit {};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur == RLIM_INFINITY) {
        return RequestAhead::kCeiling;
    }
    return std::clamp<size_t>(static_cast<size_t>(limit.rlim_cur / 4), RequestAhead::kMinimum,
                              RequestAhead::kCeiling);
}

}  // namespace

RequestAhead::RequestAhead() : mMaximum(MaximumForDescriptors()), mWindow(std::min(kInitial, mMaximum)) {}

void RequestAhead::Settled(Clock::time_point now, Clock::duration sinceRequest)
{
    if (!mDelay || sinceRequest < *mDelay) {
        mDelay = std::max<Clock::duration>(sinceRequest, std::chrono::microseconds(1));
    }
    if (!mStretchStart) {
        mStretchStart = now;
        return;
    }
    ++mSettledInStretch;
    if (now - *mStretchStart < *mDelay) {
        return;
    }
    // Entries the pipeline holds at this stretch's pace: pace x delay.
    const double inFlight = static_cast<double>(mSettledInStretch) * std::chrono::duration<double>(*mDelay).count() /
                            std::chrono::duration<double>(now - *mStretchStart).count();
    const double wanted = std::ceil(kHeadroom * inFlight);
    mWanted[mStretchCount++ % kStretches] = static_cast<size_t>(std::min(wanted, static_cast<double>(mMaximum)));
    const size_t best = *std::max_element(mWanted.begin(), mWanted.end());
    mWindow = std::clamp<size_t>(best, kMinimum, mMaximum);
    mStretchStart = now;
    mSettledInStretch = 0;
}

}  // namespace orin::xfer::host::detail
