// Entries that cannot be copied (a FIFO, a socket, a dangling link, an
// unreadable file, a name holding a backslash) are all found before anything
// is written, named with their reason in one report and skipped; the rest
// is copied and the exit code says that something was skipped. --strict
// refuses the whole copy instead, writing nothing.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "ShellCommand.h"
#include "TestSupport.h"
#include "ToolExitCodes.h"
#include "ToolRunner.h"
#include "TreeBuilders.h"
#include "TreeCompare.h"

namespace orin::xfer::test {
namespace {

using namespace orin::xfer::test;

constexpr uid_t kNobody = 65534;

void makeSocket(const std::string& path)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    ASSERT_LT(path.size(), sizeof address.sun_path) << path;
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
    ASSERT_GE(fd, 0);
    const int bound = ::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address);
    ::close(fd);
    ASSERT_EQ(bound, 0) << path;
}

std::string quoted(const std::string& text)
{
    std::string out = "'";
    for (char c : text) {
        out += c == '\'' ? std::string("'\\''") : std::string(1, c);
    }
    return out + "'";
}

class OddTrees : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_EQ(::chmod(work.Path().c_str(), 0755), 0);
        tree = work.Join("tree");
        out = work.Join("out");
        makeDirectory(tree);
        makeDirectory(out, 0777);
        makeDirectory(tree + "/sub");
        writeTextFile(tree + "/good.txt", "good\n");
        writePatternFile(tree + "/sub/fine.bin", 300000, 3);
        ASSERT_EQ(::mkfifo((tree + "/pipe").c_str(), 0644), 0);
        makeSocket(tree + "/sub/sock");
        ASSERT_EQ(::symlink("nowhere", (tree + "/dangling").c_str()), 0);
    }

    // Runs the tool as an unprivileged user when this process is root (root
    // reads every file, whatever its mode), directly otherwise.
    ToolResult runUnprivileged(const std::vector<std::string>& args)
    {
        if (::geteuid() != 0) {
            return runTool(args);
        }
        std::string command = "setpriv --reuid=" + std::to_string(kNobody) + " --regid=" + std::to_string(kNobody) +
                              " --clear-groups -- " + quoted(toolPath());
        for (const std::string& arg : args) {
            command += " " + quoted(arg);
        }
        const std::string errFile = work.Join("stderr.txt");
        command += " 2>" + quoted(errFile);
        const ShellResult shell = RunShell(command);
        ToolResult result;
        result.out = shell.out;
        result.exitCode = shell.exitCode;
        result.err = exists(errFile) ? readTextFile(errFile) : "";
        return result;
    }

    TempDir work;
    std::string tree;
    std::string out;
};

TEST_F(OddTrees, EveryUncopyableEntryIsNamedOnceAndTheRestIsCopied)
{
    writeTextFile(tree + "/sub/secret.txt", "secret\n", 0000);
    if (::geteuid() == 0 && ::access("/usr/bin/setpriv", X_OK) != 0) {
        GTEST_SKIP() << "running as root without setpriv: an unreadable file cannot be made";
    }

    const ToolResult result = runUnprivileged({"copy", "--no-progress", tree, out});

    ASSERT_EQ(result.exitCode, toInt(cli::ExitCode::kEntriesSkipped)) << describe(result);
    EXPECT_NE(result.err.find("4 entries cannot be copied and are skipped"), std::string::npos) << result.err;
    EXPECT_NE(result.err.find("'" + tree + "/pipe': a FIFO"), std::string::npos) << result.err;
    EXPECT_NE(result.err.find("'" + tree + "/sub/sock': a socket"), std::string::npos) << result.err;
    EXPECT_NE(result.err.find("'" + tree + "/dangling': broken symbolic link"), std::string::npos) << result.err;
    EXPECT_NE(result.err.find("'" + tree + "/sub/secret.txt': Permission denied"), std::string::npos) << result.err;
    EXPECT_EQ(readTextFile(out + "/tree/good.txt"), "good\n");
    EXPECT_EQ(readTextFile(out + "/tree/sub/fine.bin"), readTextFile(tree + "/sub/fine.bin"));
    for (const char* absent : {"/tree/pipe", "/tree/sub/sock", "/tree/dangling", "/tree/sub/secret.txt"}) {
        EXPECT_FALSE(exists(out + absent)) << absent;
    }
    EXPECT_TRUE(LeftoverCaches(out).empty());
}

TEST_F(OddTrees, ABackslashInANameIsFoundBeforeAnythingIsWritten)
{
    writeTextFile(tree + "/sub/back\\slash.txt", "b\n");

    const ToolResult skipping = runTool({"copy", "--no-progress", tree, out});

    EXPECT_EQ(skipping.exitCode, toInt(cli::ExitCode::kEntriesSkipped)) << describe(skipping);
    EXPECT_NE(skipping.err.find("'" + tree + "/sub/back\\slash.txt': its name holds a backslash"), std::string::npos)
        << skipping.err;
    EXPECT_EQ(readTextFile(out + "/tree/good.txt"), "good\n");
    EXPECT_FALSE(exists(out + "/tree/sub/back\\slash.txt"));
}

TEST_F(OddTrees, StrictRefusesTheWholeCopyAndWritesNothing)
{
    const ToolResult result = runTool({"copy", "--no-progress", "--strict", tree, out});

    EXPECT_EQ(result.exitCode, toInt(cli::ExitCode::kSourceUnreadable)) << describe(result);
    EXPECT_NE(result.err.find("cannot read '"), std::string::npos) << result.err;
    EXPECT_TRUE(NamesIn(out).empty()) << ::testing::PrintToString(NamesIn(out));
}

TEST_F(OddTrees, ASourceThatIsItselfUncopyableIsSkippedToo)
{
    const ToolResult result = runTool({"copy", "--no-progress", tree + "/pipe", tree + "/good.txt", out});

    EXPECT_EQ(result.exitCode, toInt(cli::ExitCode::kEntriesSkipped)) << describe(result);
    EXPECT_NE(result.err.find("1 entry cannot be copied and is skipped"), std::string::npos) << result.err;
    EXPECT_EQ(readTextFile(out + "/good.txt"), "good\n");
    EXPECT_FALSE(exists(out + "/pipe"));
}

}  // namespace
}  // namespace orin::xfer::test
