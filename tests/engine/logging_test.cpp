// Log statements: one line per statement, handed to the installed sink with
// " \n" appended at the operation of its level, or written unchanged to
// standard output when no sink is installed.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "LoggerInternal.h"
#include "ManagerCoreSupport.h"
#include "TestSupport.h"

namespace orin::xfer::test {
namespace {

using ::testing::ElementsAre;

// A level beyond the six named ones.
constexpr LoggingLevel kBeyondFatal = static_cast<LoggingLevel>(6);

// Captures standard output around a block; the sink slot is emptied first
// so that the fallback is in use.
class StdoutCapture {
public:
    StdoutCapture()
    {
        IFileTransferLogger::SetLogger(nullptr);
        testing::internal::CaptureStdout();
    }
    std::string Take() { return testing::internal::GetCapturedStdout(); }
};

TEST(LogSink, EachLevelReachesItsOwnOperationWithSpaceAndLineFeedAppended)
{
    ScopedCapturingLogger logger;
    LoggerInternal(kVerbose) << "verbose text";
    LoggerInternal(kDebug) << "debug text";
    LoggerInternal(kInfo) << "info text";
    LoggerInternal(kWarning) << "warning text";
    LoggerInternal(kError) << "error text";
    LoggerInternal(kFatal) << "fatal text";

    const std::vector<LogLine> lines = logger->Lines();
    ASSERT_EQ(lines.size(), 6u);
    const char* expected[] = {"verbose text \n", "debug text \n", "info text \n",
                              "warning text \n", "error text \n", "fatal text \n"};
    for (int level = 0; level < 6; ++level) {
        EXPECT_EQ(lines[level].level, level);
        EXPECT_EQ(lines[level].text, expected[level]);
    }
}

TEST(LogSink, LevelNumbersAreFixed)
{
    ScopedCapturingLogger logger;
    EXPECT_EQ(kVerbose, 0);
    EXPECT_EQ(kDebug, 1);
    EXPECT_EQ(kInfo, 2);
    EXPECT_EQ(kWarning, 3);
    EXPECT_EQ(kError, 4);
    EXPECT_EQ(kFatal, 5);
    // The enumeration is unscoped and also reachable through its own name.
    EXPECT_EQ(LoggingLevel::kWarning, kWarning);
}

TEST(LogSink, StreamsTextIntegersPointersAndSixtyFourBitSizesWithoutSeparators)
{
    ScopedCapturingLogger logger;
    const int value = 42;
    const uint64_t big = 1ull << 40;
    const void* pointer = reinterpret_cast<const void*>(static_cast<uintptr_t>(0x1234abcd));
    LoggerInternal(kInfo) << "id = " << value << ", size=" << big << ", at " << pointer << ", neg " << -7;

    const std::vector<LogLine> lines = logger->Lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].text, "id = 42, size=1099511627776, at 0x1234abcd, neg -7 \n");
}

TEST(LogSink, LevelSixIsDroppedWhenASinkIsInstalled)
{
    ScopedCapturingLogger logger;
    LoggerInternal(kBeyondFatal) << "never delivered";
    LoggerInternal(static_cast<LoggingLevel>(100)) << "never delivered either";
    LoggerInternal(kFatal) << "delivered";

    const std::vector<LogLine> lines = logger->Lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].text, "delivered \n");
}

TEST(LogSink, EmptyStatementEmitsNothing)
{
    ScopedCapturingLogger logger;
    { LoggerInternal statement(kInfo); }
    LoggerInternal(kError) << "";
    EXPECT_TRUE(logger->Lines().empty());
}

TEST(LogSink, StatementEndingWithEndlIsDeliveredTwiceWithTheSameText)
{
    ScopedCapturingLogger logger;
    LoggerInternal(kWarning) << "Error opening directory: /x" << std::endl;

    const std::vector<LogLine> lines = logger->Lines();
    ASSERT_EQ(lines.size(), 2u);
    for (const LogLine& line : lines) {
        EXPECT_EQ(line.level, 3);
        EXPECT_EQ(line.text, "Error opening directory: /x\n \n");
    }
}

