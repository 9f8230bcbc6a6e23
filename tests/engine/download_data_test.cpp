// Incoming data: the writer looper, progress and completion, the every-50th
// acknowledgement, write failures, the registration-only delivery path and
// the stop of the writer.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include "DownloadSupport.h"
#include "TestSupport.h"

namespace orin::xfer::test {
namespace {

std::shared_ptr<FileTransferTask> FindTask(OrinFileTransferManager& manager, uint32_t transferId)
{
    std::lock_guard<std::mutex> lock(manager.mTaskMutex);
    for (const auto& task : manager.mFileTaskList) {
        if (task->transferId == transferId) {
            return task;
        }
    }
    return nullptr;
}

std::vector<uint32_t> PercentsOf(const std::vector<ListenerEvent>& events)
{
    std::vector<uint32_t> percents;
    for (const auto& event : events) {
        percents.push_back(event.result);
    }
    return percents;
}

class DownloadDataTest : public ::testing::Test {
protected:
    DownloadDataTest() { m.SetCacheDir(cache); }

    void Send(uint32_t taskId, uint32_t transferId, std::vector<uint8_t> bytes)
    {
        m.ProcessFileDownloadData(taskId, transferId, bytes.size(), bytes.data());
    }

    ScopedCapturingLogger logger;
    TempDir tmp;
    std::string cache = tmp.Join("cache");
    std::string dest = tmp.Join("dest");
    ManagerFixture f;
    OrinFileTransferManager& m = *f.manager;
};

TEST_F(DownloadDataTest, ChunksAreWrittenOnTheWriterWithProgressThenCompletion)
{
    StartFile(m, 7, 2, "a.bin", 1000);
    const std::shared_ptr<FileTransferTask> task = FindTask(m, 2);
    ASSERT_TRUE(task);
    const std::vector<uint8_t> bytes = PatternBytes(1000, 3);

    EXPECT_EQ(SendChunks(m, 7, 2, bytes, {400, 400, 200}), 3u);
    ASSERT_TRUE(f.listener.WaitForCount("onFileTransferCompleted", 1));

    EXPECT_EQ(ReadBytes(cache + "/a.bin"), bytes);
    const auto progress = f.listener.EventsNamed("onFileTransferProgress");
    ASSERT_EQ(progress.size(), 2u);
    EXPECT_EQ(PercentsOf(progress), (std::vector<uint32_t>{40, 80}));
    for (const auto& event : progress) {
        EXPECT_EQ(event.taskId, 7u);
        EXPECT_EQ(event.transferId, 2u);
        EXPECT_EQ(event.size, 400u);
        EXPECT_TRUE(f.journal->IsThreadOf("xfer-downloader", event.thread));
        EXPECT_NE(event.thread, std::this_thread::get_id());
    }
    const ListenerEvent completed = f.listener.EventsNamed("onFileTransferCompleted").front();
    EXPECT_EQ(completed.taskId, 7u);
    EXPECT_EQ(completed.transferId, 2u);
    EXPECT_EQ(completed.result, 0u);
    EXPECT_TRUE(f.journal->IsThreadOf("xfer-downloader", completed.thread));
    EXPECT_EQ(f.listener.Names().back(), "onFileTransferCompleted");
    EXPECT_EQ(m.mLastPercent.load(), 80u);

    EXPECT_EQ(logger->CountMessage("task id 7id = 2, fileSize = 400", 1), 2u);
    EXPECT_EQ(logger->CountMessage("task id 7id = 2, fileSize = 200", 1), 1u);
    EXPECT_EQ(logger->CountMessage("task id 2id = 2", 1), 3u);
    EXPECT_EQ(logger->CountMessage("Match download task 2, write data to disk", 1), 3u);
    EXPECT_TRUE(ContainsInOrder(Messages(*logger, 1), {"position = 400fileSize = 1000", "position = 800fileSize = 1000",
                                                       "position = 1000fileSize = 1000"}));
    EXPECT_EQ(logger->CountMessage("delete task id = 2", 2), 1u);
    EXPECT_EQ(FindTask(m, 2), nullptr);
    EXPECT_TRUE(m.mDownloadComplete);
    EXPECT_FALSE(task->stream->is_open());
}

TEST_F(DownloadDataTest, ManyChunksOfVaryingLengthKeepTheirOrder)
{
    const std::vector<uint8_t> bytes = PatternBytes(300000, 11);
    StartFile(m, 7, 2, "deep/dir/big.bin", bytes.size(), dest);

    SendChunks(m, 7, 2, bytes, {1, 4096, 17, 65536, 999, 3, 20000});
    ASSERT_TRUE(f.listener.WaitForCount("onFileTransferCompleted", 1));

    EXPECT_EQ(ReadBytes(dest + "/deep/dir/big.bin"), bytes);
    EXPECT_EQ(f.listener.Count("onFileTransferFailed"), 0u);
}

TEST_F(DownloadDataTest, AcknowledgesEveryFiftiethMessageAcrossFiles)
{
    StartFile(m, 7, 2, "a.bin", 300);
    StartFile(m, 8, 4, "b.bin", 300);
    const std::vector<uint8_t> a = PatternBytes(300, 1);
    const std::vector<uint8_t> b = PatternBytes(300, 2);

    EXPECT_EQ(SendChunks(m, 7, 2, a, {10}), 30u);
    EXPECT_EQ(f.listener.Count("onFileDataAck"), 0u);
    const std::vector<uint8_t> firstPartOfB(b.begin(), b.begin() + 190);
    EXPECT_EQ(SendChunks(m, 8, 4, firstPartOfB, {10}), 19u);
    EXPECT_EQ(f.listener.Count("onFileDataAck"), 0u);
    // The 50th message of the manager, whichever file it belongs to.
    Send(8, 4, std::vector<uint8_t>(b.begin() + 190, b.begin() + 200));
    const auto acks = f.listener.EventsNamed("onFileDataAck");
    ASSERT_EQ(acks.size(), 1u);
    EXPECT_EQ(acks[0].taskId, 8u);
    EXPECT_EQ(acks[0].transferId, 4u);
    EXPECT_EQ(acks[0].result, 0u);
    EXPECT_EQ(acks[0].thread, std::this_thread::get_id());
    SendChunks(m, 8, 4, std::vector<uint8_t>(b.begin() + 200, b.end()), {10});
    EXPECT_EQ(f.listener.Count("onFileDataAck"), 1u);

    // A new start resets the countdown: 60 messages so far, yet the next
    // tick comes only with the 50th message after it.
    StartFile(m, 9, 6, "c.bin", 500);
    const std::vector<uint8_t> c = PatternBytes(500, 3);
    SendChunks(m, 9, 6, std::vector<uint8_t>(c.begin(), c.begin() + 490), {10});
    EXPECT_EQ(f.listener.Count("onFileDataAck"), 1u);
    Send(9, 6, std::vector<uint8_t>(c.begin() + 490, c.end()));
    ASSERT_EQ(f.listener.Count("onFileDataAck"), 2u);
    EXPECT_EQ(f.listener.EventsNamed("onFileDataAck")[1].transferId, 6u);

    ASSERT_TRUE(f.listener.WaitForCount("onFileTransferCompleted", 3));
    EXPECT_EQ(ReadBytes(cache + "/a.bin"), a);
    EXPECT_EQ(ReadBytes(cache + "/b.bin"), b);
    EXPECT_EQ(ReadBytes(cache + "/c.bin"), c);
}

TEST_F(DownloadDataTest, EmptyFileCompletesOnlyOnAnEmptyMessage)
{
    StartFile(m, 7, 2, "empty.txt", 0);
    EXPECT_TRUE(PathExists(cache + "/empty.txt"));
    // Nothing has been queued for it, so nothing can complete it yet.
    EXPECT_NE(FindTask(m, 2), nullptr);
    EXPECT_EQ(f.listener.Count("onFileTransferCompleted"), 0u);

    m.ProcessFileDownloadData(7, 2, 0, nullptr);
    ASSERT_TRUE(f.listener.WaitForCount("onFileTransferCompleted", 1));

    EXPECT_EQ(f.listener.Count("onFileTransferProgress"), 0u);
    EXPECT_EQ(FindTask(m, 2), nullptr);
    EXPECT_TRUE(ReadBytes(cache + "/empty.txt").empty());
    EXPECT_EQ(logger->CountMessage("position = 0fileSize = 0", 1), 1u);
}

TEST_F(DownloadDataTest, FileThatReceivesMoreThanAnnouncedNeverCompletes)
{
    StartFile(m, 7, 2, "short.bin", 4);

    Send(7, 2, PatternBytes(3));
    Send(7, 2, PatternBytes(3));
    ASSERT_TRUE(f.listener.WaitForCount("onFileTransferProgress", 2));

    EXPECT_EQ(PercentsOf(f.listener.EventsNamed("onFileTransferProgress")), (std::vector<uint32_t>{75, 150}));
    EXPECT_EQ(f.listener.Count("onFileTransferCompleted"), 0u);
    const auto task = FindTask(m, 2);
    ASSERT_TRUE(task);
    EXPECT_EQ(task->fileSize, 4u);
}

TEST_F(DownloadDataTest, MessageForAnUnknownTransferIsDroppedButCounted)
{
    StartFile(m, 7, 2, "a.bin", 10);
    logger->Clear();

    for (int i = 0; i < 49; ++i) {
        Send(7, 98, PatternBytes(4));
    }
    EXPECT_EQ(f.listener.Count("onFileDataAck"), 0u);
    Send(7, 98, PatternBytes(4));

    const auto acks = f.listener.EventsNamed("onFileDataAck");
    ASSERT_EQ(acks.size(), 1u);
    EXPECT_EQ(acks[0].taskId, 7u);
    EXPECT_EQ(acks[0].transferId, 98u);
    EXPECT_EQ(logger->CountMessage("task id 2id = 98", 1), 50u);
    EXPECT_TRUE(logger->WithMessagePrefix("Match download task").empty());
    EXPECT_EQ(FindTask(m, 2)->transferredSize, 0u);
    EXPECT_TRUE(ReadBytes(cache + "/a.bin").empty());
}

TEST_F(DownloadDataTest, CompletionDeletesTheTaskAndWakesTheWaitingRequest)
{
    const FileDescription file = RemoteFile("", "a.bin", 6);
    m.PushDownloadFile(file);
    m.PushDownloadFile(RemoteFile("", "later.bin", 1));
    std::atomic<bool> completeSeenByHook{false};
    std::atomic<size_t> deletesSeenByHook{0};
    f.listener.onFileTransferCompletedHook = [&](uint32_t, uint32_t) {
        completeSeenByHook = m.mDownloadComplete.load();
        deletesSeenByHook = logger->CountMessage("delete task id = 2", 2);
    };

    RequestRunner request(m, file);
    ASSERT_TRUE(WaitForMarkerTask(m, "a.bin"));
    StartFile(m, 7, 2, "a.bin", 6);
    SendChunks(m, 7, 2, PatternBytes(6), {6});

    EXPECT_TRUE(request.Finish());
    ASSERT_TRUE(f.listener.WaitForCount("onFileTransferCompleted", 1));
    EXPECT_TRUE(completeSeenByHook);
    EXPECT_EQ(deletesSeenByHook, 1u);
    EXPECT_EQ(FindTask(m, 2), nullptr);
    EXPECT_EQ(m.GetDownloadFileList().size(), 1u);
    EXPECT_EQ(ReadBytes(cache + "/a.bin"), PatternBytes(6));
}

TEST(DownloadWriteFailure, IsReportedOnceAndTheWriterIsReplacedFromItsOwnThread)
{
    ScopedCapturingLogger logger;
    TempDir tmp;
    const std::string dest = tmp.Join("dest");
    MakeDirs(dest);
    ASSERT_EQ(symlink("/dev/full", (dest + "/a.bin").c_str()), 0);
    auto journal = std::make_shared<LooperJournal>();
    auto ownedFactory = std::make_unique<ThreadNotingLooperFactory>(journal);
    ThreadNotingLooperFactory* factory = ownedFactory.get();
    RecordingListener listener;
    auto manager = std::make_unique<OrinFileTransferManager>(&listener, std::move(ownedFactory), false, nullptr);
    OrinFileTransferManager& m = *manager;
    {
        std::lock_guard<std::mutex> lock(m.mTaskMutex);
        auto upload = std::make_shared<FileTransferTask>();
        upload->transferId = 5;
        m.mFileTaskList.push_back(upload);
    }
    const std::thread::id firstWriter = journal->ThreadsOf("xfer-downloader").at(0);

    StartFile(m, 7, 2, "a.bin", 8192, dest);
    ASSERT_EQ(listener.Count("onFileTransferStarted"), 1u);
    std::vector<uint8_t> chunk = PatternBytes(4096);
    m.ProcessFileDownloadData(7, 2, chunk.size(), chunk.data());

    ASSERT_TRUE(listener.WaitForCount("onFileTransferFailed", 1));
    ASSERT_TRUE(waitUntil([&] { return journal->Count("create:xfer-downloader") == 2; }));
    // The fresh writer is in place only when the stop ends, which it marks
    // by setting mDownloadComplete; a chunk posted before that is dropped.
    ASSERT_TRUE(waitUntil([&] { return m.mDownloadComplete.load(); }));
    const auto failures = logger->WithMessagePrefix("write stream failed ");
    ASSERT_EQ(failures.size(), 1u);
    EXPECT_EQ(failures[0].level, 3);
    EXPECT_EQ(NamesAmong(listener, FailureCalls()), FailureCalls());
    const ListenerEvent failed = listener.EventsNamed("onFileTransferFailed").front();
    EXPECT_EQ(failed.taskId, 7u);
    EXPECT_EQ(failed.transferId, 2u);
    EXPECT_EQ(failed.result, 1u);
    EXPECT_EQ(failed.thread, firstWriter);
    EXPECT_FALSE(listener.EventsNamed("onReportEvent").front().flag);
    EXPECT_EQ(listener.Count("onFileTransferProgress"), 0u);
    EXPECT_EQ(listener.Count("onFileTransferCompleted"), 0u);

    // The fresh writer was asked for by the failing writer itself.
    const auto creators = factory->CreatorThreads();
    ASSERT_EQ(creators.size(), 2u);
    EXPECT_EQ(creators[0], std::this_thread::get_id());
    EXPECT_EQ(creators[1], firstWriter);
    EXPECT_TRUE(ContainsInOrder(journal->Entries(), {"create:xfer-downloader", "destroy:xfer-downloader",
                                                     "create:xfer-downloader"}));
    EXPECT_TRUE(waitUntil([&] { return TransferIdsOf(TaskSnapshot(m)) == std::vector<uint32_t>{5}; }));
    struct stat link {};
    EXPECT_EQ(lstat((dest + "/a.bin").c_str(), &link), 0);
    EXPECT_TRUE(S_ISLNK(link.st_mode));

    // Later chunks of the failed file find no task; a new file works.
    m.ProcessFileDownloadData(7, 2, chunk.size(), chunk.data());
    const std::vector<uint8_t> next = PatternBytes(3, 9);
    StartFile(m, 7, 4, "b.bin", next.size(), dest);
    SendChunks(m, 7, 4, next, {3});
    ASSERT_TRUE(listener.WaitForCount("onFileTransferCompleted", 1));
    EXPECT_EQ(ReadBytes(dest + "/b.bin"), next);
    const ListenerEvent completed = listener.EventsNamed("onFileTransferCompleted").front();
    EXPECT_EQ(completed.transferId, 4u);
    EXPECT_TRUE(journal->IsThreadOf("xfer-downloader", completed.thread));
    EXPECT_NE(completed.thread, firstWriter);
    EXPECT_EQ(listener.Count("onFileTransferFailed"), 1u);
    EXPECT_EQ(logger->WithMessagePrefix("write stream failed ").size(), 1u);
    manager.reset();
}

TEST_F(DownloadDataTest, WriteFailureLeavesThePartialFileOnDisk)
{
    const std::vector<uint8_t> bytes = PatternBytes(8192, 5);
    StartFile(m, 7, 2, "big.bin", bytes.size(), dest);
    {
        // Writes past 3000 bytes fail once the first chunk is on disk.
        ScopedFileSizeLimit limit(3000);
        SendChunks(m, 7, 2, std::vector<uint8_t>(bytes.begin(), bytes.begin() + 4096), {2048});
        ASSERT_TRUE(f.listener.WaitForCount("onFileTransferFailed", 1));
    }

    const auto progress = f.listener.EventsNamed("onFileTransferProgress");
    ASSERT_EQ(progress.size(), 1u);
    EXPECT_EQ(progress[0].result, 25u);
    EXPECT_EQ(logger->WithMessagePrefix("write stream failed ").size(), 1u);
    EXPECT_EQ(ReadBytes(dest + "/big.bin"), std::vector<uint8_t>(bytes.begin(), bytes.begin() + 3000));
    EXPECT_TRUE(waitUntil([&] { return f.journal->Count("create:xfer-downloader") == 2; }));
    EXPECT_EQ(f.listener.Count("onFileTransferCompleted"), 0u);
}

class RegistrationOnlyDataTest : public DownloadDataTest {
protected:
    RegistrationOnlyDataTest()
    {
        m.PushDownloadFile(record);
        m.RequestFile(record, true);
    }

