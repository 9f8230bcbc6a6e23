#include "xferfm/host/ThreadLooper.h"

#include <pthread.h>

#include <condition_variable>
#include <deque>
#include <exception>
#include <mutex>
#include <utility>

#include "HostLog.h"

namespace orin::xfer::host {

namespace {

constexpr size_t kThreadNameLimit = 15;

struct Job {
    std::string name;
    std::function<void()> body;
};

// Everything the looper's thread touches. The thread holds its own
// reference, so it can outlive the looper object when the looper is
// destroyed from inside one of its jobs.
struct LooperState {
    std::string threadName;
    LooperErrorHandler onJobError;
    std::mutex mutex;
    std::condition_variable wake;
    std::deque<Job> queue;
    bool stopping = false;
};

void reportJobError(LooperState& state, const std::string& jobName, const std::string& what)
{
    if (state.onJobError) {
        try {
            state.onJobError(state.threadName, jobName, what);
            return;
        } catch (...) {
            // A throwing error handler falls back to the log.
        }
    }
    HOST_LOG_E << "job " << (jobName.empty() ? "(unnamed)" : jobName) << " on looper " << state.threadName
               << " threw: " << what;
}

void runLoop(const std::shared_ptr<LooperState>& state)
{
    pthread_setname_np(pthread_self(), state->threadName.c_str());
    while (true) {
        Job job;
        {
            std::unique_lock<std::mutex> lock(state->mutex);
            state->wake.wait(lock, [&] { return state->stopping || !state->queue.empty(); });
            if (state->stopping) {
                return;
            }
            job = std::move(state->queue.front());
            state->queue.pop_front();
        }
        try {
            job.body();
        } catch (const std::exception& error) {
            reportJobError(*state, job.name, error.what());
        } catch (...) {
            reportJobError(*state, job.name, "unknown exception");
        }
    }
}

}  // namespace

struct ThreadLooper::State : LooperState {};

ThreadLooper::ThreadLooper(std::string name, LooperErrorHandler onJobError) : mState(std::make_shared<State>())
{
    mState->threadName = name.substr(0, kThreadNameLimit);
    mState->onJobError = std::move(onJobError);
    mThread = std::thread([state = std::shared_ptr<LooperState>(mState)] { runLoop(state); });
}

ThreadLooper::~ThreadLooper()
{
    std::deque<Job> dropped;
    {
        std::lock_guard<std::mutex> lock(mState->mutex);
        mState->stopping = true;
        dropped.swap(mState->queue);
    }
    mState->wake.notify_all();
    // Dropped jobs are destroyed here, outside the lock: their captures may
    // run arbitrary destructors.
    dropped.clear();
    if (mThread.get_id() == std::this_thread::get_id()) {
        mThread.detach();
    } else if (mThread.joinable()) {
        mThread.join();
    }
}

void ThreadLooper::Post(std::function<void()> task)
{
    Post(std::string(), std::move(task));
}

void ThreadLooper::Post(const std::string& name, std::function<void()> task)
{
    {
        std::lock_guard<std::mutex> lock(mState->mutex);
        if (mState->stopping) {
            return;
        }
        mState->queue.push_back(Job{name, std::move(task)});
    }
    mState->wake.notify_one();
}

const std::string& ThreadLooper::ThreadName() const
{
    return mState->threadName;
}

}  // namespace orin::xfer::host
