#include <atomic>
#include <chrono>
#include <memory>
#include <thread>

#include <gtest/gtest.h>

#include "TestSupport.h"
#include "xferfm/host/JobCountingLooperFactory.h"
#include "xferfm/host/ThreadLooperFactory.h"

namespace orin::xfer::host {
namespace {

using namespace std::chrono_literals;
using orin::xfer::test::waitUntil;

struct Counted {
    std::shared_ptr<JobCounter> counter = std::make_shared<JobCounter>();
    JobCountingLooperFactory factory{std::make_unique<ThreadLooperFactory>(), counter};
};

TEST(JobCountingLooperFactory, CountsJobsUntilTheyHaveRun)
{
    Counted counted;
    auto looper = counted.factory.CreateLooper("counted");
    std::atomic<bool> leave{false};
    std::atomic<int> ran{0};
    looper->Post("blocker", [&] {
        while (!leave) {
            std::this_thread::yield();
        }
        ++ran;
    });
    looper->Post([&] { ++ran; });
    EXPECT_FALSE(counted.counter->WaitIdle(20ms));
    leave = true;
    EXPECT_TRUE(counted.counter->WaitIdle(5s));
    EXPECT_EQ(ran.load(), 2);
}

TEST(JobCountingLooperFactory, JobsDroppedByTheLoopersTeardownAreNotCounted)
{
    Counted counted;
    auto looper = counted.factory.CreateLooper();
    std::atomic<bool> started{false};
    std::atomic<bool> leave{false};
    looper->Post([&] {
        started = true;
        while (!leave) {
            std::this_thread::yield();
        }
    });
    for (int i = 0; i < 10; ++i) {
        looper->Post([] {});
    }
    ASSERT_TRUE(waitUntil([&] { return started.load(); }));
    std::thread release([&] {
        std::this_thread::sleep_for(20ms);
        leave = true;
    });
    looper.reset();  // waits for the running job, drops the ten
    release.join();
    EXPECT_TRUE(counted.counter->WaitIdle(0ms));
}

TEST(JobCountingLooperFactory, ALooperDestroyedInsideItsOwnJobCountsThatJobUntilItEnds)
{
    Counted counted;
    std::unique_ptr<IFileTransferLooper> looper = counted.factory.CreateLooper("self");
    std::atomic<bool> posted{false};
    std::atomic<bool> destroyed{false};
    std::atomic<bool> leave{false};
    looper->Post([&] {
        // Only once Post has returned: the engine, too, posts to its writer
        // and replaces it under one lock, never at the same time.
        while (!posted) {
            std::this_thread::yield();
        }
        looper.reset();  // as the engine replaces its writer from a write job
        destroyed = true;
        while (!leave) {
            std::this_thread::yield();
        }
    });
    posted = true;
    ASSERT_TRUE(waitUntil([&] { return destroyed.load(); }));
    EXPECT_FALSE(counted.counter->WaitIdle(20ms));
    leave = true;
    EXPECT_TRUE(counted.counter->WaitIdle(5s));
}

}  // namespace
}  // namespace orin::xfer::host
