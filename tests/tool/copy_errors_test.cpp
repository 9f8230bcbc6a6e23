// Failures give one clear message naming the path, a distinct exit code,
// and leave nothing half-written (and no cache) in DEST_DIR.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>

#include "ToolExitCodes.h"
#include "TestSupport.h"
#include "ToolRunner.h"
#include "TreeBuilders.h"
#include "TreeCompare.h"

namespace orin::xfer::test {
namespace {

using namespace orin::xfer::test;

size_t countLines(const std::string& text)
{
    return static_cast<size_t>(std::count(text.begin(), text.end(), '\n'));
}

class CopyErrors : public ::testing::Test {
protected:
    void SetUp() override
    {
        source = work.Join("source");
        destination = work.Join("destination");
        makeDirectory(source);
        makeDirectory(destination);
        writeTextFile(source + "/fine.txt", "fine\n");
    }

    // --strict: an entry that cannot be copied refuses the whole copy (by
    // default it is skipped; odd_trees_test.cpp covers that).
    ToolResult copy(const std::vector<std::string>& sources, const std::string& dest)
    {
        std::vector<std::string> args{"copy", "--no-progress", "--strict"};
        args.insert(args.end(), sources.begin(), sources.end());
        args.push_back(dest);
        return runTool(args);
    }

    void expectDestinationUntouched()
    {
        EXPECT_TRUE(NamesIn(destination).empty()) << ::testing::PrintToString(NamesIn(destination));
    }

    TempDir work;
    std::string source;
    std::string destination;
};

TEST_F(CopyErrors, MissingSourceIsNamedAndNothingIsCopied)
{
    const std::string missing = source + "/no such file.txt";

    const ToolResult result = copy({source + "/fine.txt", missing}, destination);

    EXPECT_EQ(result.exitCode, toInt(cli::ExitCode::kSourceMissing)) << describe(result);
    EXPECT_EQ(countLines(result.err), 1u) << result.err;
    EXPECT_NE(result.err.find(missing), std::string::npos) << result.err;
    EXPECT_NE(result.err.find("No such file or directory"), std::string::npos) << result.err;
    EXPECT_TRUE(result.out.empty()) << result.out;
    expectDestinationUntouched();
}

TEST_F(CopyErrors, MissingDestinationIsNamed)
{
    const std::string missing = work.Join("not there");

    const ToolResult result = copy({source + "/fine.txt"}, missing);

    EXPECT_EQ(result.exitCode, toInt(cli::ExitCode::kDestinationUnusable)) << describe(result);
    EXPECT_EQ(countLines(result.err), 1u) << result.err;
    EXPECT_NE(result.err.find(missing), std::string::npos) << result.err;
    EXPECT_FALSE(exists(missing));
}

TEST_F(CopyErrors, DestinationThatIsAFileIsRefused)
{
    const std::string file = work.Join("a file");
    writeTextFile(file, "not a directory\n");

    const ToolResult result = copy({source + "/fine.txt"}, file);

    EXPECT_EQ(result.exitCode, toInt(cli::ExitCode::kDestinationUnusable)) << describe(result);
    EXPECT_NE(result.err.find(file), std::string::npos) << result.err;
    EXPECT_NE(result.err.find("Not a directory"), std::string::npos) << result.err;
    EXPECT_EQ(readTextFile(file), "not a directory\n");
}

TEST_F(CopyErrors, UnwritableDestinationIsNamed)
{
    // Root ignores permission bits; the immutable attribute stops it too.
    const std::string locked = work.Join("locked");
    makeDirectory(locked, 0555);
    const bool immutable =
        geteuid() == 0 && std::system(("chattr +i '" + locked + "' 2>/dev/null").c_str()) == 0;
    if (geteuid() == 0 && !immutable) {
        GTEST_SKIP() << "running as root without chattr support: cannot make a directory unwritable";
    }

    const ToolResult result = copy({source + "/fine.txt"}, locked);

    if (immutable) {
        EXPECT_EQ(std::system(("chattr -i '" + locked + "'").c_str()), 0);
    }
    EXPECT_EQ(result.exitCode, toInt(cli::ExitCode::kDestinationUnusable)) << describe(result);
    EXPECT_EQ(countLines(result.err), 1u) << result.err;
    EXPECT_NE(result.err.find(locked), std::string::npos) << result.err;
    EXPECT_TRUE(NamesIn(locked).empty());
}

TEST_F(CopyErrors, FifoInsideATreeIsUnreadableAndNamed)
{
    makeDirectory(source + "/tree");
    writeTextFile(source + "/tree/a.txt", "a\n");
    const std::string fifo = source + "/tree/pipe";
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0644), 0);