    FileDescription record = RemoteFile("docs", "a.txt", 10, "/remote/src");
};

TEST_F(RegistrationOnlyDataTest, ChunksGoToTheHostWithTheirRecord)
{
    StartFile(m, 7, 2, "docs/a.txt", 10);
    f.listener.Clear();
    const std::vector<uint8_t> first = PatternBytes(4, 1);
    const std::vector<uint8_t> second = PatternBytes(6, 2);

    Send(7, 2, first);
    EXPECT_EQ(f.listener.Names(), std::vector<std::string>{"onFileDownloaded"});
    EXPECT_EQ(m.GetDownloadFileList().size(), 1u);
    EXPECT_NE(FindTask(m, 2), nullptr);
    Send(7, 2, second);

    // Completion is reported before the last piece is delivered.
    EXPECT_EQ(f.listener.Names(),
              (std::vector<std::string>{"onFileDownloaded", "onFileTransferCompleted", "onFileDownloaded"}));
    const auto delivered = f.listener.EventsNamed("onFileDownloaded");
    EXPECT_EQ(delivered[0].data, first);
    EXPECT_EQ(delivered[1].data, second);
    EXPECT_EQ(delivered[1].size, 6u);
    for (const auto& event : f.listener.Events()) {
        EXPECT_EQ(event.thread, std::this_thread::get_id());
    }
    EXPECT_EQ(delivered[0].record.sourceDir, "/remote/src");
    EXPECT_EQ(delivered[0].record.filePath, "docs");
    EXPECT_EQ(delivered[0].record.fileName, "a.txt");
    const ListenerEvent completed = f.listener.EventsNamed("onFileTransferCompleted").front();
    EXPECT_EQ(completed.taskId, 7u);
    EXPECT_EQ(completed.transferId, 2u);

    EXPECT_EQ(logger->CountMessage("file transfer complete", 1), 2u);
    EXPECT_TRUE(m.GetDownloadFileList().empty());
    EXPECT_EQ(m.mDownloadFileRecordList.size(), 1u);
    EXPECT_TRUE(TaskSnapshot(m).empty());
    EXPECT_EQ(logger->CountMessage("delete task id = 2", 2), 1u);
    EXPECT_FALSE(PathExists(cache));
    EXPECT_EQ(f.journal->Count("create:xfer-downloader"), 1u);
}

TEST_F(RegistrationOnlyDataTest, CompletingMessageMovesTheCountdownWithoutATick)
{
    StartFile(m, 7, 2, "docs/a.txt", 50);

    SendChunks(m, 7, 2, PatternBytes(50), {1});

    EXPECT_EQ(f.listener.Count("onFileTransferCompleted"), 1u);
    EXPECT_EQ(f.listener.Count("onFileDataAck"), 0u);
    EXPECT_EQ(m.mProgressCountdown, 50);
}

TEST_F(RegistrationOnlyDataTest, FiftiethMessageOfAnUnfinishedFileTicks)
{
    StartFile(m, 7, 2, "docs/a.txt", 100);

    SendChunks(m, 7, 2, PatternBytes(50), {1});

    const auto acks = f.listener.EventsNamed("onFileDataAck");
    ASSERT_EQ(acks.size(), 1u);
    EXPECT_EQ(acks[0].taskId, 7u);
    EXPECT_EQ(acks[0].transferId, 2u);
    EXPECT_EQ(m.mProgressCountdown, 50);
    EXPECT_EQ(f.listener.Count("onFileTransferCompleted"), 0u);
    EXPECT_EQ(f.listener.Count("onFileDownloaded"), 50u);
}

TEST_F(RegistrationOnlyDataTest, UnknownTransferIsCountedButNotDelivered)
{
    StartFile(m, 7, 2, "docs/a.txt", 10);

    for (int i = 0; i < 50; ++i) {
        Send(7, 98, PatternBytes(2));
    }

    EXPECT_EQ(f.listener.Count("onFileDownloaded"), 0u);
    const auto acks = f.listener.EventsNamed("onFileDataAck");
    ASSERT_EQ(acks.size(), 1u);
    EXPECT_EQ(acks[0].transferId, 98u);
    EXPECT_EQ(FindTask(m, 2)->transferredSize, 0u);
}

TEST_F(RegistrationOnlyDataTest, FileWithoutAPendingRecordCompletesUndelivered)
{
    StartFile(m, 7, 4, "other.bin", 3);

    Send(7, 4, PatternBytes(3));

    EXPECT_EQ(f.listener.Count("onFileTransferCompleted"), 1u);
    EXPECT_EQ(f.listener.Count("onFileDownloaded"), 0u);
    EXPECT_EQ(FindTask(m, 4), nullptr);
    EXPECT_EQ(m.GetDownloadFileList().size(), 1u);
}

TEST_F(DownloadDataTest, StoppingTheWriterKeepsOnlyUploadTasksInOrder)
{
    {
        std::lock_guard<std::mutex> lock(m.mTaskMutex);
        for (uint32_t id : {3u, 2u, 5u, 0u, 7u, 4u}) {
            auto task = std::make_shared<FileTransferTask>();
            task->transferId = id;
            m.mFileTaskList.push_back(task);
        }
    }
    m.mDownloadComplete = false;

    m.stopWriteFileThread();

    EXPECT_EQ(TransferIdsOf(TaskSnapshot(m)), (std::vector<uint32_t>{3, 5, 7}));
    EXPECT_TRUE(m.mDownloadComplete);
    EXPECT_EQ(f.journal->Entries(), (std::vector<std::string>{"create:<main>", "create:xfer-downloader",
                                                               "destroy:xfer-downloader", "create:xfer-downloader"}));
}

}  // namespace
}  // namespace orin::xfer::test
