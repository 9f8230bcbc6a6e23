// Shows a ProgressTracker on stderr while a copy runs: a live bar redrawn a
// few times a second on a terminal, a plain line every couple of seconds
// otherwise, nothing when progress is off.
//
// Threading: the renderer owns one drawing thread between start() and
// stop() (or destruction). start/stop are called from the thread that owns
// the renderer; the tracker may be updated from any thread meanwhile.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "ProgressTracker.h"
#include "StderrConsole.h"

namespace xferfm::cli {

enum class ProgressStyle { kNone, kTerminalBar, kPlainLines };

// The style a user expects: nothing when disabled, a bar on a terminal.
ProgressStyle chooseProgressStyle(bool enabled, const StderrConsole& console);

class ProgressRenderer {
public:
    ProgressRenderer(const ProgressTracker& tracker, StderrConsole& console, ProgressStyle style);
    ~ProgressRenderer();
    ProgressRenderer(const ProgressRenderer&) = delete;
    ProgressRenderer& operator=(const ProgressRenderer&) = delete;

    void start();
    // Draws the final state once more and ends the bar's line.
    void stop();

private:
    void run();
    void drawOnce();

    const ProgressTracker& mTracker;
    StderrConsole& mConsole;
    ProgressStyle mStyle;
    std::chrono::milliseconds mInterval;
    std::mutex mMutex;
    std::condition_variable mWake;
    bool mStopping = false;
    std::thread mThread;
};

}  // namespace xferfm::cli
