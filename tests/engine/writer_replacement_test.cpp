// Replacing the writer looper while other threads are still at work: the
// request that empties the pending list must not deadlock with a writer job
// that needs the task list, and a chunk that arrives while a failed writer
// is being replaced must not produce a second failure report.
#include <gtest/gtest.h>

#include <unistd.h>

#include <condition_variable>
#include <mutex>

#include "DownloadSupport.h"
#include "TestSupport.h"

namespace orin::xfer::test {
namespace {

using namespace std::chrono_literals;

TEST(WriterReplacement, RequestThatEmptiesPendingListDoesNotDeadlockWithABusyWriter)
{
    ScopedCapturingLogger logger;
    TempDir dir;
    ManagerFixture fixture;
    OrinFileTransferManager& manager = *fixture.manager;
    manager.SetCacheDir(dir.Join("cache"));

    const FileDescription file = RemoteFile("", "a.bin", 10);
    manager.RequestFileDesc();
    manager.PushDownloadFile(file);

    // The writer job that completes the file stays busy until the request
    // has begun to stop the writer, then needs the task-list mutex.
    std::atomic<bool> hookDone{false};
    fixture.listener.onFileTransferCompletedHook = [&](uint32_t, uint32_t) {
        waitUntil([&] { return logger->CountMessage("all files download complete", kInfo) > 0; }, 10s);
        manager.deleteTask(12345);
        hookDone = true;
    };

    RequestRunner request(manager, file);
    ASSERT_TRUE(WaitForMarkerTask(manager, "a.bin"));
    StartFile(manager, 1, 2, "a.bin", 10);
    SendChunks(manager, 1, 2, PatternBytes(10), {10});

    EXPECT_TRUE(request.Finish(20s));
    EXPECT_TRUE(hookDone.load());
    EXPECT_EQ(ReadBytes(dir.Join("cache/a.bin")), PatternBytes(10));
    EXPECT_TRUE(fixture.listener.WaitForCount("onFileTransferCompleted", 1));
    EXPECT_EQ(fixture.listener.Count("onFileTransferCompleted"), 1u);
}

// Holds the creation of a fresh "xfer-downloader" looper until released.
class GatedLooperFactory : public TestLooperFactory {
public:
    using TestLooperFactory::TestLooperFactory;

    std::unique_ptr<IFileTransferLooper> CreateLooper(const std::string& name) override
    {
        if (mArmed.exchange(false)) {
            std::unique_lock<std::mutex> lock(mMutex);
            mEntered = true;
            mChanged.notify_all();
            mChanged.wait_for(lock, 10s, [this] { return mReleased; });
        }
        return TestLooperFactory::CreateLooper(name);
    }
    using TestLooperFactory::CreateLooper;

