// The small setters, the transfer-id counter and the UTF-8 helper.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

#include "ManagerCoreSupport.h"
#include "TestSupport.h"

namespace orin::xfer::test {
namespace {

using ::testing::ElementsAre;

std::vector<uint64_t> BandwidthValues(const RecordingRateLimiter& limiter)
{
    std::vector<uint64_t> values;
    for (const RateLimiterCall& call : limiter.CallsNamed("SetBandwidth")) {
        values.push_back(call.value);
    }
    return values;
}

TEST(SetBandwidth, ZeroIsStoredAndLeavesTheLimiterAlone)
{
    ScopedCapturingLogger logger;
    ManagerFixture fixture;
    fixture.manager->SetBandwidth(300);
    fixture.manager->SetBandwidth(0);
    EXPECT_EQ(fixture.manager->mBandwidth, 0u);
    EXPECT_THAT(BandwidthValues(*fixture.limiter), ElementsAre(50000000u, 300000u));
    EXPECT_EQ(fixture.limiter->Calls().size(), 2u);
}

TEST(SetBandwidth, KilobitsAreHandedToTheLimiterTimesOneThousand)
{
    ScopedCapturingLogger logger;
    ManagerFixture fixture;
    logger->Clear();
    fixture.manager->SetBandwidth(5000);
    EXPECT_EQ(fixture.manager->mBandwidth, 5000u);
    EXPECT_THAT(BandwidthValues(*fixture.limiter), ElementsAre(50000000u, 5000000u));
    EXPECT_TRUE(logger->Lines().empty());
}

TEST(SetBandwidth, TheProductIsTakenInThirtyTwoBits)
{
    ScopedCapturingLogger logger;
    ManagerFixture fixture;
    fixture.manager->SetBandwidth(4294967);     // 4,294,967,000 still fits
    fixture.manager->SetBandwidth(4294968);     // 4,294,968,000 wraps to 704
    fixture.manager->SetBandwidth(0xFFFFFFFF);  // wraps to 2^32 - 1000
    EXPECT_EQ(fixture.manager->mBandwidth, 0xFFFFFFFFu);
    EXPECT_THAT(BandwidthValues(*fixture.limiter), ElementsAre(50000000u, 4294967000u, 704u, 4294966296u));
}

TEST(SetBandwidth, WithoutALimiterOnlyStoresTheValue)
{
    ScopedCapturingLogger logger;
    ManagerFixture fixture(false, false);
    ASSERT_EQ(fixture.manager->mRateLimiter, nullptr);
    fixture.manager->SetBandwidth(5000);
    EXPECT_EQ(fixture.manager->mBandwidth, 5000u);
    fixture.manager->SetBandwidth(0);
    EXPECT_EQ(fixture.manager->mBandwidth, 0u);
}

TEST(SetFlowControl, StoresTheFlagAndDoesNothingElse)
{
    ScopedCapturingLogger logger;
    ManagerFixture fixture(false);
    logger->Clear();
    fixture.manager->SetFlowControl(true);
    EXPECT_TRUE(fixture.manager->mFlowControl);
    fixture.manager->SetFlowControl(false);
    EXPECT_FALSE(fixture.manager->mFlowControl);
    EXPECT_TRUE(logger->Lines().empty());
    EXPECT_EQ(fixture.limiter->Calls().size(), 1u);
    EXPECT_TRUE(fixture.listener.Events().empty());
}

TEST(SetSystemType, StoresTheValueAndLogsItAtLevelTwo)
{
    ScopedCapturingLogger logger;
    ManagerFixture fixture;
    logger->Clear();
    fixture.manager->SetSystemType("Windows");
    EXPECT_EQ(fixture.manager->mSystemType, "Windows");
    fixture.manager->SetSystemType("");
    EXPECT_EQ(fixture.manager->mSystemType, "");

    const std::vector<LogLine> lines = logger->Lines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].level, 2);
    EXPECT_EQ(MessageOf(lines[0].text), "mSystemType = Windows");
    EXPECT_EQ(lines[1].level, 2);
    EXPECT_EQ(MessageOf(lines[1].text), "mSystemType = ");
}

TEST(GetTaskId, FirstIdIsThreeThenFive)
{
    ScopedCapturingLogger logger;
    ManagerFixture fixture;
    OrinFileTransferManager::mTaskId = 1;
    EXPECT_EQ(fixture.manager->getTaskId(), 3u);
    EXPECT_EQ(fixture.manager->getTaskId(), 5u);
    EXPECT_EQ(OrinFileTransferManager::mTaskId.load(), 5u);
}

