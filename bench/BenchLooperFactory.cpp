#include "BenchLooperFactory.h"

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <utility>

namespace xferfm::bench {

namespace {

// Shared between the looper and its thread, so a thread detached by a
// destructor running on it still has its queue.
struct LooperState {
    std::mutex mutex;
    std::condition_variable wake;
    std::deque<std::function<void()>> jobs;
    bool stopping = false;
};

void runJobs(const std::shared_ptr<LooperState>& state)
{
    std::unique_lock<std::mutex> lock(state->mutex);
    while (true) {
        state->wake.wait(lock, [&] { return state->stopping || !state->jobs.empty(); });
        if (state->stopping) {
            return;
        }
        std::function<void()> job = std::move(state->jobs.front());
        state->jobs.pop_front();
        lock.unlock();
        job();
        // Destroy the job's captures before taking the lock again.
        job = nullptr;
        lock.lock();
    }
}

class ThreadLooper : public orin::xfer::IFileTransferLooper {
public:
    ThreadLooper() : mState(std::make_shared<LooperState>()), mThread(runJobs, mState) {}

    ~ThreadLooper() override
    {
        std::deque<std::function<void()>> dropped;
        {
            std::lock_guard<std::mutex> lock(mState->mutex);
            mState->stopping = true;
            dropped.swap(mState->jobs);
        }
        mState->wake.notify_one();
        // Destroyed by one of its own jobs: let that job finish on its own.
        if (mThread.get_id() == std::this_thread::get_id()) {
            mThread.detach();
        } else {
            mThread.join();
        }
    }

    ThreadLooper(const ThreadLooper&) = delete;
    ThreadLooper& operator=(const ThreadLooper&) = delete;

    void Post(std::function<void()> task) override
    {
        {
            std::lock_guard<std::mutex> lock(mState->mutex);
            mState->jobs.push_back(std::move(task));
        }
        mState->wake.notify_one();
    }

    void Post(const std::string& name, std::function<void()> task) override
    {
        (void)name;
        Post(std::move(task));
    }

private:
    std::shared_ptr<LooperState> mState;
    std::thread mThread;
};

}  // namespace

std::unique_ptr<orin::xfer::IFileTransferLooper> BenchLooperFactory::CreateLooper()
{
    return std::make_unique<ThreadLooper>();
}

std::unique_ptr<orin::xfer::IFileTransferLooper> BenchLooperFactory::CreateLooper(const std::string& name)
{
    (void)name;
    return std::make_unique<ThreadLooper>();
}

}  // namespace xferfm::bench
