#include <atomic>
#include <chrono>
#include <string>

#include <gtest/gtest.h>

#include "CopySession.h"
#include "HostTestSupport.h"
#include "IFileTransferManager.h"
#include "TestSupport.h"
#include "xferfm/host/ThreadLooperFactory.h"
#include "xferfm/host/TokenBucketRateLimiter.h"

namespace orin::xfer::host {
namespace {

using orin::xfer::test::PatternBytes;
using orin::xfer::test::TempDir;
using orin::xfer::test::waitUntil;
using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

constexpr uint64_t kChunk = 65536;

class ByteCounter : public FileTransferListener {
public:
    void onSendFileData(uint32_t, uint32_t, const uint8_t*, int64_t size) override
    {
        bytes += static_cast<uint64_t>(size);
        lastByte = Clock::now();
    }
    std::atomic<uint64_t> bytes{0};
    std::atomic<Clock::time_point> lastByte{};
};

// Seconds the configured rate needs for `bytes`.
double impliedSeconds(uint64_t bytes, uint64_t kbps)
{
    return static_cast<double>(bytes) * 8.0 / (static_cast<double>(kbps) * 1000.0);
}

TEST(RateLimitedUpload, AnEngineUploadKeepsToTheConfiguredBandwidth)
{
    test::QuietEngineLog quiet;
    constexpr uint64_t kSize = 20u << 20;
    constexpr uint32_t kKbps = 80000;  // 10 MB/s: 6.55 ms per chunk, which the engine sleeps as 6 ms
    TempDir scratch;
    orin::xfer::test::WriteBytes(scratch.Join("payload.bin"), PatternBytes(kSize, 5));

    ByteCounter counter;
    auto manager = IFileTransferManager::NewInstance(&counter, std::make_unique<ThreadLooperFactory>(), true,
                                                     std::make_unique<TokenBucketRateLimiter>());
    manager->SetBandwidth(kKbps);
    manager->SetUploadWindowsSize(0xFFFFFFFF);  // never reached: no acknowledgement waits
    FileDescription entry;
    entry.sourceDir = scratch.Path();
    entry.fileName = "payload.bin";
    entry.destFileName = "payload.bin";
    entry.attribute = kAttributeNormal;
    entry.fileSize = kSize;
    manager->TriggerLocalCopy({entry});
    std::multimap<std::string, std::string> records;
    bool listEmpty = false;
    const uint32_t transferId = manager->UploadFiles(1, kSize, "", records, listEmpty);
    ASSERT_NE(transferId, 0xFFFFFFFFu);

    const auto start = Clock::now();
    manager->ProcessFileUploadData(transferId);
    ASSERT_TRUE(waitUntil([&] { return counter.bytes == kSize; }, 30s));
    const double elapsed = std::chrono::duration<double>(counter.lastByte.load() - start).count();
    manager.reset();

    // At most the first chunk and one chunk of burst go ahead of the rate.
    EXPECT_GE(elapsed, impliedSeconds(kSize - 2 * kChunk, kKbps));
    EXPECT_LE(elapsed / impliedSeconds(kSize, kKbps), 1.15);
}

TEST(RateLimitedUpload, ACopyThroughTheEndpointsKeepsToTheConfiguredBandwidth)
{
    test::QuietEngineLog quiet;
    constexpr uint64_t kSize = 12u << 20;
    constexpr uint32_t kKbps = 50000;
    TempDir scratch;
    test::MakeDirectory(scratch.Join("src"));
    test::MakeDirectory(scratch.Join("dest"));
    orin::xfer::test::WriteBytes(scratch.Join("src/payload.bin"), PatternBytes(kSize, 6));

    test::CopySessionOptions options;
    options.sender.bandwidthKbps = kKbps;
    test::CopySession copy(scratch.Join("dest"), options);
    std::string error;
    const auto start = Clock::now();
    ASSERT_TRUE(copy.Begin({scratch.Join("src/payload.bin")}, error)) << error;
    ASSERT_TRUE(copy.WaitBoth(30s));
    const double elapsed = std::chrono::duration<double>(Clock::now() - start).count();
    ASSERT_TRUE(copy.receiver->Summary().completed) << copy.receiver->Summary().error;
    EXPECT_GE(elapsed, impliedSeconds(kSize - 2 * kChunk, kKbps));
    EXPECT_LE(elapsed / impliedSeconds(kSize, kKbps), 1.15);
}

}  // namespace
}  // namespace orin::xfer::host
