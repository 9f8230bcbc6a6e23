// The upload worker's data path: chunking, hand-off on the main looper,
// stopping, and failures to open or read the local file.
#include <gtest/gtest.h>

#include <future>

#include "TestSupport.h"
#include "UploadSupport.h"

namespace orin::xfer::test {
namespace {

constexpr size_t kChunk = 65536;

class UploadWorkerTest : public UploadTest {
protected:
    void SetUp() override
    {
        UploadTest::SetUp();
        // Large enough that no window wait happens in these tests.
        fixture.manager->SetUploadWindowsSize(100000);
    }
};

class UploadSizeTest : public UploadWorkerTest, public ::testing::WithParamInterface<size_t> {};

TEST_P(UploadSizeTest, ArrivesWholeInOrderedFullChunksOnTheMainLooper)
{
    const size_t size = GetParam();
    const size_t chunks = ChunkCountFor(size);
    const uint32_t transferId = StartPatternUpload(*fixture.manager, dir.Path(), "f.bin", size, 21);
    ASSERT_EQ(transferId, 3u);
    Finish("f.bin");

    const auto data = fixture.listener.EventsNamed("onSendFileData");
    ASSERT_EQ(data.size(), chunks);
    for (size_t i = 0; i < chunks; ++i) {
        SCOPED_TRACE(i);
        const size_t expected = i + 1 < chunks ? kChunk : size - kChunk * (chunks - 1);
        EXPECT_EQ(data[i].size, expected);
        EXPECT_FALSE(data[i].nullData);
        EXPECT_EQ(data[i].taskId, 21u);
        EXPECT_EQ(data[i].transferId, 3u);
        EXPECT_TRUE(fixture.journal->IsThreadOf("<main>", data[i].thread));
    }
    EXPECT_TRUE(fixture.listener.SentBytes(3) == ReadBytes(dir.Join("f.bin")));
    std::vector<std::string> expectedNames{"onTransferRecord", "onSendFileStart"};
    expectedNames.insert(expectedNames.end(), chunks, "onSendFileData");
    EXPECT_EQ(fixture.listener.Names(), expectedNames);
    EXPECT_EQ(fixture.journal->JobNames("<main>"), std::vector<std::string>(chunks, "doFileUploadTask"));

    // Every chunk read is reported to the limiter; without flow control
    // nothing is asked of it.
    const auto consumed = fixture.limiter->CallsNamed("Consume");
    ASSERT_EQ(consumed.size(), chunks);
    for (size_t i = 0; i < chunks; ++i) {
        EXPECT_EQ(consumed[i].value, data[i].size);
    }
    EXPECT_EQ(fixture.limiter->Count("Acquire"), 0u);
    EXPECT_EQ(fixture.limiter->Count("GetBandwidth"), 0u);
    EXPECT_TRUE(logger->WithMessagePrefix("delayUpload").empty());

    EXPECT_EQ(logger->CountMessage("id = 3", kInfo), 1u);
    EXPECT_EQ(logger->CountMessage("Start file upload task, 3", kInfo), 1u);
    EXPECT_EQ(ChunksRead(*logger), chunks);
    EXPECT_EQ(logger->CountMessage("doFileUploadTask readbytes=65536, chunkCount=1", kDebug), size / kChunk);
    if (size % kChunk != 0) {
        EXPECT_EQ(logger->CountMessage("doFileUploadTask readbytes=" + std::to_string(size % kChunk) + ", chunkCount=1",
                                       kDebug),
                  1u);
    }
    // A normal end leaves the flag set and the window count at zero.
    EXPECT_TRUE(fixture.manager->IsUploading());
    EXPECT_EQ(fixture.manager->mUnackedChunkCount, 0u);
    EXPECT_TRUE(fixture.manager->getFileTaskList().empty());
}

INSTANTIATE_TEST_SUITE_P(Sizes, UploadSizeTest,
                         ::testing::Values(size_t{1}, size_t{65535}, size_t{65536}, size_t{65537},
                                           size_t{10} * 1024 * 1024));

TEST_F(UploadWorkerTest, EmptyFileSendsOneNullMessageWithoutAWorker)
{
    const FileDescription file = WritePatternFile(dir.Path(), "empty", 0);
    const uint32_t transferId = Announce(*fixture.manager, file, 5);
    ASSERT_EQ(transferId, 3u);
    fixture.manager->mQuitUpload = true;

    fixture.manager->ProcessFileUploadData(transferId);

    const auto data = fixture.listener.EventsNamed("onSendFileData");
    ASSERT_EQ(data.size(), 1u);
    EXPECT_TRUE(data[0].nullData);
    EXPECT_EQ(data[0].size, 0u);
    EXPECT_EQ(data[0].taskId, 5u);
    EXPECT_EQ(data[0].transferId, 3u);
    EXPECT_EQ(data[0].thread, std::this_thread::get_id());
    EXPECT_EQ(logger->CountMessage("file size is 0 ,send null data", kDebug), 1u);
    // No worker: flags untouched, nothing posted, nothing read.
    EXPECT_FALSE(fixture.manager->IsUploading());
    EXPECT_TRUE(fixture.manager->mQuitUpload);
    EXPECT_TRUE(fixture.journal->JobNames("<main>").empty());
    EXPECT_TRUE(logger->WithMessagePrefix("Start file upload task, ").empty());
    EXPECT_TRUE(fixture.manager->getFileTaskList().empty());
}

TEST_F(UploadWorkerTest, UnknownTransferIdIsOnlyLogged)
{
    const uint32_t transferId = Announce(*fixture.manager, WritePatternFile(dir.Path(), "f", 10));
    ASSERT_EQ(transferId, 3u);
    fixture.listener.Clear();

    fixture.manager->ProcessFileUploadData(99);

    EXPECT_EQ(logger->CountMessage("id = 99", kInfo), 1u);
    EXPECT_EQ(logger->CountMessage("task id = 99 is not in uploadFiles list!", kError), 1u);
    EXPECT_TRUE(fixture.listener.Events().empty());
    EXPECT_FALSE(fixture.manager->IsUploading());
    ASSERT_EQ(fixture.manager->getFileTaskList().size(), 1u);
    EXPECT_EQ(fixture.manager->getFileTaskList()[0]->transferId, 3u);
    EXPECT_TRUE(logger->WithMessagePrefix("Start file upload task, ").empty());
}

TEST_F(UploadWorkerTest, FileGoneBeforeAcceptanceSendsNothing)
{
    const uint32_t transferId = Announce(*fixture.manager, WritePatternFile(dir.Path(), "gone", 500));
    ASSERT_EQ(transferId, 3u);
    ASSERT_EQ(::unlink(dir.Join("gone").c_str()), 0);
    fixture.listener.Clear();

    fixture.manager->ProcessFileUploadData(transferId);
    Finish("gone");

    EXPECT_TRUE(fixture.listener.Events().empty());
    EXPECT_EQ(ChunksRead(*logger), 0u);
    EXPECT_EQ(fixture.limiter->Count("Consume"), 0u);
    EXPECT_TRUE(fixture.journal->JobNames("<main>").empty());
    EXPECT_TRUE(logger->WithMessagePrefix("open stream falied").empty());
    EXPECT_TRUE(logger->WithMessagePrefix("read stream failed").empty());
    // An unopened file ends like a finished one.
    EXPECT_TRUE(fixture.manager->IsUploading());
}

TEST_F(UploadWorkerTest, UnreadablePathIsReportedOnceAsAReadFailure)
{
    MakeDirs(dir.Join("folder"));
    const uint32_t transferId = Announce(*fixture.manager, TopLevelFile(dir.Path(), "folder", 10), 8);
    ASSERT_EQ(transferId, 3u);
    fixture.listener.Clear();

    fixture.manager->ProcessFileUploadData(transferId);
    Finish("folder");

    EXPECT_EQ(fixture.listener.Names(),
              (std::vector<std::string>{"onClipboardRelease", "onFileTransferFailed", "onReportEvent"}));
    const auto failed = fixture.listener.EventsNamed("onFileTransferFailed");
    ASSERT_EQ(failed.size(), 1u);
    EXPECT_EQ(failed[0].taskId, 8u);
    EXPECT_EQ(failed[0].transferId, 3u);
    EXPECT_EQ(failed[0].result, 1u);
    const auto report = fixture.listener.EventsNamed("onReportEvent");
    EXPECT_EQ(report[0].text, "onFileTransferFailed");
    EXPECT_TRUE(report[0].flag);
    for (const ListenerEvent& event : fixture.listener.Events()) {
        EXPECT_TRUE(fixture.journal->IsThreadOf("<main>", event.thread)) << event.name;
    }

    const auto readFailures = logger->WithMessagePrefix("read stream failed ");
    ASSERT_EQ(readFailures.size(), 1u);
    EXPECT_EQ(readFailures[0].level, kWarning);
    EXPECT_EQ(ChunksRead(*logger), 0u);
    EXPECT_EQ(fixture.journal->JobNames("<main>"), std::vector<std::string>{"doFileUploadTask"});
    EXPECT_FALSE(fixture.manager->IsUploading());
}

// ---------------------------------------------------------------------------
// Stopping a running upload

class UploadStopTest : public UploadWorkerTest {
protected:
    // Starts a 10-chunk file with a window of 3 and returns once the worker
    // is waiting for an acknowledgement after 3 chunks.
    uint32_t StartAndReachWindow()
    {
        fixture.manager->SetUploadWindowsSize(3);
        fixture.manager->mUploadFileList = {TopLevelFile(dir.Path(), "next", 1)};
        const uint32_t transferId = StartPatternUpload(*fixture.manager, dir.Path(), "ten.bin", 10 * kChunk, 4);
        EXPECT_TRUE(waitUntil([&] { return !fixture.manager->mUploadAcked; }));
        EXPECT_EQ(ChunksRead(*logger), 3u);
        EXPECT_TRUE(fixture.listener.WaitForCount("onSendFileData", 3));
        EXPECT_TRUE(DrainMainLooper(*fixture.manager));
        return transferId;
    }
};

TEST_F(UploadStopTest, QuitWhileWaitingEndsTheWorkerWithoutAnotherChunk)
{
    StartAndReachWindow();

    fixture.manager->quitUploadThread();

    Finish("ten.bin");
    EXPECT_EQ(ChunksRead(*logger), 3u);
    EXPECT_EQ(fixture.listener.Count("onSendFileData"), 3u);
    EXPECT_FALSE(fixture.manager->IsUploading());
    EXPECT_EQ(fixture.manager->mUnackedChunkCount, 0u);
    EXPECT_TRUE(fixture.manager->mUploadFileList.empty());
    EXPECT_EQ(logger->CountMessage("quitUploadThread", kDebug), 1u);
    EXPECT_TRUE(logger->WithMessagePrefix("wait upload timeout").empty());
}

TEST_F(UploadStopTest, RemoteErrorOnAnUploadStopsTheWorker)
{
    const uint32_t transferId = StartAndReachWindow();
    ASSERT_EQ(transferId, 3u);
    fixture.listener.Clear();

    fixture.manager->ProcessXferError(4, transferId);

    const auto failed = fixture.listener.EventsNamed("onFileTransferFailed");
    ASSERT_EQ(failed.size(), 1u);
    EXPECT_EQ(failed[0].taskId, 4u);
    EXPECT_EQ(failed[0].transferId, 3u);
    EXPECT_EQ(failed[0].result, 3u);
    Finish("ten.bin");
    EXPECT_EQ(ChunksRead(*logger), 3u);
    EXPECT_EQ(fixture.listener.Count("onSendFileData"), 0u);
    EXPECT_FALSE(fixture.manager->IsUploading());
    EXPECT_TRUE(fixture.manager->mUploadFileList.empty());
}

TEST_F(UploadStopTest, DisconnectStopsTheWorker)
{
    StartAndReachWindow();
    fixture.manager->ProcessTansferDisconnect();
    const auto failed = fixture.listener.EventsNamed("onFileTransferFailed");
    ASSERT_EQ(failed.size(), 1u);
    EXPECT_EQ(failed[0].taskId, 0xFFFFFFFFu);
    EXPECT_EQ(failed[0].transferId, 0u);
    EXPECT_EQ(failed[0].result, 1u);
    Finish("ten.bin");
    EXPECT_EQ(ChunksRead(*logger), 3u);
    EXPECT_FALSE(fixture.manager->IsUploading());
}

TEST_F(UploadStopTest, TeardownWaitsForTheWorkerToLeave)
{
    StartAndReachWindow();
    auto done = std::async(std::launch::async, [&] { fixture.manager.reset(); });
    ASSERT_EQ(done.wait_for(std::chrono::seconds(10)), std::future_status::ready);
    // The worker had left its loop before the manager was gone.
    EXPECT_TRUE(logger->HasMessage("ten.bin doFileUploadTask is completed !", kDebug));
    EXPECT_EQ(ChunksRead(*logger), 3u);
}

TEST_F(UploadStopTest, QuitWhileStreamingStopsWithinOneChunk)
{
    // Flow control slows the worker to one chunk per 20 ms.
    fixture.manager->SetFlowControl(true);
    fixture.limiter->bandwidthOverride = int64_t{65536} * 8000 / 20;
    const size_t total = 100;
    StartPatternUpload(*fixture.manager, dir.Path(), "long.bin", total * kChunk);
    ASSERT_TRUE(fixture.listener.WaitForCount("onSendFileData", 3));

    fixture.manager->quitUploadThread();
    const size_t readWhenQuit = ChunksRead(*logger);

    Finish("long.bin");
    EXPECT_LE(ChunksRead(*logger), readWhenQuit + 1);
    EXPECT_LT(ChunksRead(*logger), total);
    EXPECT_EQ(fixture.listener.Count("onSendFileData"), ChunksRead(*logger));
    EXPECT_FALSE(fixture.manager->IsUploading());
}

// ---------------------------------------------------------------------------
// Small operations of the upload state

TEST_F(UploadWorkerTest, QuitWhenIdleResetsTheUploadState)
{
    fixture.manager->mUploadFileList = {TopLevelFile("/d", "a", 1)};
    fixture.manager->mUnackedChunkCount = 5;
    fixture.manager->mUploading = true;
    fixture.manager->mUploadAcked = false;

    fixture.manager->quitUploadThread();

    EXPECT_TRUE(fixture.manager->mQuitUpload);
    EXPECT_TRUE(fixture.manager->mUploadFileList.empty());
    EXPECT_EQ(fixture.manager->mUnackedChunkCount, 0u);
    EXPECT_FALSE(fixture.manager->IsUploading());
    // The acknowledgement went out while the flag was still set.
    EXPECT_TRUE(fixture.manager->mUploadAcked);
    EXPECT_EQ(logger->CountMessage("quitUploadThread", kDebug), 1u);
    EXPECT_EQ(logger->CountMessage("notifyUpload", kDebug), 1u);
}

TEST_F(UploadWorkerTest, TimeoutCheckActsOnlyWithoutAcknowledgement)
{
    fixture.manager->mUploadFileList = {TopLevelFile("/d", "a", 1)};
    fixture.manager->mUploading = true;
    fixture.manager->mUploadAcked = true;
    fixture.manager->processWaitUploadTimeout();
    EXPECT_FALSE(fixture.manager->mQuitUpload);
    EXPECT_EQ(fixture.manager->mUploadFileList.size(), 1u);
    EXPECT_TRUE(fixture.manager->IsUploading());
    EXPECT_TRUE(logger->WithMessagePrefix("wait upload timeout").empty());

    fixture.manager->mUploadAcked = false;
    fixture.manager->processWaitUploadTimeout();
    EXPECT_TRUE(fixture.manager->mQuitUpload);
    EXPECT_TRUE(fixture.manager->mUploadFileList.empty());
    EXPECT_FALSE(fixture.manager->IsUploading());
    EXPECT_EQ(logger->CountMessage("wait upload timeout, quit upload", kWarning), 1u);
}

TEST(UploadWorkerNoListener, StreamsWithoutCallingAnyone)
{
    ScopedCapturingLogger logger;
    TempDir dir;
    auto manager = std::make_unique<OrinFileTransferManager>(nullptr, std::make_unique<TestLooperFactory>(), false,
                                                             nullptr);
    manager->SetUploadWindowsSize(100);
    const uint32_t transferId = StartPatternUpload(*manager, dir.Path(), "f", 3 * kChunk);
    ASSERT_NE(transferId, 0xFFFFFFFFu);
    ASSERT_TRUE(WaitForWorkerEnd(*logger, "f"));
    EXPECT_EQ(ChunksRead(*logger), 3u);
    ASSERT_TRUE(DrainMainLooper(*manager));
}

}  // namespace
}  // namespace orin::xfer::test
