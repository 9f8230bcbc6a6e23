// The cache directory setting and the filesystem helpers, on real
// directories under /tmp.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <ostream>
#include <string>
#include <vector>

#include "ManagerCoreSupport.h"
#include "TestSupport.h"

namespace orin::xfer::test {
namespace {

using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::IsEmpty;

struct Logged {
    int level;
    std::string message;
    bool operator==(const Logged& other) const { return level == other.level && message == other.message; }
};

void PrintTo(const Logged& logged, std::ostream* out)
{
    *out << "(" << logged.level << ", \"" << logged.message << "\")";
}

std::vector<Logged> LoggedLines(const CapturingLogger& logger)
{
    std::vector<Logged> lines;
    for (const LogLine& line : logger.Lines()) {
        lines.push_back({line.level, MessageOf(line.text)});
    }
    return lines;
}

class FilesystemHelpersTest : public ::testing::Test {
protected:
    void SetUp() override { logger->Clear(); }

    ScopedCapturingLogger logger;
    TempDir dir;
    ManagerFixture fixture;
    OrinFileTransferManager& manager = *fixture.manager;
};

// ---------------------------------------------------------------------------
// SetCacheDir

TEST_F(FilesystemHelpersTest, SetCacheDirStoresThePathAndWipesTheDirectoryItself)
{
    const std::string cache = dir.Join("cache");
    MakeDirs(cache + "/sub/deeper");
    WriteText(cache + "/top.txt", "t");
    WriteText(cache + "/sub/deeper/leaf.txt", "l");

    manager.SetCacheDir(cache);

    EXPECT_EQ(manager.mCacheDirPath, cache);
    EXPECT_FALSE(PathExists(cache));
    EXPECT_TRUE(PathExists(dir.Path()));
    EXPECT_THAT(LoggedLines(*logger), ElementsAre(Logged{2, "mCacheDirPath = " + cache}));
}

TEST_F(FilesystemHelpersTest, SetCacheDirOnAMissingPathKeepsItAndLogsTheSystemText)
{
    const std::string cache = dir.Join("not-there");

    manager.SetCacheDir(cache);

    EXPECT_EQ(manager.mCacheDirPath, cache);
    EXPECT_THAT(LoggedLines(*logger),
                ElementsAre(Logged{2, "mCacheDirPath = " + cache},
                            Logged{4, "open dir failed, error message = No such file or directory\n"}));
    // The statement ends with its own line break, before the sink's " \n".
    EXPECT_THAT(logger->Lines().back().text, EndsWith(": open dir failed, error message = No such file or directory\n \n"));
}

TEST_F(FilesystemHelpersTest, SetCacheDirWithAnEmptyPathStoresItAndLogsPathIsNull)
{
    manager.mCacheDirPath = "/previous";

    manager.SetCacheDir("");

    EXPECT_EQ(manager.mCacheDirPath, "");
    EXPECT_THAT(LoggedLines(*logger), ElementsAre(Logged{2, "mCacheDirPath = "}, Logged{3, "path is null\n"}));
}

// ---------------------------------------------------------------------------
// isFileExist

TEST_F(FilesystemHelpersTest, IsFileExistOnAMissingPathLeavesTheOutParameterAlone)
{
    const std::string missing = dir.Join("missing");
    bool isDir = true;
    EXPECT_FALSE(manager.isFileExist(missing, isDir));
    EXPECT_TRUE(isDir);
    isDir = false;
    EXPECT_FALSE(manager.isFileExist(missing, isDir));
    EXPECT_FALSE(isDir);

    const Logged expected{4, "stat " + missing + " failed, errno 2"};
    EXPECT_THAT(LoggedLines(*logger), ElementsAre(expected, expected));
}

TEST_F(FilesystemHelpersTest, IsFileExistOnADirectory)
{
    bool isDir = false;
    EXPECT_TRUE(manager.isFileExist(dir.Path(), isDir));
    EXPECT_TRUE(isDir);
    EXPECT_THAT(LoggedLines(*logger), ElementsAre(Logged{2, dir.Path() + " is exist 1"}));
}

TEST_F(FilesystemHelpersTest, IsFileExistOnARegularFile)
{
    const std::string file = dir.Join("file.txt");
    WriteText(file, "x");
    bool isDir = true;
    EXPECT_TRUE(manager.isFileExist(file, isDir));
    EXPECT_FALSE(isDir);
    EXPECT_THAT(LoggedLines(*logger), ElementsAre(Logged{2, file + " is exist 1"}));
}

TEST_F(FilesystemHelpersTest, IsFileExistWithAnEmptyPath)
{
    bool isDir = true;
    EXPECT_FALSE(manager.isFileExist("", isDir));
    EXPECT_TRUE(isDir);
    EXPECT_THAT(LoggedLines(*logger), ElementsAre(Logged{3, "file name is null"}));
}

TEST_F(FilesystemHelpersTest, IsFileExistReportsTheErrnoOfTheFailedStat)
{
    const std::string file = dir.Join("file.txt");
    WriteText(file, "x");
    bool isDir = false;
    EXPECT_FALSE(manager.isFileExist(file + "/inside", isDir));
    EXPECT_THAT(LoggedLines(*logger), ElementsAre(Logged{4, "stat " + file + "/inside failed, errno 20"}));
}

TEST_F(FilesystemHelpersTest, IsFileExistFollowsSymbolicLinks)
{
    const std::string target = dir.Join("target");
    MakeDirs(target);
    ASSERT_EQ(symlink(target.c_str(), dir.Join("to-dir").c_str()), 0);
    ASSERT_EQ(symlink(dir.Join("nowhere").c_str(), dir.Join("dangling").c_str()), 0);

    bool isDir = false;
    EXPECT_TRUE(manager.isFileExist(dir.Join("to-dir"), isDir));
    EXPECT_TRUE(isDir);
    bool untouched = true;
    EXPECT_FALSE(manager.isFileExist(dir.Join("dangling"), untouched));
    EXPECT_TRUE(untouched);
    EXPECT_EQ(logger->CountMessage("stat " + dir.Join("dangling") + " failed, errno 2", 4), 1u);
}

// ---------------------------------------------------------------------------
// createDir

TEST_F(FilesystemHelpersTest, CreateDirMakesEachMissingLevelUnderTheUmask)
{
    ScopedUmask mask(022);
    const std::string a = dir.Join("a");

    EXPECT_EQ(manager.createDir(a + "/b/c"), 0);

    for (const std::string& level : {a, a + "/b", a + "/b/c"}) {
        EXPECT_TRUE(IsDirectory(level)) << level;
        EXPECT_EQ(ModeBitsOf(level), 0755) << level;
    }
    const Logged made{2, "ret = 0"};
    EXPECT_THAT(LoggedLines(*logger), ElementsAre(made, made, made));
}

TEST_F(FilesystemHelpersTest, CreateDirRequestsMode0775)
{
    ScopedUmask mask(0);
    const std::string a = dir.Join("a");

    EXPECT_EQ(manager.createDir(a + "/b/c"), 0);

    EXPECT_EQ(ModeBitsOf(a), 0775);
    EXPECT_EQ(ModeBitsOf(a + "/b"), 0775);
    EXPECT_EQ(ModeBitsOf(a + "/b/c"), 0775);
    EXPECT_EQ(logger->CountMessage("ret = 0", 2), 3u);
}

TEST_F(FilesystemHelpersTest, CreateDirOnAnExistingPathReturnsZeroSilently)
{
    const std::string file = dir.Join("file.txt");
    WriteText(file, "x");

    EXPECT_EQ(manager.createDir(dir.Path()), 0);
    EXPECT_EQ(manager.createDir(file), 0);
    EXPECT_EQ(manager.createDir("/"), 0);

    EXPECT_FALSE(IsDirectory(file));
    EXPECT_THAT(logger->Lines(), IsEmpty());
}

TEST_F(FilesystemHelpersTest, CreateDirWithAnEmptyPathFailsSilently)
{
    EXPECT_EQ(manager.createDir(""), -1);
    EXPECT_THAT(logger->Lines(), IsEmpty());
}

TEST_F(FilesystemHelpersTest, CreateDirDirectlyUnderTheRootFailsWithoutCreatingIt)
{
    const std::string top = "/xferfm-newtop-" + std::to_string(getpid());
    ASSERT_FALSE(PathExists(top)) << "leftover " << top;

    EXPECT_EQ(manager.createDir(top), -1);

    EXPECT_FALSE(PathExists(top));
    EXPECT_THAT(LoggedLines(*logger), ElementsAre(Logged{2, "ret = -1"}));
}

TEST_F(FilesystemHelpersTest, CreateDirBelowAMissingTopLevelFailsAtEveryLevel)
{
    const std::string top = "/xferfm-newtop-" + std::to_string(getpid());
    ASSERT_FALSE(PathExists(top)) << "leftover " << top;

    EXPECT_EQ(manager.createDir(top + "/x/y"), -1);

    EXPECT_FALSE(PathExists(top));
    const Logged failed{2, "ret = -1"};
    EXPECT_THAT(LoggedLines(*logger), ElementsAre(failed, failed, failed));
}

TEST_F(FilesystemHelpersTest, CreateDirUnderARegularFileFails)
{
    const std::string file = dir.Join("file.txt");
    WriteText(file, "x");

    EXPECT_EQ(manager.createDir(file + "/sub"), -1);

    EXPECT_THAT(LoggedLines(*logger), ElementsAre(Logged{2, "ret = -1"}));
}

// A trailing separator makes the parent the directory itself: it is created
// first, and the second mkdir of the same directory counts as a failure.
TEST_F(FilesystemHelpersTest, CreateDirWithATrailingSeparatorCreatesTheDirectoryYetFails)
{
    const std::string a = dir.Join("a");

    EXPECT_EQ(manager.createDir(a + "/"), -1);

    EXPECT_TRUE(IsDirectory(a));
    EXPECT_THAT(LoggedLines(*logger), ElementsAre(Logged{2, "ret = 0"}, Logged{2, "ret = -1"}));
}

// ---------------------------------------------------------------------------
// removeDir

TEST_F(FilesystemHelpersTest, RemoveDirRemovesANestedTreeAndItself)
{
    const std::string root = dir.Join("root");
    MakeDirs(root + "/d1/d2/d3");
    MakeDirs(root + "/empty");
    WriteText(root + "/f1", "1");
    WriteText(root + "/d1/f2", "2");
    WriteText(root + "/d1/d2/f3", "3");
    WriteText(root + "/d1/d2/d3/f4", "4");

    EXPECT_EQ(manager.removeDir(root), 0);

    EXPECT_FALSE(PathExists(root));
    EXPECT_TRUE(PathExists(dir.Path()));
    EXPECT_THAT(logger->Lines(), IsEmpty());
}

TEST_F(FilesystemHelpersTest, RemoveDirOfAnEmptyDirectory)
{
    const std::string root = dir.Join("empty");
    MakeDirs(root);
    EXPECT_EQ(manager.removeDir(root), 0);
    EXPECT_FALSE(PathExists(root));
}

TEST_F(FilesystemHelpersTest, RemoveDirOnARegularFileFailsAndKeepsIt)
{
    const std::string file = dir.Join("file.txt");
    WriteText(file, "x");

    EXPECT_EQ(manager.removeDir(file), -1);

    EXPECT_TRUE(PathExists(file));
    EXPECT_THAT(LoggedLines(*logger), ElementsAre(Logged{4, "open dir failed, error message = Not a directory\n"}));
    EXPECT_THAT(logger->Lines()[0].text, EndsWith("Not a directory\n \n"));
}

TEST_F(FilesystemHelpersTest, RemoveDirOnAMissingPathFails)
{
    EXPECT_EQ(manager.removeDir(dir.Join("missing")), -1);
    EXPECT_THAT(LoggedLines(*logger),
                ElementsAre(Logged{4, "open dir failed, error message = No such file or directory\n"}));
}

TEST_F(FilesystemHelpersTest, RemoveDirWithAnEmptyPathFails)
{
    EXPECT_EQ(manager.removeDir(""), -1);
    EXPECT_THAT(LoggedLines(*logger), ElementsAre(Logged{3, "path is null\n"}));
}

TEST_F(FilesystemHelpersTest, RemoveDirUnlinksALinkToAFileAndKeepsTheFile)
{
    const std::string root = dir.Join("root");
    const std::string target = dir.Join("kept.txt");
    MakeDirs(root);
    WriteText(target, "keep me");
    ASSERT_EQ(symlink(target.c_str(), (root + "/link").c_str()), 0);

    EXPECT_EQ(manager.removeDir(root), 0);

    EXPECT_FALSE(PathExists(root));
    EXPECT_TRUE(PathExists(target));
}

// A link to a directory counts as a directory: its target's contents are
// removed, and the final rmdir of the link itself fails.
TEST_F(FilesystemHelpersTest, RemoveDirDescendsIntoALinkToADirectory)
{
    const std::string root = dir.Join("root");
    const std::string target = dir.Join("target");
    MakeDirs(root);
    MakeDirs(target + "/sub");
    WriteText(target + "/t1", "1");
    WriteText(target + "/sub/t2", "2");
    const std::string link = root + "/link";
    ASSERT_EQ(symlink(target.c_str(), link.c_str()), 0);

    EXPECT_EQ(manager.removeDir(root), -1);

    EXPECT_TRUE(ReaddirNames(target).empty()) << "the target's contents should be gone";
    EXPECT_TRUE(IsDirectory(target));
    EXPECT_TRUE(LinkExists(link));
    EXPECT_TRUE(IsDirectory(root));
    EXPECT_THAT(LoggedLines(*logger),
                ElementsAre(Logged{4, "rmdir failed for " + link + ", error message = Not a directory\n"}));
}

TEST_F(FilesystemHelpersTest, RemoveDirKeepsTheWayToAFileThatCannotBeUnlinked)
{
    const std::string root = dir.Join("root");
    MakeDirs(root + "/a/b");
    const std::string locked = root + "/a/b/locked";
    WriteText(locked, "locked");
    WriteText(root + "/a/b/loose", "x");
    WriteText(root + "/a/also-loose", "y");
    WriteText(root + "/top-loose", "z");
    ScopedImmutableFile immutable(locked);
    if (!immutable.Applied()) {
        GTEST_SKIP() << "the filesystem refused the immutable flag on " << locked << " (" << immutable.Error()
                     << "), so no file here resists unlink";
    }

    EXPECT_EQ(manager.removeDir(root), -1);

    EXPECT_TRUE(IsDirectory(root));
    EXPECT_TRUE(IsDirectory(root + "/a"));
    EXPECT_TRUE(IsDirectory(root + "/a/b"));
    EXPECT_TRUE(PathExists(locked));
    // Every other entry is still removed.
    EXPECT_FALSE(PathExists(root + "/a/b/loose"));
    EXPECT_FALSE(PathExists(root + "/a/also-loose"));
    EXPECT_FALSE(PathExists(root + "/top-loose"));
    EXPECT_THAT(LoggedLines(*logger),
                ElementsAre(Logged{4, "unlink failed for " + locked + ", error message = Operation not permitted\n"}));
}

TEST_F(FilesystemHelpersTest, RemoveDirKeepsTheWayToAnEntryThatCannotBeExamined)
{
    const std::string root = dir.Join("root");
    MakeDirs(root + "/sub");
    const std::string dangling = root + "/sub/dangling";
    ASSERT_EQ(symlink(dir.Join("nowhere").c_str(), dangling.c_str()), 0);
    WriteText(root + "/sub/loose", "x");

    EXPECT_EQ(manager.removeDir(root), -1);

    EXPECT_TRUE(IsDirectory(root + "/sub"));
    EXPECT_TRUE(LinkExists(dangling));
    EXPECT_FALSE(PathExists(root + "/sub/loose"));
    EXPECT_THAT(LoggedLines(*logger),
                ElementsAre(Logged{4, "stat failed for " + dangling + ", error message = No such file or directory\n"}));
}

// A subdirectory removed after a failed one clears the failure, so the
// directory is then tried with rmdir (which fails, since the failed entry is
// still in it). Readdir order is the filesystem's, so the tree is rebuilt
// under other names until the failing subdirectory is not the last entry.
TEST_F(FilesystemHelpersTest, RemoveDirLetsALaterSuccessOverwriteAnEarlierFailure)
{
    const std::string root = dir.Join("root");
    const std::vector<std::string> goods = {"good-a", "good-b", "good-c"};
    std::string bad;
    for (int attempt = 0; attempt < 20 && bad.empty(); ++attempt) {
        const std::string candidate = "bad-" + std::to_string(attempt);
        std::filesystem::remove_all(root);
        for (const std::string& good : goods) {
            MakeDirs(root + "/" + good);
            WriteText(root + "/" + good + "/file", "g");
        }
        MakeDirs(root + "/" + candidate);
        ASSERT_EQ(symlink(dir.Join("nowhere").c_str(), (root + "/" + candidate + "/dangling").c_str()), 0);
        const std::vector<std::string> order = ReaddirNames(root);
        ASSERT_EQ(order.size(), goods.size() + 1);
        if (order.back() != candidate) {
            bad = candidate;
        }
    }
    if (bad.empty()) {
        GTEST_SKIP() << "readdir always listed the failing subdirectory last";
    }

    EXPECT_EQ(manager.removeDir(root), -1);

    for (const std::string& good : goods) {
        EXPECT_FALSE(PathExists(root + "/" + good)) << good;
    }
    EXPECT_TRUE(IsDirectory(root + "/" + bad));
    EXPECT_TRUE(LinkExists(root + "/" + bad + "/dangling"));
    EXPECT_THAT(LoggedLines(*logger),
                ElementsAre(Logged{4, "stat failed for " + root + "/" + bad +
                                          "/dangling, error message = No such file or directory\n"},
                            Logged{4, "rmdir failed for " + root + ", error message = Directory not empty\n"}));
}

// When the failing subdirectory is the last one examined, no rmdir is tried.
TEST_F(FilesystemHelpersTest, RemoveDirDoesNotTryRmdirAfterAFailureThatStands)
{
    const std::string root = dir.Join("root");
    MakeDirs(root + "/only");
    WriteText(root + "/loose", "x");
    ASSERT_EQ(symlink(dir.Join("nowhere").c_str(), (root + "/only/dangling").c_str()), 0);

    EXPECT_EQ(manager.removeDir(root), -1);

    EXPECT_TRUE(IsDirectory(root + "/only"));
    EXPECT_FALSE(PathExists(root + "/loose"));
    EXPECT_TRUE(logger->WithMessagePrefix("rmdir failed for ").empty());
}

}  // namespace
}  // namespace orin::xfer::test
