// The receiver's request window on its own: it starts at its initial size,
// grows each stretch while the window is what limits the pace, holds at
// four times the entries the link keeps in flight (pace x shortest
// request-to-completion delay), falls back when files grow large, and
// stays within its bounds.
#include <algorithm>
#include <chrono>
#include <cstddef>

#include <gtest/gtest.h>

#include "RequestAhead.h"

namespace orin::xfer::host::detail {
namespace {

using namespace std::chrono_literals;
using Clock = RequestAhead::Clock;

// A window whose clock was started by one entry settled `delay` after its
// request, and the time it has reached.
struct Settling {
    explicit Settling(Clock::duration delay) { ahead.Settled(now, delay); }
    // Settles `count` entries evenly over the next `span`, each `delay` after its request.
    void Settle(size_t count, Clock::duration span, Clock::duration delay)
    {
        for (size_t i = 1; i <= count; ++i) {
            ahead.Settled(now + span * static_cast<long>(i) / static_cast<long>(count), delay);
        }
        now += span;
    }
    RequestAhead ahead;
    Clock::time_point now{};
};

TEST(RequestAheadTest, BeforeAnythingSettlesTheWindowIsTheInitialOne)
{
    RequestAhead ahead;
    EXPECT_EQ(ahead.Window(), std::min(RequestAhead::kInitial, ahead.Maximum()));
    EXPECT_FALSE(ahead.Delay().has_value());
}

TEST(RequestAheadTest, TheDelayIsTheShortestSeenFromRequestToCompletion)
{
    RequestAhead ahead;
    Clock::time_point now{};
    ahead.Settled(now += 1ms, 90ms);
    ahead.Settled(now += 1ms, 80ms);
    ahead.Settled(now += 1ms, 120ms);
    ASSERT_TRUE(ahead.Delay().has_value());
    EXPECT_EQ(*ahead.Delay(), Clock::duration(80ms));
}

TEST(RequestAheadTest, AWindowThatLimitsThePaceGrowsEachStretch)
{
    Settling run(80ms);
    RequestAhead& ahead = run.ahead;
    // Stretches at the minimum's pace first (large files, say).
    for (size_t stretch = 0; stretch < RequestAhead::kStretches; ++stretch) {
        run.Settle(RequestAhead::kMinimum / 4, 80ms, 80ms);
    }
    ASSERT_EQ(ahead.Window(), RequestAhead::kMinimum);
    size_t before = ahead.Window();
    for (int stretch = 0; stretch < 3; ++stretch) {
        // Half the window settles per delay: the requests go out in bursts.
        run.Settle(ahead.Window() / 2, 80ms, 80ms);
        EXPECT_EQ(ahead.Window(), std::min(before * 2, ahead.Maximum()));
        before = ahead.Window();
    }
}

TEST(RequestAheadTest, ALinkBoundPaceHoldsTheWindowAtFourTimesTheEntriesInFlight)
{
    Settling run(40ms);
    RequestAhead& ahead = run.ahead;
    // 2,400 entries a second (4 KiB files at about 80 Mbit/s), 40 ms from request to completion at the least:
    // 96 in flight.
    for (int stretch = 0; stretch < 5; ++stretch) {
        run.Settle(96, 40ms, 60ms);
    }
    EXPECT_EQ(ahead.Window(), std::min<size_t>(384, ahead.Maximum()));
}

TEST(RequestAheadTest, ABurstyPaceKeepsTheWindowOfItsBestRecentStretch)
{
    Settling run(80ms);
    RequestAhead& ahead = run.ahead;
    run.Settle(100, 80ms, 80ms);
    EXPECT_EQ(ahead.Window(), std::min<size_t>(400, ahead.Maximum()));
    run.Settle(1, 80ms, 80ms);  // a stretch spent waiting for the next burst
    EXPECT_EQ(ahead.Window(), std::min<size_t>(400, ahead.Maximum()));
}

TEST(RequestAheadTest, LargeFilesBringTheWindowBackToItsMinimum)
{
    Settling run(2ms);
    RequestAhead& ahead = run.ahead;
    run.Settle(2000, 10ms, 2ms);
    EXPECT_GT(ahead.Window(), RequestAhead::kMinimum);
    // Then one file a second: the window holds for a few stretches, then falls.
    run.Settle(RequestAhead::kStretches + 1, std::chrono::seconds(RequestAhead::kStretches + 1), 1s);
    EXPECT_EQ(ahead.Window(), RequestAhead::kMinimum);
}

TEST(RequestAheadTest, TheWindowNeverPassesItsMaximum)
{
    Settling run(100ms);
    EXPECT_GE(run.ahead.Maximum(), RequestAhead::kMinimum);
    EXPECT_LE(run.ahead.Maximum(), RequestAhead::kCeiling);
    run.Settle(100000, 100ms, 100ms);
    EXPECT_EQ(run.ahead.Window(), run.ahead.Maximum());
}

}  // namespace
}  // namespace orin::xfer::host::detail
