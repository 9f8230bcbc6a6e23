// A copy keeps what `cp -a` users expect of times and modes: every file and
// directory keeps its modification time; permission bits land under the
// umask, or exactly with -p/--preserve-perms.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <sys/stat.h>

#include "TestSupport.h"
#include "ToolExitCodes.h"
#include "ToolRunner.h"
#include "TreeBuilders.h"
#include "TreeCompare.h"

namespace orin::xfer::test {
namespace {

using namespace orin::xfer::test;

void setTime(const std::string& path, time_t seconds, long nanoseconds)
{
    const timespec times[2] = {{0, UTIME_OMIT}, {seconds, nanoseconds}};
    ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, 0), 0) << path;
}

struct stat statOf(const std::string& path)
{
    struct stat status {};
    EXPECT_EQ(::stat(path.c_str(), &status), 0) << path;
    return status;
}

// The test process's umask, set for one test and given back after it.
class UmaskFor {
public:
    explicit UmaskFor(mode_t mask) : mPrevious(::umask(mask)) {}
    ~UmaskFor() { ::umask(mPrevious); }

private:
    mode_t mPrevious;
};

class TimesAndModes : public ::testing::Test {
protected:
    void SetUp() override
    {
        tree = work.Join("tree");
        out = work.Join("out");
        makeDirectory(out);
        makeDirectory(tree, 0777);
        makeDirectory(tree + "/sub", 0777);
        writeTextFile(tree + "/sub/open.txt", "anyone\n", 0666);
        writeTextFile(tree + "/run.sh", "#!/bin/sh\n", 0777);
        makeDirectory(tree + "/empty", 0755);
        setTime(tree + "/sub/open.txt", 981173106, 123456789);
        setTime(tree + "/run.sh", 1000000000, 5);
        setTime(tree + "/empty", 1200000000, 999999999);
        setTime(tree + "/sub", 1300000000, 42);
        setTime(tree, 1400000000, 0);
    }

    ToolResult copy(std::vector<std::string> options)
    {
        std::vector<std::string> args{"copy", "--no-progress"};
        args.insert(args.end(), options.begin(), options.end());
        args.push_back(tree);
        args.push_back(out);
        return runTool(args);
    }

    TempDir work;
    std::string tree;
    std::string out;
};

TEST_F(TimesAndModes, EveryFileAndDirectoryKeepsItsModificationTime)
{
    const ToolResult result = copy({});

    ASSERT_EQ(result.exitCode, toInt(cli::ExitCode::kOk)) << describe(result);
    for (const char* relative : {"", "/sub", "/sub/open.txt", "/run.sh", "/empty"}) {
        const struct stat source = statOf(tree + relative);
        const struct stat copied = statOf(out + "/tree" + relative);
        EXPECT_EQ(copied.st_mtim.tv_sec, source.st_mtim.tv_sec) << relative;
        EXPECT_EQ(copied.st_mtim.tv_nsec, source.st_mtim.tv_nsec) << relative;
    }
}

TEST_F(TimesAndModes, ModesLandUnderTheUmask)
{
    UmaskFor mask(027);

    const ToolResult result = copy({});

    ASSERT_EQ(result.exitCode, toInt(cli::ExitCode::kOk)) << describe(result);
    EXPECT_EQ(statOf(out + "/tree").st_mode & 07777, 0750u);
    EXPECT_EQ(statOf(out + "/tree/sub").st_mode & 07777, 0750u);
    EXPECT_EQ(statOf(out + "/tree/sub/open.txt").st_mode & 07777, 0640u);
    EXPECT_EQ(statOf(out + "/tree/run.sh").st_mode & 07777, 0750u);
}

TEST_F(TimesAndModes, PreservePermsKeepsModesExact)
{
    UmaskFor mask(027);

    const ToolResult shortForm = copy({"-p"});
    const ToolResult longForm = copy({"--preserve-perms"});

    ASSERT_EQ(shortForm.exitCode, toInt(cli::ExitCode::kOk)) << describe(shortForm);
    ASSERT_EQ(longForm.exitCode, toInt(cli::ExitCode::kOk)) << describe(longForm);
    for (const char* top : {"/tree", "/tree(1)"}) {
        const std::string copied = out + top;
        EXPECT_EQ(statOf(copied).st_mode & 07777, 0777u) << top;
        EXPECT_EQ(statOf(copied + "/sub").st_mode & 07777, 0777u) << top;
        EXPECT_EQ(statOf(copied + "/sub/open.txt").st_mode & 07777, 0666u) << top;
        EXPECT_EQ(statOf(copied + "/run.sh").st_mode & 07777, 0777u) << top;
        EXPECT_EQ(statOf(copied + "/empty").st_mode & 07777, 0755u) << top;
    }
}

}  // namespace
}  // namespace orin::xfer::test
