// Ctrl-C and SIGTERM handling. The signals are blocked in every thread and
// taken by one watcher thread with sigwait, so the reactions run as
// ordinary code, not inside an async signal handler:
// - the first signal runs the cancel hook (ask the copy to stop cleanly);
// - a second one runs the emergency hook (remove the cache) and exits the
//   process at once with code 130.
//
// SIGPIPE is ignored from construction on: a reader that closes the
// progress or summary pipe early must not kill a copy halfway and strand
// its cache; the lost output is all that goes.
//
// Threading: construct in main before any other thread starts, so that
// every later thread inherits the blocked mask. Hooks may be set and cleared
// from any thread; they run on the watcher thread, one at a time.
#pragma once

#include <atomic>
#include <functional>
#include <mutex>
#include <thread>

namespace xferfm::cli {

class SignalWatcher {
public:
    SignalWatcher();
    ~SignalWatcher();
    SignalWatcher(const SignalWatcher&) = delete;
    SignalWatcher& operator=(const SignalWatcher&) = delete;

    void setCancelHook(std::function<void()> hook);
    void setEmergencyHook(std::function<void()> hook);
    bool interrupted() const { return mSignalCount.load() > 0; }

private:
    void run();

    std::atomic<int> mSignalCount{0};
    std::atomic<bool> mStopping{false};
    std::mutex mHookMutex;
    std::function<void()> mCancelHook;
    std::function<void()> mEmergencyHook;
    std::thread mThread;
};

// Sets a hook for as long as it lives, then clears it again.
class ScopedSignalHooks {
public:
    ScopedSignalHooks(SignalWatcher& watcher, std::function<void()> cancel, std::function<void()> emergency);
    ~ScopedSignalHooks();
    ScopedSignalHooks(const ScopedSignalHooks&) = delete;
    ScopedSignalHooks& operator=(const ScopedSignalHooks&) = delete;

private:
    SignalWatcher& mWatcher;
};

}  // namespace xferfm::cli
