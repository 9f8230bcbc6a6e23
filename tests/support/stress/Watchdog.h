// Fails a long test loudly instead of letting it hang: each step of the
// test is begun with a description, and a step still running after the
// bound prints that description (the seed included) and aborts the
// process, so a deadlock shows up as a clear failure, not a CI timeout.
//
// THREADING CONTRACT: Begin and End from the test's thread; the watchdog's
// own thread only reads the current step under its mutex.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

namespace orin::xfer::test {

class Watchdog {
public:
    explicit Watchdog(std::chrono::seconds bound);
    ~Watchdog();
    Watchdog(const Watchdog&) = delete;
    Watchdog& operator=(const Watchdog&) = delete;

    void Begin(const std::string& step);
    void End();

private:
    void watch();

    const std::chrono::seconds mBound;
    std::mutex mMutex;
    std::condition_variable mWake;
    bool mStop = false;
    bool mArmed = false;
    std::string mStep;
    std::chrono::steady_clock::time_point mDeadline;
    std::thread mThread;
};

}  // namespace orin::xfer::test