    void Arm() { mArmed = true; }
    bool WaitEntered()
    {
        std::unique_lock<std::mutex> lock(mMutex);
        return mChanged.wait_for(lock, 10s, [this] { return mEntered; });
    }
    void Release()
    {
        std::lock_guard<std::mutex> lock(mMutex);
        mReleased = true;
        mChanged.notify_all();
    }

private:
    std::atomic<bool> mArmed{false};
    std::mutex mMutex;
    std::condition_variable mChanged;
    bool mEntered = false;
    bool mReleased = false;
};

TEST(WriterReplacement, ChunkArrivingWhileAFailedWriterIsReplacedIsNotWrittenOrReportedAgain)
{
    ScopedCapturingLogger logger;
    TempDir dir;
    MakeDirs(dir.Join("dest"));
    ASSERT_EQ(symlink("/dev/full", dir.Join("dest/full.bin").c_str()), 0);

    auto journal = std::make_shared<LooperJournal>();
    auto factory = std::make_unique<GatedLooperFactory>(journal);
    GatedLooperFactory& gate = *factory;
    RecordingListener listener;
    auto manager = std::make_unique<OrinFileTransferManager>(&listener, std::move(factory), false, nullptr);

    StartFile(*manager, 1, 2, "full.bin", 4 * 65536, dir.Join("dest"));
    gate.Arm();
    SendChunks(*manager, 1, 2, PatternBytes(65536), {65536});

    // The failing writer is now inside its own replacement.
    ASSERT_TRUE(gate.WaitEntered());
    EXPECT_EQ(listener.Count("onFileTransferFailed"), 1u);
    SendChunks(*manager, 1, 2, PatternBytes(65536, 2), {65536});
    gate.Release();

    ASSERT_TRUE(waitUntil([&] { return journal->Count("create:xfer-downloader") == 2; }));
    // The fresh writer is in place only when the stop ends (mDownloadComplete).
    ASSERT_TRUE(waitUntil([&] { return manager->mDownloadComplete.load(); }));
    // A new file through the fresh writer: once it completes, every job that
    // reached that writer before it has run.
    StartFile(*manager, 3, 4, "after.bin", 3, dir.Join("dest"));
    SendChunks(*manager, 3, 4, PatternBytes(3), {3});
    ASSERT_TRUE(listener.WaitForCount("onFileTransferCompleted", 1));
    EXPECT_EQ(ReadBytes(dir.Join("dest/after.bin")), PatternBytes(3));

    EXPECT_EQ(listener.Count("onFileTransferFailed"), 1u);
    EXPECT_EQ(logger->WithMessagePrefix("write stream failed ").size(), 1u);
    manager.reset();
}


// The stop takes no lock of its own: a host that holds the task-list mutex,
// as RequestFile does, stops the writer without deadlock, and the parked
// request returns once the mutex is let go.
TEST(WriterReplacement, StopCalledWithTheTaskListMutexHeldReleasesAParkedRequest)
{
    TempDir dir;
    ManagerFixture fixture;
    OrinFileTransferManager& manager = *fixture.manager;
    manager.SetCacheDir(dir.Join("cache"));
    const FileDescription file = RemoteFile("", "a.bin", 10);
    manager.RequestFileDesc();
    manager.PushDownloadFile(file);
    manager.PushDownloadFile(RemoteFile("", "b.bin", 3));

    RequestRunner request(manager, file);
    ASSERT_TRUE(WaitForMarkerTask(manager, "a.bin"));
    {
        // Taken only while the request waits: it holds the mutex otherwise.
        std::lock_guard<std::mutex> lock(manager.mTaskMutex);
        auto upload = std::make_shared<FileTransferTask>();
        upload->transferId = 5;
        manager.mFileTaskList.push_back(upload);

        manager.stopWriteFileThread();

        ASSERT_EQ(manager.mFileTaskList.size(), 1u);
        EXPECT_EQ(manager.mFileTaskList[0]->transferId, 5u);
        EXPECT_TRUE(manager.mDownloadComplete.load());
        EXPECT_EQ(fixture.journal->Count("destroy:xfer-downloader"), 1u);
        EXPECT_EQ(fixture.journal->Count("create:xfer-downloader"), 2u);
        EXPECT_FALSE(request.Returned());
    }
    EXPECT_TRUE(request.Finish(10s));

    // The fresh writer takes the next file.
    StartFile(manager, 1, 2, "b.bin", 3, dir.Join("dest"));
    SendChunks(manager, 1, 2, PatternBytes(3), {3});
    ASSERT_TRUE(fixture.listener.WaitForCount("onFileTransferCompleted", 1));
    EXPECT_EQ(ReadBytes(dir.Join("dest/b.bin")), PatternBytes(3));
}

// A writer job that needs the task-list mutex (here a listener callback that
// deletes a task) does not hold up a stop made with that mutex held.
TEST(WriterReplacement, StopWithTheMutexHeldDoesNotWaitForAWriterJobThatNeedsIt)
{
    TempDir dir;
    ManagerFixture fixture;
    OrinFileTransferManager& manager = *fixture.manager;
    std::atomic<bool> inHook{false};
    std::atomic<bool> stopping{false};
    std::atomic<bool> hookDone{false};
    fixture.listener.onFileTransferCompletedHook = [&](uint32_t, uint32_t) {
        inHook = true;
        waitUntil([&] { return stopping.load(); }, 10s);
        manager.deleteTask(12345);
        hookDone = true;
    };

    StartFile(manager, 1, 2, "a.bin", 4, dir.Join("dest"));
    SendChunks(manager, 1, 2, PatternBytes(4), {4});
    ASSERT_TRUE(waitUntil([&] { return inHook.load(); }));
    {
        std::lock_guard<std::mutex> lock(manager.mTaskMutex);
        stopping = true;
        manager.stopWriteFileThread();
        EXPECT_TRUE(hookDone.load());
    }
    EXPECT_EQ(fixture.journal->Count("create:xfer-downloader"), 2u);
    EXPECT_EQ(ReadBytes(dir.Join("dest/a.bin")), PatternBytes(4));
}

}  // namespace
}  // namespace orin::xfer::test
