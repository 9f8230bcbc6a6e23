// A large file streams through a window of 50 chunks with a host that
// acknowledges every window, without ever running into the 30-second wait.
#include <gtest/gtest.h>

#include "TestSupport.h"
#include "UploadSupport.h"

namespace orin::xfer::test {
namespace {

TEST(UploadLargeFile, HundredMebibytesStreamWithoutStallAndMatchTheSource)
{
    ScopedCapturingLogger logger;
    OrinFileTransferManager::mTaskId = 1;
    TempDir dir;
    ManagerFixture fixture;
    const size_t size = size_t{100} * 1024 * 1024;
    const size_t chunks = ChunkCountFor(size);
    const uint32_t window = 50;

    fixture.manager->SetUploadWindowsSize(window);
    fixture.listener.copyData = false;
    AcknowledgingHost host(*fixture.manager, fixture.listener, window, chunks);

    const auto started = std::chrono::steady_clock::now();
    const uint32_t transferId = StartPatternUpload(*fixture.manager, dir.Path(), "large.bin", size);
    ASSERT_EQ(transferId, 3u);

    ASSERT_TRUE(waitUntil([&] { return host.Chunks() == chunks; }, std::chrono::seconds(20)))
        << host.Chunks() << " of " << chunks << " chunks";
    EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(20));
    ASSERT_TRUE(WaitForWorkerEnd(*logger, "large.bin"));
    ASSERT_TRUE(DrainMainLooper(*fixture.manager));

    EXPECT_EQ(host.Chunks(), chunks);
    EXPECT_EQ(host.Bytes(), size);
    EXPECT_EQ(host.Hash(), HashBytes(ReadBytes(dir.Join("large.bin"))));
    EXPECT_TRUE(host.SingleDeliveryThread());
    EXPECT_TRUE(fixture.journal->IsThreadOf("<main>", host.DeliveryThread()));
    // A wait at every window boundary that had data behind it, each ended
    // by an acknowledgement rather than by the time-out.
    EXPECT_EQ(logger->CountMessage("waitUpload", kDebug), chunks / window - 1);
    EXPECT_TRUE(logger->WithMessagePrefix("wait upload timeout").empty());
    EXPECT_EQ(fixture.listener.Count("onFileTransferFailed"), 0u);
}

}  // namespace
}  // namespace orin::xfer::test
