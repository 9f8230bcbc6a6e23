// Counts chunks reported from an engine thread and lets the benchmark
// thread wait for a count. The reporting side pays one atomic add, plus a
// lock and a wake-up only while someone is waiting.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>

namespace xferfm::bench {

class ChunkCounter {
public:
    void Add(uint64_t chunks = 1)
    {
        mCount.fetch_add(chunks);
        if (mWaiting.load()) {
            std::lock_guard<std::mutex> lock(mMutex);
            mWake.notify_one();
        }
    }

    uint64_t Count() const { return mCount.load(); }

    void WaitFor(uint64_t target)
    {
        if (mCount.load() >= target) {
            return;
        }
        std::unique_lock<std::mutex> lock(mMutex);
        mWaiting.store(true);
        mWake.wait(lock, [&] { return mCount.load() >= target; });
        mWaiting.store(false);
    }

private:
    std::atomic<uint64_t> mCount{0};
    std::atomic<bool> mWaiting{false};
    std::mutex mMutex;
    std::condition_variable mWake;
};

}  // namespace xferfm::bench