TEST(LogSink, FlushWithoutLineBreakAlsoDeliversTheTextTwice)
{
    ScopedCapturingLogger logger;
    LoggerInternal(kInfo) << "flushed" << std::flush;
    EXPECT_THAT(MessagesOf(logger->Lines()), ElementsAre("flushed", "flushed"));
}

TEST(LogSink, TextStreamedAfterAFlushIsDeliveredWithWhatCameBefore)
{
    ScopedCapturingLogger logger;
    LoggerInternal(kInfo) << "first" << std::flush << " second";

    const std::vector<LogLine> lines = logger->Lines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].text, "first \n");
    EXPECT_EQ(lines[1].text, "first second \n");
}

TEST(LogSink, ReplacingTheSinkRoutesLaterLinesToTheNewOne)
{
    ScopedCapturingLogger logger;
    auto second = std::make_shared<CapturingLogger>();
    LoggerInternal(kInfo) << "to first";
    IFileTransferLogger::SetLogger(second);
    LoggerInternal(kInfo) << "to second";

    EXPECT_THAT(MessagesOf(logger->Lines()), ElementsAre("to first"));
    EXPECT_THAT(MessagesOf(second->Lines()), ElementsAre("to second"));
}

TEST(LogSink, TheSinkIsSharedAndReleasedWhenReplaced)
{
    ScopedCapturingLogger logger;
    std::weak_ptr<CapturingLogger> watched;
    {
        auto sink = std::make_shared<CapturingLogger>();
        watched = sink;
        IFileTransferLogger::SetLogger(sink);
    }
    // The slot keeps the sink alive after the host dropped its own pointer.
    ASSERT_FALSE(watched.expired());
    LoggerInternal(kDebug) << "kept alive";
    EXPECT_THAT(MessagesOf(watched.lock()->Lines()), ElementsAre("kept alive"));

    IFileTransferLogger::SetLogger(nullptr);
    EXPECT_TRUE(watched.expired());
}

TEST(LogSink, AHostSinkOverridingOneOperationIgnoresTheOthers)
{
    ScopedCapturingLogger logger;
    struct ErrorsOnly : IFileTransferLogger {
        void OnError(const char* line) override { errors.emplace_back(line); }
        std::vector<std::string> errors;
    };
    auto sink = std::make_shared<ErrorsOnly>();
    IFileTransferLogger::SetLogger(sink);
    LoggerInternal(kVerbose) << "v";
    LoggerInternal(kDebug) << "d";
    LoggerInternal(kInfo) << "i";
    LoggerInternal(kWarning) << "w";
    LoggerInternal(kError) << "e";
    LoggerInternal(kFatal) << "f";
    EXPECT_THAT(sink->errors, ElementsAre("e \n"));
}

TEST(LogSink, StatementsOnDifferentThreadsNeverMixWithinALine)
{
    ScopedCapturingLogger logger;
    constexpr int kThreads = 4;
    constexpr int kLinesPerThread = 200;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t] {
            for (int n = 0; n < kLinesPerThread; ++n) {
                LoggerInternal(kDebug) << "thread " << t << " line " << n;
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }

    const std::vector<LogLine> lines = logger->Lines();
    ASSERT_EQ(lines.size(), static_cast<size_t>(kThreads * kLinesPerThread));
    const std::regex shape("thread [0-3] line [0-9]+ \n");
    std::vector<int> perThread(kThreads, 0);
    for (const LogLine& line : lines) {
        ASSERT_TRUE(std::regex_match(line.text, shape)) << line.text;
        ++perThread[line.text[7] - '0'];
    }
    EXPECT_THAT(perThread, ElementsAre(kLinesPerThread, kLinesPerThread, kLinesPerThread, kLinesPerThread));
}

TEST(LogLineFormat, EngineLinesCarryTagFileNameLineNumberAndMessage)
{
    ScopedCapturingLogger logger;
    ManagerFixture fixture;
    logger->Clear();
    fixture.manager->SetSystemType("Linux");

    const std::vector<LogLine> lines = logger->Lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].level, 2);
    const std::regex shape(R"(\[XFERFM\]: OrinFileTransferManager\.cpp:[1-9][0-9]*: mSystemType = Linux \n)");
    EXPECT_TRUE(std::regex_match(lines[0].text, shape)) << lines[0].text;
}

