// Ctrl-C (SIGINT) and SIGTERM stop a copy cleanly: exit code 130, the cache
// removed, nothing half-written under a final name in DEST_DIR, what was
// there before untouched. A second Ctrl-C quits at once, also after
// removing the cache.
#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>

#include "ToolExitCodes.h"
#include "TestSupport.h"
#include "ToolRunner.h"
#include "TreeBuilders.h"
#include "TreeCompare.h"

namespace orin::xfer::test {
namespace {

using namespace orin::xfer::test;

class Interrupt : public ::testing::Test {
protected:
    void SetUp() override
    {
        source = work.Join("source");
        destination = work.Join("destination");
        makeDirectory(source);
        makeDirectory(destination);
        makeDirectory(source + "/tree");
        writeTextFile(source + "/tree/a-small.txt", "small\n");
        // 32 MiB at 40 Mbit/s takes about 6.7 s: ample time to interrupt.
        writePatternFile(source + "/tree/big.bin", 32ull * 1024 * 1024, 1);
        writeTextFile(destination + "/already here.txt", "keep me\n");
    }

    // Sends `signals`, `gap` apart, once data of the copy is in its cache.
    ToolResult copyAndInterrupt(std::vector<int> signals, std::chrono::milliseconds gap)
    {
        RunOptions options;
        options.timeout = std::chrono::seconds(60);
        auto nextAt = std::chrono::steady_clock::time_point::min();
        size_t sent = 0;
        options.whileRunning = [&](pid_t child) {
            if (sent == 0) {
                const std::vector<std::string> caches = LeftoverCaches(destination);
                if (caches.empty() || BytesUnder(caches.front()) < 1024 * 1024) {
                    return true;  // the large file is not under way yet
                }
            }
            const auto now = std::chrono::steady_clock::now();
            if (now >= nextAt) {
                ::kill(child, signals[sent++]);
                nextAt = now + gap;
            }
            return sent < signals.size();
        };
        return runTool({"copy", "--no-progress", "--bandwidth", "40000", source + "/tree", destination}, options);
    }

    void expectNothingHalfWritten()
    {
        EXPECT_TRUE(LeftoverCaches(destination).empty()) << ::testing::PrintToString(LeftoverCaches(destination));
        EXPECT_EQ(readTextFile(destination + "/already here.txt"), "keep me\n");
        EXPECT_FALSE(exists(destination + "/tree/big.bin")) << "the interrupted file must not be in place";
        EXPECT_TRUE(IncompleteCopies(source + "/tree", destination + "/tree").empty())
            << ::testing::PrintToString(IncompleteCopies(source + "/tree", destination + "/tree"));
    }

    TempDir work;
    std::string source;
    std::string destination;
};

TEST_F(Interrupt, CtrlCCancelsCleanly)
{
    const ToolResult result = copyAndInterrupt({SIGINT}, std::chrono::milliseconds(0));

    EXPECT_EQ(result.exitCode, toInt(cli::ExitCode::kInterrupted)) << describe(result);
    EXPECT_LT(result.seconds, 5.0) << "a cancel must not wait for the rest of the transfer";
    EXPECT_NE(result.err.find("interrupted"), std::string::npos) << result.err;
    expectNothingHalfWritten();
}

TEST_F(Interrupt, SigtermCancelsCleanly)
{
    const ToolResult result = copyAndInterrupt({SIGTERM}, std::chrono::milliseconds(0));

    EXPECT_EQ(result.exitCode, toInt(cli::ExitCode::kInterrupted)) << describe(result);
    expectNothingHalfWritten();
}

TEST_F(Interrupt, SecondCtrlCQuitsAtOnceAndStillRemovesTheCache)
{
    const ToolResult result = copyAndInterrupt({SIGINT, SIGINT}, std::chrono::milliseconds(1));

    EXPECT_EQ(result.exitCode, toInt(cli::ExitCode::kInterrupted)) << describe(result);
    expectNothingHalfWritten();
}

}  // namespace
}  // namespace orin::xfer::test
