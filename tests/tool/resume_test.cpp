// An interrupted copy can be continued: `copy --resume` into the same
// DEST_DIR reuses the top-level name the interrupted run gave, keeps every
// file already complete and sends only the rest, leaving no duplicate.
#include <gtest/gtest.h>
#include <signal.h>

#include "TestSupport.h"
#include "ToolExitCodes.h"
#include "ToolRunner.h"
#include "TreeBuilders.h"
#include "TreeCompare.h"

namespace orin::xfer::test {
namespace {

using namespace orin::xfer::test;

constexpr int kFiles = 24;

TEST(Resume, InterruptedCopyIsCompletedWithoutDuplicatesAndByteEqual)
{
    TempDir work;
    const std::string tree = work.Join("tree");
    const std::string out = work.Join("out");
    makeDirectory(tree);
    makeDirectory(tree + "/sub");
    for (int i = 0; i < kFiles; ++i) {
        writePatternFile(tree + (i % 2 ? "/sub/f" : "/f") + std::to_string(i) + ".bin", 100000, static_cast<uint32_t>(i));
    }
    makeDirectory(out);
    makeDirectory(out + "/tree");  // taken: the copy lands as tree(1), and must continue there

    // Slow enough to be interrupted part-way: SIGINT once some files landed.
    RunOptions interrupting;
    bool sent = false;
    interrupting.whileRunning = [&](pid_t pid) {
        if (exists(out + "/tree(1)") && NamesIn(out + "/tree(1)").size() >= 4) {
            ::kill(pid, SIGINT);
            sent = true;
            return false;
        }
        return true;
    };
    const ToolResult interrupted =
        runTool({"copy", "--no-progress", "--bandwidth", "3000", tree, out}, interrupting);

    ASSERT_TRUE(sent) << describe(interrupted);
    ASSERT_EQ(interrupted.exitCode, toInt(cli::ExitCode::kInterrupted)) << describe(interrupted);
    EXPECT_NE(interrupted.err.find("stay in " + out + " (as 'tree(1)')"), std::string::npos) << interrupted.err;
    EXPECT_NE(interrupted.err.find("--resume"), std::string::npos) << interrupted.err;
    EXPECT_TRUE(IncompleteCopies(tree, out + "/tree(1)").empty());

    const std::vector<std::string> kept = NamesIn(out + "/tree(1)");
    const ToolResult preview = runTool({"copy", "--resume", "--dry-run", tree, out});

    ASSERT_EQ(preview.exitCode, toInt(cli::ExitCode::kOk)) << describe(preview);
    EXPECT_NE(preview.out.find("to '" + out + "/tree(1)' (continuing the interrupted copy)"), std::string::npos)
        << preview.out;
    EXPECT_EQ(NamesIn(out + "/tree(1)"), kept) << "a dry run writes nothing";

    const ToolResult resumed = runTool({"copy", "--no-progress", "--resume", "--json", tree, out});

    ASSERT_EQ(resumed.exitCode, toInt(cli::ExitCode::kOk)) << describe(resumed);
    EXPECT_EQ(NamesIn(out), (std::vector<std::string>{"tree", "tree(1)"}));
    EXPECT_TRUE(NamesIn(out + "/tree").empty());
    EXPECT_TRUE(TreeDifferences(tree, out + "/tree(1)").empty())
        << ::testing::PrintToString(TreeDifferences(tree, out + "/tree(1)"));
    EXPECT_NE(resumed.out.find("\"alreadyComplete\" : "), std::string::npos) << resumed.out;
    EXPECT_EQ(resumed.out.find("\"alreadyComplete\" : 0,"), std::string::npos) << "complete files were sent again";
    EXPECT_EQ(resumed.out.find("\"files\" : " + std::to_string(kFiles) + ","), std::string::npos)
        << "every file was sent again:\n" << resumed.out;
}

TEST(Resume, ACompleteCopyResumedSendsNothing)
{
    TempDir work;
    const std::string tree = work.Join("tree");
    const std::string out = work.Join("out");
    makeDirectory(tree);
    writeTextFile(tree + "/a.txt", "a\n");
    makeDirectory(out);
    ASSERT_EQ(runTool({"copy", "--no-progress", tree, out}).exitCode, toInt(cli::ExitCode::kOk));

    const ToolResult resumed = runTool({"copy", "--no-progress", "--resume", tree, out});

    ASSERT_EQ(resumed.exitCode, toInt(cli::ExitCode::kOk)) << describe(resumed);
    EXPECT_EQ(NamesIn(out), std::vector<std::string>{"tree"});
    EXPECT_NE(resumed.out.find("copied 0 files"), std::string::npos) << resumed.out;
}

}  // namespace
}  // namespace orin::xfer::test