    const ToolResult result = copy({source + "/tree"}, destination);

    EXPECT_EQ(result.exitCode, toInt(cli::ExitCode::kSourceUnreadable)) << describe(result);
    EXPECT_EQ(countLines(result.err), 1u) << result.err;
    EXPECT_NE(result.err.find(fifo), std::string::npos) << result.err;
    expectDestinationUntouched();
}

TEST_F(CopyErrors, BrokenSymbolicLinkIsUnreadableAndNamed)
{
    makeDirectory(source + "/tree");
    const std::string link = source + "/tree/dangling";
    ASSERT_EQ(::symlink("nowhere", link.c_str()), 0);

    const ToolResult result = copy({source + "/tree"}, destination);

    EXPECT_EQ(result.exitCode, toInt(cli::ExitCode::kSourceUnreadable)) << describe(result);
    EXPECT_NE(result.err.find(link), std::string::npos) << result.err;
    EXPECT_NE(result.err.find("broken symbolic link"), std::string::npos) << result.err;
    expectDestinationUntouched();
}

TEST_F(CopyErrors, LinkBackIntoItsOwnParentsIsRefused)
{
    makeDirectory(source + "/tree");
    makeDirectory(source + "/tree/inner");
    const std::string link = source + "/tree/inner/up";
    ASSERT_EQ(::symlink("..", link.c_str()), 0);

    const ToolResult result = copy({source + "/tree"}, destination);

    EXPECT_EQ(result.exitCode, toInt(cli::ExitCode::kSourceUnreadable)) << describe(result);
    EXPECT_NE(result.err.find(link), std::string::npos) << result.err;
    expectDestinationUntouched();
}

TEST_F(CopyErrors, FileWithoutReadPermissionIsNamed)
{
    if (geteuid() == 0) {
        GTEST_SKIP() << "root reads files whatever their permission bits";
    }
    const std::string closed = source + "/closed.txt";
    writeTextFile(closed, "closed\n", 0000);

    const ToolResult result = copy({source + "/fine.txt", closed}, destination);

    EXPECT_EQ(result.exitCode, toInt(cli::ExitCode::kSourceUnreadable)) << describe(result);
    EXPECT_NE(result.err.find(closed), std::string::npos) << result.err;
    expectDestinationUntouched();
}

TEST_F(CopyErrors, FileRemovedDuringTheCopyIsNamedAndNothingHalfWrittenRemains)
{
    // The first file is slowed down by the bandwidth limit so that the second
    // can be removed after the copy has started but before it is read.
    makeDirectory(source + "/tree");
    writePatternFile(source + "/tree/a-first.bin", 4 * 1024 * 1024, 1);
    const std::string doomed = source + "/tree/b-removed.txt";
    writeTextFile(doomed, "here at the start\n");
    RunOptions options;
    options.whileRunning = [this, &doomed](pid_t) {
        if (LeftoverCaches(destination).empty()) {
            return true;  // not started yet
        }
        ::unlink(doomed.c_str());
        return false;
    };

    const ToolResult result =
        runTool({"copy", "--no-progress", "--bandwidth", "16000", source + "/tree", destination}, options);

    EXPECT_EQ(result.exitCode, toInt(cli::ExitCode::kSourceUnreadable)) << describe(result);
    EXPECT_NE(result.err.find(doomed), std::string::npos) << result.err;
    // What arrived before the failure may stay, but only whole files.
    EXPECT_FALSE(exists(destination + "/tree/b-removed.txt"));
    EXPECT_TRUE(IncompleteCopies(source + "/tree", destination + "/tree").empty())
        << ::testing::PrintToString(IncompleteCopies(source + "/tree", destination + "/tree"));
    EXPECT_TRUE(LeftoverCaches(destination).empty());
}

}  // namespace
}  // namespace orin::xfer::test
