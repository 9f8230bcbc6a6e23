// How far ahead of the oldest unsettled entry the receiving endpoint asks
// for entries (ReceiverSession.cpp).
//
// Why it is measured, not fixed: an entry is complete some round trips
// and its data's time after it was asked for (request, announcement,
// acceptance, data). To keep the link busy with small files, the entries
// asked for must cover the pace at which entries complete times that
// delay (Little's law): on a 40 ms, 100 Mbit/s link about 2,300 files of
// 4 KiB a second, 40 ms apart at the least, so about 100 of them; in one
// process, a handful. A window larger than needed is not free: the
// engine looks each data message's task up in a list as long as the
// files in flight.
//
// - The delay is the shortest time seen from an entry's request to its
//   completion: the pipeline's own latency, with the least queueing.
// - A stretch lasts at least that delay; its pace is the entries it
//   settled per second. The window is kHeadroom x pace x delay: requests
//   go out in bursts (refilled at half the window), and an entry waits
//   a few delays while the window is what limits the pace, so a smaller
//   factor would not let it grow.
// - Entries settle in bursts, so one stretch may see almost none: the
//   window follows the best of the last kStretches stretches, and falls
//   back when files grow large.
// - The window starts at kInitial and stays within [kMinimum, a maximum]:
//   each announced file holds an open cache file in the engine until it
//   completes, so the maximum is 1024 or a quarter of the process's
//   descriptor limit, whichever is lower.
//
// THREADING CONTRACT: none of its own; the session thread alone uses it.
#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <optional>

namespace orin::xfer::host::detail {

class RequestAhead {
public:
    using Clock = std::chrono::steady_clock;

    static constexpr size_t kMinimum = 32;
    // Before anything is measured: the product of a 40 ms, 100 Mbit/s link
    // in files of 8 KiB, so a session's first round trips are not spent
    // growing from the minimum.
    static constexpr size_t kInitial = 256;
    static constexpr size_t kCeiling = 1024;
    static constexpr size_t kStretches = 8;
    static constexpr double kHeadroom = 4.0;

    RequestAhead();

    // One more entry was put in place at `now`, `sinceRequest` after it was asked for.
    void Settled(Clock::time_point now, Clock::duration sinceRequest);
    // How many entries may be asked for beyond the oldest unsettled one.
    size_t Window() const { return mWindow; }
    size_t Maximum() const { return mMaximum; }
    // The shortest time from a request to its entry's completion, once seen.
    std::optional<Clock::duration> Delay() const { return mDelay; }

private:
    size_t mMaximum;
    size_t mWindow;
    std::optional<Clock::duration> mDelay;
    std::optional<Clock::time_point> mStretchStart;
    size_t mSettledInStretch = 0;
    std::array<size_t, kStretches> mWanted{};  // per stretch, the last kStretches, oldest overwritten
    size_t mStretchCount = 0;
};

}  // namespace orin::xfer::host::detail
