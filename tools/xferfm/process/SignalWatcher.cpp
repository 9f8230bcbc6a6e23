#include "SignalWatcher.h"

#include <pthread.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "ExitCode.h"

namespace xferfm::cli {
namespace {

sigset_t watchedSignals()
{
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    return set;
}

void say(const char* text)
{
    size_t length = 0;
    while (text[length] != '\0') {
        ++length;
    }
    (void)!::write(STDERR_FILENO, text, length);
}

}  // namespace

SignalWatcher::SignalWatcher()
{
    ::signal(SIGPIPE, SIG_IGN);
    const sigset_t set = watchedSignals();
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    mThread = std::thread([this] { run(); });
}

SignalWatcher::~SignalWatcher()
{
    mStopping = true;
    // Wake the sigwait with a signal aimed at the watcher thread alone.
    pthread_kill(mThread.native_handle(), SIGTERM);
    mThread.join();
}

void SignalWatcher::setCancelHook(std::function<void()> hook)
{
    std::lock_guard<std::mutex> lock(mHookMutex);
    mCancelHook = std::move(hook);
}

void SignalWatcher::setEmergencyHook(std::function<void()> hook)
{
    std::lock_guard<std::mutex> lock(mHookMutex);
    mEmergencyHook = std::move(hook);
}

void SignalWatcher::run()
{
    const sigset_t set = watchedSignals();
    while (true) {
        int signalNumber = 0;
        if (sigwait(&set, &signalNumber) != 0) {
            continue;
        }
        if (mStopping) {
            return;
        }
        const int count = ++mSignalCount;
        std::lock_guard<std::mutex> lock(mHookMutex);
        if (count == 1) {
            say("\nxferfm: interrupted, stopping; complete files are kept, the one being written is removed (press Ctrl-C again to quit at once)\n");
            if (mCancelHook) {
                mCancelHook();
            }
        } else {
            if (mEmergencyHook) {
                mEmergencyHook();
            }
            say("xferfm: interrupted again, quitting\n");
            // Straight to the kernel: quitting at once runs nothing at exit,
            // not even what a runtime hooks into _exit (a thread sanitizer
            // would report the engine's threads, which are left running on
            // purpose, as leaked).
            ::syscall(SYS_exit_group, toInt(ExitCode::kInterrupted));
        }
    }
}

ScopedSignalHooks::ScopedSignalHooks(SignalWatcher& watcher, std::function<void()> cancel,
                                     std::function<void()> emergency)
    : mWatcher(watcher)
{
    mWatcher.setCancelHook(std::move(cancel));
    mWatcher.setEmergencyHook(std::move(emergency));
}

ScopedSignalHooks::~ScopedSignalHooks()
{
    mWatcher.setCancelHook(nullptr);
    mWatcher.setEmergencyHook(nullptr);
}

}  // namespace xferfm::cli