TEST(LogLineFormat, EveryLineOfALifecycleHasTheSameShape)
{
    ScopedCapturingLogger logger;
    {
        ManagerFixture fixture;
        fixture.manager->SetSystemType("Windows");
        fixture.manager->Cancel();
    }
    const std::vector<LogLine> lines = logger->Lines();
    ASSERT_GE(lines.size(), 4u);
    const std::regex shape(R"(\[XFERFM\]: OrinFileTransferManager\.cpp:[1-9][0-9]*: [^\n]* \n)");
    for (const LogLine& line : lines) {
        EXPECT_TRUE(std::regex_match(line.text, shape)) << line.text;
    }
}

TEST(LogLineFormat, DifferentStatementsReportTheirOwnLineNumbers)
{
    ScopedCapturingLogger logger;
    ManagerFixture fixture;
    logger->Clear();
    fixture.manager->SetSystemType("a");
    fixture.manager->Cancel();

    const std::vector<LogLine> lines = logger->Lines();
    ASSERT_GE(lines.size(), 2u);
    const std::regex lineNumber(R"(\[XFERFM\]: OrinFileTransferManager\.cpp:([0-9]+): )");
    std::smatch first;
    std::smatch second;
    ASSERT_TRUE(std::regex_search(lines[0].text, first, lineNumber));
    ASSERT_TRUE(std::regex_search(lines[1].text, second, lineNumber));
    EXPECT_NE(first[1].str(), second[1].str());
}

// Standard output fallback: the sink slot is empty, so nothing captures.

TEST(LogStdoutFallback, TwoStatementsAppearJoinedWithoutALineBreak)
{
    StdoutCapture capture;
    LoggerInternal(kInfo) << "first statement";
    LoggerInternal(kError) << "second statement";
    EXPECT_EQ(capture.Take(), "first statementsecond statement");
}

TEST(LogStdoutFallback, LevelSixStillReachesStandardOutput)
{
    StdoutCapture capture;
    LoggerInternal(kBeyondFatal) << "level six";
    EXPECT_EQ(capture.Take(), "level six");
}

TEST(LogStdoutFallback, EmptyStatementWritesNothing)
{
    StdoutCapture capture;
    { LoggerInternal statement(kWarning); }
    EXPECT_EQ(capture.Take(), "");
}

TEST(LogStdoutFallback, StatementEndingWithEndlIsWrittenTwice)
{
    StdoutCapture capture;
    LoggerInternal(kDebug) << "twice" << std::endl;
    EXPECT_EQ(capture.Take(), "twice\ntwice\n");
}

TEST(LogStdoutFallback, RemovingTheSinkRestoresStandardOutput)
{
    auto sink = std::make_shared<CapturingLogger>();
    IFileTransferLogger::SetLogger(sink);
    LoggerInternal(kInfo) << "to the sink";
    StdoutCapture capture;  // empties the slot
    LoggerInternal(kInfo) << "to stdout";
    EXPECT_EQ(capture.Take(), "to stdout");
    EXPECT_THAT(MessagesOf(sink->Lines()), ElementsAre("to the sink"));
}

TEST(LogStdoutFallback, EngineLinesWithoutASinkGoToStandardOutputUnterminated)
{
    std::unique_ptr<ManagerFixture> fixture;
    {
        ScopedCapturingLogger quietConstruction;
        fixture = std::make_unique<ManagerFixture>();
    }
    StdoutCapture capture;
    fixture->manager->SetSystemType("Mac");
    const std::string out = capture.Take();
    {
        ScopedCapturingLogger quietTeardown;
        fixture.reset();
    }
    const std::regex shape(R"(\[XFERFM\]: OrinFileTransferManager\.cpp:[1-9][0-9]*: mSystemType = Mac)");
    EXPECT_TRUE(std::regex_match(out, shape)) << out;
}

}  // namespace
}  // namespace orin::xfer::test
