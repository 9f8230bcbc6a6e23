// `xferfm copy` operands that name another machine, as the binary sees
// them: which copies are refused before anything starts, and that a local
// name with a colon stays local.
#include <gtest/gtest.h>

#include "TempDir.h"
#include "ToolExitCodes.h"
#include "ToolRunner.h"
#include "TreeBuilders.h"
#include "TreeCompare.h"

namespace orin::xfer::test {
namespace {

TEST(CopyRemoteUsage, RemoteToRemoteIsRefusedWithAUsageError)
{
    const ToolResult result = runTool({"copy", "one:a", "two:b"});

    EXPECT_EQ(result.exitCode, toInt(cli::ExitCode::kUsage)) << describe(result);
    EXPECT_NE(result.err.find("cannot copy from one remote host to another"), std::string::npos) << result.err;
}

TEST(CopyRemoteUsage, OptionsOfALocalCopyOnlyAreRefusedWithARemoteSide)
{
    TempDir scratch;
    writeTextFile(scratch.Join("a.txt"), "a\n");

    const ToolResult result = runTool({"copy", "--dry-run", scratch.Join("a.txt"), "backup:in"});

    EXPECT_EQ(result.exitCode, toInt(cli::ExitCode::kUsage)) << describe(result);
    EXPECT_NE(result.err.find("--dry-run is not available when DEST_DIR is on another machine (backup)"),
              std::string::npos)
        << result.err;
}

TEST(CopyRemoteUsage, ARemoteShellThatCannotBeRunIsAFarSideThatCouldNotStart)
{
    TempDir scratch;
    writeTextFile(scratch.Join("a.txt"), "a\n");

    const ToolResult result = runTool({"copy", "-e", "/nonexistent/ssh -p 22", scratch.Join("a.txt"), "backup:in"});

    EXPECT_EQ(result.exitCode, toInt(cli::ExitCode::kRemoteUnavailable)) << describe(result);
    EXPECT_NE(result.err.find("cannot run the remote shell '/nonexistent/ssh'"), std::string::npos) << result.err;
}

TEST(CopyRemoteUsage, AnUnclosedQuoteInTheRemoteShellIsAUsageError)
{
    const ToolResult result = runTool({"copy", "-e", "ssh -i 'my key", "a", "backup:in"});

    EXPECT_EQ(result.exitCode, toInt(cli::ExitCode::kUsage)) << describe(result);
}

TEST(CopyRemoteUsage, ANameWithAColonAfterASlashIsCopiedLocally)
{
    TempDir scratch;
    makeDirectory(scratch.Join("dest"));
    writeTextFile(scratch.Join("a:b.txt"), "colon\n");

    RunOptions inScratch;
    inScratch.workingDir = scratch.Path();
    const ToolResult result = runTool({"copy", "--no-progress", "./a:b.txt", "dest"}, inScratch);

    EXPECT_EQ(result.exitCode, toInt(cli::ExitCode::kOk)) << describe(result);
    EXPECT_EQ(readTextFile(scratch.Join("dest/a:b.txt")), "colon\n");
}

}  // namespace
}  // namespace orin::xfer::test
