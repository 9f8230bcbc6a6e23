#include <pthread.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "TestSupport.h"
#include "xferfm/host/CallbackLoggerSink.h"
#include "xferfm/host/ThreadLooper.h"
#include "xferfm/host/ThreadLooperFactory.h"

namespace orin::xfer::host {
namespace {

using test::waitUntil;

std::string currentThreadName()
{
    char name[32] = {};
    pthread_getname_np(pthread_self(), name, sizeof(name));
    return name;
}

// Runs when the last copy of a job's captures is destroyed.
struct DestroyFlag {
    explicit DestroyFlag(std::atomic<int>& counter) : destroyed(counter) {}
    ~DestroyFlag() { ++destroyed; }
    std::atomic<int>& destroyed;
};

TEST(ThreadLooper, RunsJobsInPostingOrder)
{
    std::mutex mutex;
    std::vector<int> order;
    std::atomic<int> done{0};
    {
        ThreadLooper looper("fifo");
        for (int i = 0; i < 500; ++i) {
            looper.Post([&, i] {
                std::lock_guard<std::mutex> lock(mutex);
                order.push_back(i);
                ++done;
            });
        }
        ASSERT_TRUE(waitUntil([&] { return done == 500; }));
    }
    ASSERT_EQ(order.size(), 500u);
    for (int i = 0; i < 500; ++i) {
        EXPECT_EQ(order[i], i);
    }
}

TEST(ThreadLooper, RunsOneJobAtATimeOnItsOwnThread)
{
    std::atomic<int> running{0};
    std::atomic<int> mostAtOnce{0};
    std::atomic<int> done{0};
    std::mutex mutex;
    std::vector<std::thread::id> threads;
    ThreadLooper looper("serial");
    std::vector<std::thread> posters;
    for (int t = 0; t < 4; ++t) {
        posters.emplace_back([&] {
            for (int i = 0; i < 100; ++i) {
                looper.Post("job", [&] {
                    const int now = ++running;
                    int seen = mostAtOnce.load();
                    while (now > seen && !mostAtOnce.compare_exchange_weak(seen, now)) {
                    }
                    {
                        std::lock_guard<std::mutex> lock(mutex);
                        threads.push_back(std::this_thread::get_id());
                    }
                    --running;
                    ++done;
                });
            }
        });
    }
    for (auto& poster : posters) {
        poster.join();
    }
    ASSERT_TRUE(waitUntil([&] { return done == 400; }));
    EXPECT_EQ(mostAtOnce.load(), 1);
    std::lock_guard<std::mutex> lock(mutex);
    for (const auto& id : threads) {
        EXPECT_EQ(id, threads.front());
        EXPECT_NE(id, std::this_thread::get_id());
    }
}

TEST(ThreadLooper, ThreadCarriesTheLooperName)
{
    ThreadLooperFactory factory;
    auto writer = factory.CreateLooper("xfer-downloader");
    auto unnamed = factory.CreateLooper();
    auto longName = factory.CreateLooper("a-name-much-longer-than-fifteen");
    std::mutex mutex;
    std::vector<std::string> names(3);
    std::atomic<int> done{0};
    writer->Post([&] {
        std::lock_guard<std::mutex> lock(mutex);
        names[0] = currentThreadName();
        ++done;
    });
    unnamed->Post([&] {
        std::lock_guard<std::mutex> lock(mutex);
        names[1] = currentThreadName();
        ++done;
    });
    longName->Post([&] {
        std::lock_guard<std::mutex> lock(mutex);
        names[2] = currentThreadName();
        ++done;
    });
    ASSERT_TRUE(waitUntil([&] { return done == 3; }));
    std::lock_guard<std::mutex> lock(mutex);
    EXPECT_EQ(names[0], "xfer-downloader");
    EXPECT_EQ(names[1], "xfer-main");
    EXPECT_EQ(names[2], "a-name-much-lon");
}

TEST(ThreadLooper, DestructionDropsQueuedJobsAndWaitsForTheRunningOne)
{
    std::atomic<bool> release{false};
    std::atomic<bool> firstStarted{false};
    std::atomic<bool> firstFinished{false};
    std::atomic<int> queuedRan{0};
    std::atomic<int> queuedDestroyed{0};
    auto looper = std::make_unique<ThreadLooper>("dropper");
    looper->Post([&] {
        firstStarted = true;
        while (!release) {
            std::this_thread::yield();
        }
        firstFinished = true;
    });
    for (int i = 0; i < 3; ++i) {
        auto flag = std::make_shared<DestroyFlag>(queuedDestroyed);
        looper->Post([&queuedRan, flag] { ++queuedRan; });
    }
    ASSERT_TRUE(waitUntil([&] { return firstStarted.load(); }));
    std::atomic<bool> destroyed{false};
    std::thread destroyer([&] {
        looper.reset();
        destroyed = true;
    });
    // The queued jobs are destroyed unrun while the first one still runs.
    ASSERT_TRUE(waitUntil([&] { return queuedDestroyed == 3; }));
    EXPECT_FALSE(destroyed.load());
    release = true;
    destroyer.join();
    EXPECT_TRUE(firstFinished.load());
    EXPECT_EQ(queuedRan.load(), 0);
}

TEST(ThreadLooper, CanBeDestroyedFromInsideItsOwnJob)
{
    std::atomic<int> queuedRan{0};
    std::atomic<int> queuedDestroyed{0};
    std::atomic<bool> jobFinished{false};
    std::string nameAfterDestruction;
    auto looper = std::make_unique<ThreadLooper>("self-destroy");
    ThreadLooper* raw = looper.get();
    std::unique_ptr<ThreadLooper>* owner = &looper;
    std::atomic<bool> go{false};
    raw->Post([&, owner] {
        while (!go) {
            std::this_thread::yield();
        }
        owner->reset();  // what the engine does when its writer fails
        nameAfterDestruction = currentThreadName();
        jobFinished = true;
    });
    auto flag = std::make_shared<DestroyFlag>(queuedDestroyed);
    raw->Post([&queuedRan, flag] { ++queuedRan; });
    flag.reset();
    go = true;
    ASSERT_TRUE(waitUntil([&] { return jobFinished.load(); }));
    EXPECT_EQ(looper, nullptr);
    EXPECT_EQ(nameAfterDestruction, "self-destroy");
    EXPECT_EQ(queuedDestroyed.load(), 1);
    EXPECT_EQ(queuedRan.load(), 0);
}

TEST(ThreadLooper, AThrowingJobIsReportedAndTheNextOneRuns)
{
    std::mutex mutex;
    std::vector<std::string> reports;
    std::atomic<bool> nextRan{false};
    ThreadLooperFactory factory([&](const std::string& looper, const std::string& job, const std::string& what) {
        std::lock_guard<std::mutex> lock(mutex);
        reports.push_back(looper + "|" + job + "|" + what);
    });
    auto looper = factory.CreateLooper("thrower");
    looper->Post("doFileUploadTask", [] { throw std::runtime_error("disk on fire"); });
    looper->Post([&] { nextRan = true; });
    ASSERT_TRUE(waitUntil([&] { return nextRan.load(); }));
    std::lock_guard<std::mutex> lock(mutex);
    ASSERT_EQ(reports.size(), 1u);
    EXPECT_EQ(reports[0], "thrower|doFileUploadTask|disk on fire");
}

TEST(ThreadLooper, WithoutAHandlerAThrowingJobIsLoggedThroughTheEngineLogger)
{
    std::mutex mutex;
    std::vector<std::pair<int, std::string>> lines;
    IFileTransferLogger::SetLogger(std::make_shared<CallbackLoggerSink>([&](int level, const std::string& line) {
        std::lock_guard<std::mutex> lock(mutex);
        lines.emplace_back(level, line);
    }));
    std::atomic<bool> nextRan{false};
    {
        ThreadLooper looper("logged");
        looper.Post("RequestFile", [] { throw std::logic_error("bad state"); });
        looper.Post([&] { nextRan = true; });
        ASSERT_TRUE(waitUntil([&] { return nextRan.load(); }));
    }
    IFileTransferLogger::SetLogger(nullptr);
    std::lock_guard<std::mutex> lock(mutex);
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].first, kError);
    EXPECT_NE(lines[0].second.find("job RequestFile on looper logged threw: bad state"), std::string::npos);
    EXPECT_EQ(lines[0].second.rfind("[XFERFM]: ThreadLooper.cpp:", 0), 0u);
}

}  // namespace
}  // namespace orin::xfer::host
