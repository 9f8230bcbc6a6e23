// What the tool says is exact: usage errors name the program and show the
// usage line, engine log lines stay off unless asked for, `send HOST`
// takes serve's default port, a full disk is named as such and counts as
// the destination's failure.
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <unistd.h>

#include "TestSupport.h"
#include "ToolExitCodes.h"
#include "ToolRunner.h"
#include "TreeBuilders.h"
#include "TreeCompare.h"

namespace orin::xfer::test {
namespace {

using namespace orin::xfer::test;

TEST(ExactMessages, UsageErrorNamesTheProgramAndShowsTheUsageLine)
{
    const ToolResult result = runTool({"copy"});

    EXPECT_EQ(result.exitCode, toInt(cli::ExitCode::kUsage)) << describe(result);
    EXPECT_EQ(result.err.rfind("xferfm copy: ", 0), 0u) << result.err;
    EXPECT_NE(result.err.find("Usage: xferfm copy [OPTIONS] SOURCE... DEST_DIR"), std::string::npos) << result.err;
    EXPECT_EQ(result.err.find("paths is required"), std::string::npos) << result.err;
}

TEST(ExactMessages, UnknownCommandNamesTheProgram)
{
    const ToolResult result = runTool({"paste"});

    EXPECT_EQ(result.exitCode, toInt(cli::ExitCode::kUsage)) << describe(result);
    EXPECT_EQ(result.err.rfind("xferfm: ", 0), 0u) << result.err;
    EXPECT_NE(result.err.find("Usage: xferfm COMMAND"), std::string::npos) << result.err;
}

TEST(ExactMessages, EngineLogLinesAreOffByDefault)
{
    TempDir work;
    makeDirectory(work.Join("tree"));
    writePatternFile(work.Join("tree/a.bin"), 200000, 1);
    makeDirectory(work.Join("out"));

    const ToolResult quiet = runTool({"copy", "--no-progress", work.Join("tree"), work.Join("out")});
    const ToolResult chatty =
        runTool({"copy", "--no-progress", "--log-level", "0", work.Join("tree"), work.Join("out")});

    ASSERT_EQ(quiet.exitCode, toInt(cli::ExitCode::kOk)) << describe(quiet);
    EXPECT_EQ(quiet.err.find("[XFERFM]"), std::string::npos) << quiet.err;
    ASSERT_EQ(chatty.exitCode, toInt(cli::ExitCode::kOk)) << describe(chatty);
    EXPECT_NE(chatty.err.find("[XFERFM]"), std::string::npos) << "--log-level 0 shows the engine's lines";
}

TEST(ExactMessages, SendToAHostWithoutPortIsNotAUsageError)
{
    TempDir work;
    writeTextFile(work.Join("a.txt"), "a\n");

    RunOptions options;
    options.timeout = std::chrono::seconds(60);
    const ToolResult result = runTool({"send", "--no-progress", "127.0.0.1", work.Join("a.txt")}, options);

    EXPECT_NE(result.exitCode, toInt(cli::ExitCode::kUsage)) << describe(result);
}

// A small file system of its own, so that the disk can really run full.
class SmallDisk : public ::testing::Test {
protected:
    void SetUp() override
    {
        destination = work.Join("small");
        makeDirectory(destination);
        if (::geteuid() != 0 || ::mount("tmpfs", destination.c_str(), "tmpfs", 0, "size=512k") != 0) {
            GTEST_SKIP() << "a full disk needs a small tmpfs, which only root can mount here";
        }
        mounted = true;
    }
    void TearDown() override
    {
        if (mounted) {
            ::umount2(destination.c_str(), MNT_DETACH);
        }
    }

    TempDir work;
    std::string destination;
    bool mounted = false;
};

TEST_F(SmallDisk, AFullDiskIsNamedAndIsTheDestinationsFailure)
{
    makeDirectory(work.Join("tree"));
    writePatternFile(work.Join("tree/big.bin"), 3u << 20, 7);

    const ToolResult result = runTool({"copy", "--no-progress", work.Join("tree"), destination});

    EXPECT_EQ(result.exitCode, toInt(cli::ExitCode::kDestinationUnusable)) << describe(result);
    EXPECT_NE(result.err.find("No space left on device"), std::string::npos) << result.err;
    EXPECT_TRUE(LeftoverCaches(destination).empty());
}

}  // namespace
}  // namespace orin::xfer::test
