// The bandwidth brake of the upload worker and its use of the host's limiter.
#include <gtest/gtest.h>

#include <future>
#include <limits>

#include "TestSupport.h"
#include "UploadSupport.h"

namespace orin::xfer::test {
namespace {

constexpr size_t kChunk = 65536;
// A full chunk then costs exactly 20 ms.
constexpr int64_t kTwentyMsPerChunk = int64_t{65536} * 8000 / 20;

std::vector<std::string> NamesOf(const std::vector<RateLimiterCall>& calls)
{
    std::vector<std::string> names;
    for (const auto& call : calls) {
        if (call.name != "SetBandwidth") {
            names.push_back(call.name);
        }
    }
    return names;
}

class FlowControlTest : public UploadTest {
protected:
    FlowControlTest() : UploadTest(true) {}

    void SetUp() override
    {
        UploadTest::SetUp();
        fixture.manager->SetUploadWindowsSize(100000);
    }
};

TEST_F(FlowControlTest, EachLaterChunkWaitsForThePreviousOnesShare)
{
    fixture.limiter->bandwidthOverride = kTwentyMsPerChunk;
    StartPatternUpload(*fixture.manager, dir.Path(), "f.bin", 2 * kChunk + 1000);
    Finish("f.bin");

    EXPECT_TRUE(fixture.listener.SentBytes(3) == ReadBytes(dir.Join("f.bin")));
    EXPECT_EQ(logger->CountMessage("delayUpload, time: 20", kDebug), 2u);
    EXPECT_EQ(NamesOf(fixture.limiter->Calls()),
              (std::vector<std::string>{"Consume", "GetBandwidth", "Acquire", "Consume", "GetBandwidth", "Acquire",
                                        "Consume"}));
    const auto acquired = fixture.limiter->CallsNamed("Acquire");
    const auto consumed = fixture.limiter->CallsNamed("Consume");
    ASSERT_EQ(acquired.size(), 2u);
    ASSERT_EQ(consumed.size(), 3u);
    EXPECT_EQ(acquired[0].value, kChunk);
    EXPECT_EQ(acquired[1].value, kChunk);
    EXPECT_EQ(consumed[0].value, kChunk);
    EXPECT_EQ(consumed[1].value, kChunk);
    EXPECT_EQ(consumed[2].value, 1000u);
    // The admission time is taken before the delay, the consumption after.
    EXPECT_GE(consumed[1].nowMs - acquired[0].nowMs, 19);
    EXPECT_GE(consumed[2].nowMs - acquired[1].nowMs, 19);
}

TEST_F(FlowControlTest, FirstChunkIsNeverDelayed)
{
    // So slow that any delay would outlast the test.
    fixture.limiter->bandwidthOverride = 1;
    StartPatternUpload(*fixture.manager, dir.Path(), "one.bin", kChunk);
    Finish("one.bin");

    EXPECT_EQ(fixture.listener.Count("onSendFileData"), 1u);
    EXPECT_TRUE(logger->WithMessagePrefix("delayUpload").empty());
    EXPECT_EQ(NamesOf(fixture.limiter->Calls()), std::vector<std::string>{"Consume"});
}

TEST_F(FlowControlTest, RefusedAdmissionRepeatsDelayAndCheck)
{
    fixture.limiter->bandwidthOverride = kTwentyMsPerChunk;
    fixture.limiter->QueueAcquireAnswers({false, true});
    StartPatternUpload(*fixture.manager, dir.Path(), "two.bin", 2 * kChunk);
    Finish("two.bin");

    EXPECT_TRUE(fixture.listener.SentBytes(3) == ReadBytes(dir.Join("two.bin")));
    EXPECT_EQ(fixture.listener.Count("onSendFileData"), 2u);
    EXPECT_EQ(logger->CountMessage("delayUpload, time: 20", kDebug), 2u);
    EXPECT_EQ(NamesOf(fixture.limiter->Calls()),
              (std::vector<std::string>{"Consume", "GetBandwidth", "Acquire", "GetBandwidth", "Acquire", "Consume"}));
    const auto acquired = fixture.limiter->CallsNamed("Acquire");
    ASSERT_EQ(acquired.size(), 2u);
    EXPECT_EQ(acquired[0].value, kChunk);
    EXPECT_EQ(acquired[1].value, kChunk);
    // A fresh time for the repeat, after the second delay.
    EXPECT_GE(acquired[1].nowMs - acquired[0].nowMs, 19);
}

TEST_F(FlowControlTest, ZeroBandwidthLogsTheLargestDelayButDoesNotSleep)
{
    fixture.limiter->bandwidthOverride = 0;
    StartPatternUpload(*fixture.manager, dir.Path(), "z.bin", 2 * kChunk);
    Finish("z.bin");

    EXPECT_EQ(fixture.listener.Count("onSendFileData"), 2u);
    EXPECT_EQ(logger->CountMessage("delayUpload, time: 18446744073709551615", kDebug), 1u);
    EXPECT_EQ(fixture.limiter->Count("Acquire"), 1u);
}

TEST_F(FlowControlTest, TurnedOffMeansConsumeOnly)
{
    fixture.manager->SetFlowControl(false);
    fixture.limiter->bandwidthOverride = 1;
    StartPatternUpload(*fixture.manager, dir.Path(), "off.bin", 3 * kChunk);
    Finish("off.bin");

    EXPECT_EQ(fixture.listener.Count("onSendFileData"), 3u);
    EXPECT_TRUE(logger->WithMessagePrefix("delayUpload").empty());
    EXPECT_EQ(NamesOf(fixture.limiter->Calls()), (std::vector<std::string>{"Consume", "Consume", "Consume"}));
}

TEST(FlowControlNoLimiter, StreamsWithoutABrake)
{
    ScopedCapturingLogger logger;
    OrinFileTransferManager::mTaskId = 1;
    TempDir dir;
    ManagerFixture fixture(true, false);
    fixture.manager->SetUploadWindowsSize(100);
    StartPatternUpload(*fixture.manager, dir.Path(), "n.bin", 3 * kChunk);
    ASSERT_TRUE(WaitForWorkerEnd(*logger, "n.bin"));
    ASSERT_TRUE(fixture.listener.WaitForCount("onSendFileData", 3));
    EXPECT_TRUE(fixture.listener.SentBytes(3) == ReadBytes(dir.Join("n.bin")));
    EXPECT_TRUE(logger->WithMessagePrefix("delayUpload").empty());
}

// ---------------------------------------------------------------------------
// The delay itself

class DelayTest : public ::testing::Test {
protected:
    ScopedCapturingLogger logger;
    ManagerFixture fixture;
};

TEST_F(DelayTest, ZeroNeitherLogsNorTakesTheUploadLock)
{
    std::unique_lock<std::mutex> held(fixture.manager->mUploadMutex);
    auto delayed = std::async(std::launch::async, [&] { fixture.manager->delayUpload(0); });
    EXPECT_EQ(delayed.wait_for(std::chrono::seconds(10)), std::future_status::ready);
    held.unlock();
    EXPECT_TRUE(logger->WithMessagePrefix("delayUpload").empty());
}

TEST_F(DelayTest, NonZeroLogsAndSleepsUnderTheUploadLock)
{
    std::atomic<bool> released{false};
    std::unique_lock<std::mutex> held(fixture.manager->mUploadMutex);
    auto delayed = std::async(std::launch::async, [&] {
        fixture.manager->delayUpload(5);
        return released.load();
    });
    const bool logged = waitUntil([&] { return logger->HasMessage("delayUpload, time: 5", kDebug); });
    released = true;
    held.unlock();
    EXPECT_TRUE(logged);
    ASSERT_EQ(delayed.wait_for(std::chrono::seconds(10)), std::future_status::ready);
    EXPECT_TRUE(delayed.get());
}

TEST_F(DelayTest, ValuesBeyondTheSignedRangeAreLoggedButNotSlept)
{
    for (const uint64_t value : {std::numeric_limits<uint64_t>::max(), uint64_t{1} << 63}) {
        auto delayed = std::async(std::launch::async, [&] { fixture.manager->delayUpload(value); });
        EXPECT_EQ(delayed.wait_for(std::chrono::seconds(10)), std::future_status::ready) << value;
        EXPECT_EQ(logger->CountMessage("delayUpload, time: " + std::to_string(value), kDebug), 1u);
    }
}

TEST_F(DelayTest, QuitCutsALongDelayShort)
{
    auto delayed = std::async(std::launch::async, [&] { fixture.manager->delayUpload(60 * 60 * 1000); });
    ASSERT_TRUE(waitUntil([&] { return logger->HasMessage("delayUpload, time: 3600000", kDebug); }));
    fixture.manager->quitUploadThread();
    EXPECT_EQ(delayed.wait_for(std::chrono::seconds(10)), std::future_status::ready);
}

}  // namespace
}  // namespace orin::xfer::test
