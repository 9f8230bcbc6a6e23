// --help, --version, usage errors and the demo command.
#include <gtest/gtest.h>

#include "ToolExitCodes.h"
#include "TestSupport.h"
#include "ToolRunner.h"
#include "TreeBuilders.h"
#include "TreeCompare.h"

#ifndef XFERFM_EXPECTED_VERSION
#error "XFERFM_EXPECTED_VERSION must come from the build"
#endif

namespace orin::xfer::test {
namespace {

using namespace orin::xfer::test;

TEST(CommandLine, VersionIsTheProjectVersion)
{
    const ToolResult result = runTool({"--version"});

    EXPECT_EQ(result.exitCode, toInt(cli::ExitCode::kOk)) << describe(result);
    EXPECT_EQ(result.out, std::string("xferfm ") + XFERFM_EXPECTED_VERSION + "\n");
}

TEST(CommandLine, HelpListsTheCommandsAndTheExitCodes)
{
    const ToolResult result = runTool({"--help"});

    EXPECT_EQ(result.exitCode, toInt(cli::ExitCode::kOk)) << describe(result);
    for (const char* expected : {"copy", "demo", "--version", "Exit codes", "130"}) {
        EXPECT_NE(result.out.find(expected), std::string::npos) << expected << " missing from:\n" << result.out;
    }
}

TEST(CommandLine, CopyHelpDescribesEveryOption)
{
    const ToolResult result = runTool({"copy", "--help"});

    EXPECT_EQ(result.exitCode, toInt(cli::ExitCode::kOk)) << describe(result);
    for (const char* expected : {"--bandwidth", "--window", "--verify", "--log-level", "--no-progress",
                                 "DEST_DIR", "Exit codes"}) {
        EXPECT_NE(result.out.find(expected), std::string::npos) << expected << " missing from:\n" << result.out;
    }
}

TEST(CommandLine, UsageErrorsExitWithTwo)
{
    TempDir work;
    const std::vector<std::vector<std::string>> mistakes = {
        {},
        {"paste"},
        {"copy"},
        {"copy", work.Path()},
        {"copy", "--window", "0", work.Path(), work.Path()},
        {"copy", "--bandwidth", "lots", work.Path(), work.Path()},
        {"copy", "--log-level", "9", work.Path(), work.Path()},
    };
    for (const auto& args : mistakes) {
        const ToolResult result = runTool(args);
        EXPECT_EQ(result.exitCode, toInt(cli::ExitCode::kUsage)) << ::testing::PrintToString(args) << "\n" << describe(result);
        EXPECT_FALSE(result.err.empty()) << ::testing::PrintToString(args);
    }
}

TEST(CommandLine, DemoCopiesItsSampleTreeAndCleansUp)
{
    TempDir scratch;
    RunOptions options;
    options.environment = {"TMPDIR=" + scratch.Path()};

    const ToolResult result = runTool({"demo", "--no-progress"}, options);

    ASSERT_EQ(result.exitCode, toInt(cli::ExitCode::kOk)) << describe(result);
    for (const char* expected : {"notes(1).txt", "empty album", "exactly one chunk.bin", "März — Zürich",
                                 "verified", "copied "}) {
        EXPECT_NE(result.out.find(expected), std::string::npos) << expected << " missing from:\n" << result.out;
    }
    EXPECT_TRUE(NamesIn(scratch.Path()).empty()) << "demo left " << ::testing::PrintToString(NamesIn(scratch.Path()));
}

}  // namespace
}  // namespace orin::xfer::test