TEST(GetTaskId, TheCounterIsSharedByEveryManager)
{
    ScopedCapturingLogger logger;
    ManagerFixture first;
    ManagerFixture second;
    OrinFileTransferManager::mTaskId = 1;
    EXPECT_EQ(first.manager->getTaskId(), 3u);
    EXPECT_EQ(second.manager->getTaskId(), 5u);
    EXPECT_EQ(first.manager->getTaskId(), 7u);
}

TEST(GetTaskId, IdsStayOddAndWrapInThirtyTwoBits)
{
    ScopedCapturingLogger logger;
    ManagerFixture fixture;
    OrinFileTransferManager::mTaskId = 0xFFFFFFFD;
    EXPECT_EQ(fixture.manager->getTaskId(), 0xFFFFFFFFu);
    EXPECT_EQ(fixture.manager->getTaskId(), 1u);
    EXPECT_EQ(fixture.manager->getTaskId(), 3u);
}

TEST(GetTaskId, ConcurrentCallersNeverLoseAnIncrement)
{
    ScopedCapturingLogger logger;
    ManagerFixture fixture;
    OrinFileTransferManager::mTaskId = 1;
    constexpr int kThreads = 4;
    constexpr int kCalls = 1000;
    std::vector<std::thread> threads;
    std::atomic<bool> allOdd{true};
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < kCalls; ++i) {
                if ((fixture.manager->getTaskId() & 1u) == 0) {
                    allOdd = false;
                }
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_TRUE(allOdd);
    EXPECT_EQ(OrinFileTransferManager::mTaskId.load(), 1u + 2u * kThreads * kCalls);
}

TEST(Utf8ToWstring, ConvertsOneToFourByteSequences)
{
    ScopedCapturingLogger logger;
    ManagerFixture fixture;
    auto& m = *fixture.manager;
    EXPECT_EQ(m.utf8ToWstring(""), L"");
    EXPECT_EQ(m.utf8ToWstring("plain.txt"), L"plain.txt");
    EXPECT_EQ(m.utf8ToWstring("caf\xC3\xA9"), std::wstring(L"caf") + wchar_t(0xE9));
    EXPECT_EQ(m.utf8ToWstring("\xE2\x82\xAC"), std::wstring(1, wchar_t(0x20AC)));
    EXPECT_EQ(m.utf8ToWstring("\xE6\x96\x87\xE4\xBB\xB6"), (std::wstring{wchar_t(0x6587), wchar_t(0x4EF6)}));
    EXPECT_EQ(m.utf8ToWstring("\xF0\x9F\x98\x80"), std::wstring(1, wchar_t(0x1F600)));
    EXPECT_EQ(m.utf8ToWstring("\xF4\x8F\xBF\xBF"), std::wstring(1, wchar_t(0x10FFFF)));
    EXPECT_EQ(m.utf8ToWstring("a\xC3\xA9\xF0\x9F\x98\x80z"),
              (std::wstring{L'a', wchar_t(0xE9), wchar_t(0x1F600), L'z'}));
    EXPECT_TRUE(logger->WithMessagePrefix("utf8").empty());
}

// Expects the converter's own error for malformed input.
void ExpectConversionError(OrinFileTransferManager& manager, const std::string& bytes)
{
    try {
        manager.utf8ToWstring(bytes);
        ADD_FAILURE() << "no error for malformed input of " << bytes.size() << " bytes";
    } catch (const std::range_error& error) {
        EXPECT_STREQ(error.what(), "wstring_convert: from_bytes error");
    }
}

TEST(Utf8ToWstring, InvalidContinuationThrowsRangeError)
{
    ScopedCapturingLogger logger;
    ManagerFixture fixture;
    ExpectConversionError(*fixture.manager, "\xC3\x28");
    EXPECT_THROW(fixture.manager->utf8ToWstring("\xC3\x28"), std::range_error);
}

TEST(Utf8ToWstring, TruncatedSequencesThrow)
{
    ScopedCapturingLogger logger;
    ManagerFixture fixture;
    ExpectConversionError(*fixture.manager, "\xC3");
    ExpectConversionError(*fixture.manager, "ab\xE2\x82");
    ExpectConversionError(*fixture.manager, "\xF0\x9F\x98");
}

TEST(Utf8ToWstring, StrayBytesAndCodePointsBeyondTheRangeThrow)
{
    ScopedCapturingLogger logger;
    ManagerFixture fixture;
    ExpectConversionError(*fixture.manager, "\x80");
    ExpectConversionError(*fixture.manager, "a\xFFz");
    ExpectConversionError(*fixture.manager, "\xF4\x90\x80\x80");
}

}  // namespace
}  // namespace orin::xfer::test
