#include "Watchdog.h"

#include <cstdio>
#include <cstdlib>

namespace orin::xfer::test {

Watchdog::Watchdog(std::chrono::seconds bound) : mBound(bound), mThread([this] { watch(); }) {}

Watchdog::~Watchdog()
{
    {
        std::lock_guard<std::mutex> lock(mMutex);
        mStop = true;
    }
    mWake.notify_all();
    mThread.join();
}

void Watchdog::Begin(const std::string& step)
{
    {
        std::lock_guard<std::mutex> lock(mMutex);
        mArmed = true;
        mStep = step;
        mDeadline = std::chrono::steady_clock::now() + mBound;
    }
    mWake.notify_all();
}

void Watchdog::End()
{
    std::lock_guard<std::mutex> lock(mMutex);
    mArmed = false;
}

void Watchdog::watch()
{
    std::unique_lock<std::mutex> lock(mMutex);
    while (!mStop) {
        if (mArmed && std::chrono::steady_clock::now() >= mDeadline) {
            std::fprintf(stderr,
                         "WATCHDOG: still running after %lld s, a deadlock or a lost wake-up: %s\n",
                         static_cast<long long>(mBound.count()), mStep.c_str());
            std::fflush(stderr);
            std::abort();
        }
        if (mArmed) {
            mWake.wait_until(lock, mDeadline);
        } else {
            mWake.wait(lock);
        }
    }
}

}  // namespace orin::xfer::test
