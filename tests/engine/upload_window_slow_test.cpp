// An upload whose window is never acknowledged gives up after 30 seconds.
#include <gtest/gtest.h>

#include "TestSupport.h"
#include "UploadSupport.h"

namespace orin::xfer::test {
namespace {

constexpr size_t kChunk = 65536;
constexpr auto kPatience = std::chrono::seconds(45);

class UnacknowledgedWindowTest : public UploadTest {
protected:
    void SetUp() override
    {
        UploadTest::SetUp();
        fixture.manager->mUploadFileList = {TopLevelFile(dir.Path(), "queued-1", 1),
                                            TopLevelFile(dir.Path(), "queued-2", 1)};
    }

    // Starts a 5-chunk file and follows it until the worker gives up.
    // Returns the seconds between the start of the wait and the give-up.
    double RunUntilGivenUp()
    {
        StartPatternUpload(*fixture.manager, dir.Path(), "five.bin", 5 * kChunk);
        EXPECT_TRUE(waitUntil([&] { return !fixture.manager->mUploadAcked; }));
        const auto waitStarted = std::chrono::steady_clock::now();
        EXPECT_TRUE(waitUntil([&] { return logger->HasMessage("wait upload timeout, quit upload", kWarning); },
                              kPatience));
        const std::chrono::duration<double> waited = std::chrono::steady_clock::now() - waitStarted;
        EXPECT_TRUE(WaitForWorkerEnd(*logger, "five.bin"));
        EXPECT_TRUE(DrainMainLooper(*fixture.manager));
        return waited.count();
    }

    void ExpectGivenUpQuietly()
    {
        EXPECT_EQ(logger->CountMessage("wait upload timeout, quit upload", kWarning), 1u);
        EXPECT_EQ(logger->CountMessage("waitUpload", kDebug), 1u);
        EXPECT_TRUE(fixture.manager->mUploadFileList.empty());
        EXPECT_FALSE(fixture.manager->IsUploading());
        EXPECT_TRUE(fixture.manager->mQuitUpload);
        // The file is dropped without a failure report.
        EXPECT_EQ(fixture.listener.Count("onFileTransferFailed"), 0u);
        EXPECT_EQ(fixture.listener.Count("onClipboardRelease"), 0u);
    }

};

TEST_F(UnacknowledgedWindowTest, FullWindowWaitsThirtySecondsThenQuits)
{
    fixture.manager->SetUploadWindowsSize(2);
    const double waited = RunUntilGivenUp();

    EXPECT_GE(waited, 29.0);
    EXPECT_EQ(ChunksRead(*logger), 2u);
    EXPECT_EQ(fixture.listener.Count("onSendFileData"), 2u);
    ExpectGivenUpQuietly();
}

TEST_F(UnacknowledgedWindowTest, DefaultWindowQuitsBeforeTheFirstChunk)
{
    const double waited = RunUntilGivenUp();

    EXPECT_GE(waited, 29.0);
    EXPECT_EQ(ChunksRead(*logger), 0u);
    EXPECT_EQ(fixture.listener.Count("onSendFileData"), 0u);
    ExpectGivenUpQuietly();
}

}  // namespace
}  // namespace orin::xfer::test
