#include "ProgressRenderer.h"

#include "ProgressFormat.h"

namespace xferfm::cli {

ProgressStyle chooseProgressStyle(bool enabled, const StderrConsole& console)
{
    if (!enabled) {
        return ProgressStyle::kNone;
    }
    return console.isTerminal() ? ProgressStyle::kTerminalBar : ProgressStyle::kPlainLines;
}

ProgressRenderer::ProgressRenderer(const ProgressTracker& tracker, StderrConsole& console, ProgressStyle style)
    : mTracker(tracker),
      mConsole(console),
      mStyle(style),
      // A bar is cheap to redraw; a log file wants few lines.
      mInterval(style == ProgressStyle::kTerminalBar ? std::chrono::milliseconds(200)
                                                      : std::chrono::milliseconds(2000))
{
}

ProgressRenderer::~ProgressRenderer() { stop(); }

void ProgressRenderer::start()
{
    if (mStyle == ProgressStyle::kNone || mThread.joinable()) {
        return;
    }
    mStopping = false;
    mThread = std::thread([this] { run(); });
}

void ProgressRenderer::stop()
{
    if (!mThread.joinable()) {
        return;
    }
    {
        std::lock_guard<std::mutex> lock(mMutex);
        mStopping = true;
    }
    mWake.notify_one();
    mThread.join();
    drawOnce();  // the final state, also for a copy shorter than one interval
    mConsole.finishStatus();
}

void ProgressRenderer::run()
{
    std::unique_lock<std::mutex> lock(mMutex);
    while (!mWake.wait_for(lock, mInterval, [this] { return mStopping; })) {
        lock.unlock();
        drawOnce();
        lock.lock();
    }
}

void ProgressRenderer::drawOnce()
{
    const ProgressSnapshot progress = mTracker.snapshot();
    if (mStyle == ProgressStyle::kTerminalBar) {
        mConsole.setStatus(formatBar(progress, mConsole.width()));
    } else if (mStyle == ProgressStyle::kPlainLines) {
        mConsole.writeLine(formatPlainLine(progress));
    }
}

}  // namespace xferfm::cli
