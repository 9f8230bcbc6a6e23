// The window of unacknowledged chunks and the remote side's acknowledgements.
#include <gtest/gtest.h>

#include <future>

#include "TestSupport.h"
#include "UploadSupport.h"

namespace orin::xfer::test {
namespace {

constexpr size_t kChunk = 65536;

class UploadWindowTest : public UploadTest {};

TEST_F(UploadWindowTest, SettingTheWindowIsLogged)
{
    fixture.manager->SetUploadWindowsSize(50);
    EXPECT_EQ(fixture.manager->mUploadWindowSize, 50u);
    EXPECT_EQ(logger->CountMessage("uploadWindowsSize = 50", kInfo), 1u);
}

TEST_F(UploadWindowTest, AcknowledgingEveryWindowKeepsTheDataFlowing)
{
    const uint32_t window = 4;
    const size_t chunks = 21;
    fixture.manager->SetUploadWindowsSize(window);
    fixture.listener.copyData = false;
    AcknowledgingHost host(*fixture.manager, fixture.listener, window, chunks);

    StartPatternUpload(*fixture.manager, dir.Path(), "w.bin", (chunks - 1) * kChunk + 1);

    ASSERT_TRUE(waitUntil([&] { return host.Chunks() == chunks; }, std::chrono::seconds(10)));
    ASSERT_TRUE(WaitForWorkerEnd(*logger, "w.bin"));
    EXPECT_EQ(host.Hash(), HashBytes(ReadBytes(dir.Join("w.bin"))));
    // One wait after every full window that still had data behind it.
    EXPECT_EQ(logger->CountMessage("waitUpload", kDebug), 5u);
    EXPECT_TRUE(logger->WithMessagePrefix("wait upload timeout").empty());
}

TEST_F(UploadWindowTest, DefaultWindowWaitsBeforeTheFirstChunkOnly)
{
    StartPatternUpload(*fixture.manager, dir.Path(), "three.bin", 3 * kChunk);

    // The worker clears the acknowledgement when its wait begins.
    ASSERT_TRUE(waitUntil([&] { return !fixture.manager->mUploadAcked; }));
    EXPECT_EQ(ChunksRead(*logger), 0u);
    EXPECT_EQ(logger->CountMessage("waitUpload", kDebug), 1u);

    fixture.manager->NotifyUpload();

    ASSERT_TRUE(fixture.listener.WaitForCount("onSendFileData", 3));
    ASSERT_TRUE(WaitForWorkerEnd(*logger, "three.bin"));
    EXPECT_TRUE(fixture.listener.SentBytes(3) == ReadBytes(dir.Join("three.bin")));
    // After that one wait the count never equals 0 again.
    EXPECT_EQ(logger->CountMessage("waitUpload", kDebug), 1u);
}

TEST_F(UploadWindowTest, AcknowledgementWithNoUploadRunningDoesNothing)
{
    fixture.manager->mUploadAcked = false;
    fixture.manager->NotifyUpload();
    EXPECT_FALSE(fixture.manager->mUploadAcked);
    EXPECT_TRUE(logger->WithMessagePrefix("notifyUpload").empty());

    fixture.manager->mUploading = true;
    fixture.manager->NotifyUpload();
    EXPECT_TRUE(fixture.manager->mUploadAcked);
    EXPECT_EQ(logger->CountMessage("notifyUpload", kDebug), 1u);
}

TEST_F(UploadWindowTest, AcknowledgementBeforeTheWaitIsForgotten)
{
    fixture.manager->mUploading = true;
    fixture.manager->NotifyUpload();
    ASSERT_TRUE(fixture.manager->mUploadAcked);

    auto waiting = std::async(std::launch::async, [&] { fixture.manager->waitUpload(); });
    ASSERT_TRUE(waitUntil([&] { return !fixture.manager->mUploadAcked; }));
    EXPECT_EQ(waiting.wait_for(std::chrono::milliseconds(0)), std::future_status::timeout);
    EXPECT_EQ(logger->CountMessage("waitUpload", kDebug), 1u);

    fixture.manager->NotifyUpload();
    EXPECT_EQ(waiting.wait_for(std::chrono::seconds(10)), std::future_status::ready);
}

TEST(UploadWindowGate, EarlyAcknowledgementDoesNotOpenTheNextWindow)
{
    ScopedCapturingLogger logger;
    OrinFileTransferManager::mTaskId = 1;
    TempDir dir;
    // Hold the worker at its first admission check, before chunk 2.
    GatedManagerFixture fixture(1);
    fixture.manager->SetUploadWindowsSize(2);
    StartPatternUpload(*fixture.manager, dir.Path(), "four.bin", 4 * kChunk);
    ASSERT_TRUE(fixture.gate->WaitUntilHeld());

    fixture.manager->NotifyUpload();  // one chunk out, window not yet full
    EXPECT_EQ(logger->CountMessage("notifyUpload", kDebug), 1u);
    fixture.gate->Open();

    ASSERT_TRUE(waitUntil([&] { return !fixture.manager->mUploadAcked; }));
    EXPECT_EQ(ChunksRead(*logger), 2u);
    ASSERT_TRUE(fixture.listener.WaitForCount("onSendFileData", 2));

    fixture.manager->NotifyUpload();
    ASSERT_TRUE(fixture.listener.WaitForCount("onSendFileData", 4));
    ASSERT_TRUE(WaitForWorkerEnd(*logger, "four.bin"));
    EXPECT_TRUE(fixture.listener.SentBytes(3) == ReadBytes(dir.Join("four.bin")));
    EXPECT_EQ(logger->CountMessage("waitUpload", kDebug), 1u);
}

TEST(UploadWindowGate, LoweringTheWindowBelowTheCountDisablesWaits)
{
    ScopedCapturingLogger logger;
    OrinFileTransferManager::mTaskId = 1;
    TempDir dir;
    // Hold the worker before chunk 3, with 2 chunks unacknowledged.
    GatedManagerFixture fixture(2);
    fixture.manager->SetUploadWindowsSize(3);
    StartPatternUpload(*fixture.manager, dir.Path(), "ten.bin", 10 * kChunk);
    ASSERT_TRUE(fixture.gate->WaitUntilHeld());
    EXPECT_EQ(ChunksRead(*logger), 2u);

    fixture.manager->SetUploadWindowsSize(1);
    fixture.gate->Open();

    ASSERT_TRUE(fixture.listener.WaitForCount("onSendFileData", 10));
    ASSERT_TRUE(WaitForWorkerEnd(*logger, "ten.bin"));
    EXPECT_TRUE(fixture.listener.SentBytes(3) == ReadBytes(dir.Join("ten.bin")));
    EXPECT_EQ(logger->CountMessage("waitUpload", kDebug), 0u);
}

}  // namespace
}  // namespace orin::xfer::test
