// Splitting local paths into descriptions and walking copied directories.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <tuple>

#include "TestSupport.h"
#include "UploadSupport.h"

namespace orin::xfer::test {
namespace {

constexpr uint64_t kBigSize = (4ull << 30) + 123;

std::vector<FileDescription> SortedByPath(std::vector<FileDescription> files)
{
    std::sort(files.begin(), files.end(), [](const FileDescription& a, const FileDescription& b) {
        return std::tie(a.filePath, a.fileName) < std::tie(b.filePath, b.fileName);
    });
    return files;
}

void ExpectSameDescription(const FileDescription& actual, const FileDescription& expected)
{
    SCOPED_TRACE(expected.filePath + " | " + expected.fileName);
    EXPECT_EQ(actual.sourceDir, expected.sourceDir);
    EXPECT_EQ(actual.filePath, expected.filePath);
    EXPECT_EQ(actual.destFilePath, expected.destFilePath);
    EXPECT_EQ(actual.fileName, expected.fileName);
    EXPECT_EQ(actual.destFileName, expected.destFileName);
    EXPECT_EQ(actual.destDir, expected.destDir);
    EXPECT_EQ(actual.attribute, expected.attribute);
    EXPECT_EQ(actual.mode, expected.mode);
    EXPECT_EQ(actual.fileSize, expected.fileSize);
    EXPECT_EQ(actual.flag, expected.flag);
}

FileDescription Expected(const std::string& sourceDir, const std::string& filePath, const std::string& name,
                         uint64_t size)
{
    FileDescription file;
    file.sourceDir = sourceDir;
    file.filePath = filePath;
    file.fileName = name;
    file.attribute = kAttributeNormal;
    file.fileSize = size;
    return file;
}

// Changes the working directory for its lifetime.
class ScopedWorkingDir {
public:
    explicit ScopedWorkingDir(const std::string& dir) : mPrevious(std::filesystem::current_path())
    {
        std::filesystem::current_path(dir);
    }
    ~ScopedWorkingDir()
    {
        std::error_code ignored;
        std::filesystem::current_path(mPrevious, ignored);
    }

private:
    std::filesystem::path mPrevious;
};

class ParseFilePathTest : public ::testing::Test {
protected:
    FileDescription Parse(const std::string& path, const std::string& root = "")
    {
        FileDescription desc;
        fixture.manager->ParseFilePath(path, desc, root);
        return desc;
    }

    ScopedCapturingLogger logger;
    ManagerFixture fixture;
};

TEST_F(ParseFilePathTest, TopLevelFileSplitsAtLastSlash)
{
    const FileDescription desc = Parse("/x/y.txt");
    EXPECT_EQ(desc.sourceDir, "/x");
    EXPECT_EQ(desc.filePath, "");
    EXPECT_EQ(desc.fileName, "y.txt");
}

TEST_F(ParseFilePathTest, FileUnderRootGetsRelativeSubDirectory)
{
    const FileDescription desc = Parse("/a/b/c/d/e.txt", "/a/b");
    EXPECT_EQ(desc.sourceDir, "/a/b");
    EXPECT_EQ(desc.filePath, "c/d");
    EXPECT_EQ(desc.fileName, "e.txt");
}

TEST_F(ParseFilePathTest, FileDirectlyUnderRootHasEmptyRelativePart)
{
    const FileDescription desc = Parse("/a/b/e.txt", "/a/b");
    EXPECT_EQ(desc.sourceDir, "/a/b");
    EXPECT_EQ(desc.filePath, "");
    EXPECT_EQ(desc.fileName, "e.txt");
}

TEST_F(ParseFilePathTest, WindowsStylePathSplitsAtBackslashes)
{
    const FileDescription desc = Parse("C:\\dir\\f.txt");
    EXPECT_EQ(desc.sourceDir, "C:\\dir");
    EXPECT_EQ(desc.filePath, "");
    EXPECT_EQ(desc.fileName, "f.txt");

    const FileDescription nested = Parse("C:\\dir\\sub\\f.txt", "C:\\dir");
    EXPECT_EQ(nested.sourceDir, "C:\\dir");
    EXPECT_EQ(nested.filePath, "sub");
    EXPECT_EQ(nested.fileName, "f.txt");
}

TEST_F(ParseFilePathTest, ForwardSlashWinsOverBackslash)
{
    const FileDescription desc = Parse("C:\\dir/sub\\f.txt");
    EXPECT_EQ(desc.sourceDir, "C:\\dir");
    EXPECT_EQ(desc.fileName, "sub\\f.txt");
}

TEST_F(ParseFilePathTest, PathWithoutSeparatorIsAllSourceDirAndNoName)
{
    const FileDescription desc = Parse("plain.txt");
    EXPECT_EQ(desc.sourceDir, "plain.txt");
    EXPECT_EQ(desc.filePath, "");
    EXPECT_EQ(desc.fileName, "");

    const FileDescription underRoot = Parse("plain.txt", "/a/b");
    EXPECT_EQ(underRoot.sourceDir, "plain.txt");
    EXPECT_EQ(underRoot.fileName, "");
}

TEST_F(ParseFilePathTest, ExistingDirectorySplitsAtLastSeparatorAndIgnoresRoot)
{
    TempDir dir;
    MakeDirs(dir.Join("copied"));
    const FileDescription desc = Parse(dir.Join("copied"), dir.Path() + "/unrelated");
    EXPECT_EQ(desc.sourceDir, dir.Path());
    EXPECT_EQ(desc.filePath, "");
    EXPECT_EQ(desc.fileName, "copied");
}

TEST_F(ParseFilePathTest, ExistingDirectoryWithoutSeparatorIsAllSourceDir)
{
    TempDir dir;
    MakeDirs(dir.Join("here"));
    ScopedWorkingDir cwd(dir.Path());
    const FileDescription desc = Parse("here", "ignored");
    EXPECT_EQ(desc.sourceDir, "here");
    EXPECT_EQ(desc.filePath, "");
    EXPECT_EQ(desc.fileName, "");
}

TEST_F(ParseFilePathTest, ClearsOldPathAndNameButKeepsOtherFields)
{
    FileDescription desc;
    desc.filePath = "stale";
    desc.fileName = "stale.txt";
    desc.destDir = "D:\\dest";
    desc.fileSize = 42;
    fixture.manager->ParseFilePath("plain.txt", desc, "");
    EXPECT_EQ(desc.filePath, "");
    EXPECT_EQ(desc.fileName, "");
    EXPECT_EQ(desc.destDir, "D:\\dest");
    EXPECT_EQ(desc.fileSize, 42u);
}

TEST_F(ParseFilePathTest, LogsThePathAndTheResult)
{
    Parse("/a/b/c/d/e.txt", "/a/b");
    EXPECT_EQ(logger->CountMessage("Parse file /a/b/c/d/e.txt", kDebug), 1u);
    EXPECT_EQ(logger->CountMessage("Parse got file /a/b, c/d, e.txt", kDebug), 1u);
}

// ---------------------------------------------------------------------------

class TotalSizeTest : public ::testing::Test {
protected:
    ScopedCapturingLogger logger;
    ManagerFixture fixture;
    TempDir dir;
};

TEST_F(TotalSizeTest, EmptyDirectoryAddsNothing)
{
    MakeDirs(dir.Join("empty"));
    size_t total = 5;
    std::vector<FileDescription> files(1);
    EXPECT_TRUE(fixture.manager->getTotalSize(dir.Join("empty"), total, files, dir.Path()));
    EXPECT_EQ(total, 5u);
    EXPECT_EQ(files.size(), 1u);
}

TEST_F(TotalSizeTest, OnlyHiddenEntriesAddNothing)
{
    MakeDirs(dir.Join("d/.git"));
    WriteText(dir.Join("d/.git/config"), "x");
    WriteText(dir.Join("d/.profile"), "hidden");
    size_t total = 0;
    std::vector<FileDescription> files;
    EXPECT_TRUE(fixture.manager->getTotalSize(dir.Join("d"), total, files, dir.Path()));
    EXPECT_EQ(total, 0u);
    EXPECT_TRUE(files.empty());
    EXPECT_TRUE(logger->WithMessagePrefix("Find new entry: ").empty());
}

TEST_F(TotalSizeTest, UnopenableDirectoryFailsAndLogsTwice)
{
    const std::string missing = dir.Join("missing");
    size_t total = 0;
    std::vector<FileDescription> files;
    EXPECT_FALSE(fixture.manager->getTotalSize(missing, total, files, dir.Path()));
    EXPECT_EQ(logger->CountMessage("Error opening directory: " + missing + "\n", kWarning), 2u);

    WriteText(dir.Join("file.txt"), "not a directory");
    EXPECT_FALSE(fixture.manager->getTotalSize(dir.Join("file.txt"), total, files, dir.Path()));
    EXPECT_EQ(logger->CountMessage("Error opening directory: " + dir.Join("file.txt") + "\n", kWarning), 2u);
}

TEST_F(TotalSizeTest, EntryWithoutStatusStopsTheWalkAndLogsTwice)
{
    MakeDirs(dir.Join("d"));
    ASSERT_EQ(symlink(dir.Join("nowhere").c_str(), dir.Join("d/dangling").c_str()), 0);
    size_t total = 0;
    std::vector<FileDescription> files;
    EXPECT_FALSE(fixture.manager->getTotalSize(dir.Join("d"), total, files, dir.Path()));
    EXPECT_EQ(logger->CountMessage("Error getting stats for: " + dir.Join("d/dangling") + "\n", kWarning), 2u);
    EXPECT_TRUE(logger->WithMessagePrefix("Find new entry: " + dir.Join("d/dangling")).empty());
    EXPECT_TRUE(files.empty());
}

TEST_F(TotalSizeTest, FailureInSubdirectoryPropagatesAndKeepsEarlierWork)
{
    MakeDirs(dir.Join("d/sub"));
    ASSERT_EQ(symlink(dir.Join("nowhere").c_str(), dir.Join("d/sub/dangling").c_str()), 0);
    size_t total = 1000;
    std::vector<FileDescription> files(2);
    EXPECT_FALSE(fixture.manager->getTotalSize(dir.Join("d"), total, files, dir.Path()));
    EXPECT_EQ(logger->CountMessage("Error getting stats for: " + dir.Join("d/sub/dangling") + "\n", kWarning), 2u);
    // What was there before the failure stays.
    EXPECT_EQ(total, 1000u);
    EXPECT_EQ(files.size(), 2u);
}

TEST_F(TotalSizeTest, NonDirectoryEntriesCountAsFiles)
{
    MakeDirs(dir.Join("d"));
    ASSERT_EQ(mkfifo(dir.Join("d/pipe").c_str(), 0600), 0);
    WriteText(dir.Join("target.txt"), "12345");
    ASSERT_EQ(symlink(dir.Join("target.txt").c_str(), dir.Join("d/link").c_str()), 0);
    size_t total = 0;
    std::vector<FileDescription> files;
    ASSERT_TRUE(fixture.manager->getTotalSize(dir.Join("d"), total, files, dir.Path()));
    const auto sorted = SortedByPath(files);
    ASSERT_EQ(sorted.size(), 2u);
    ExpectSameDescription(sorted[0], Expected(dir.Path(), "d", "link", 5));
    ExpectSameDescription(sorted[1], Expected(dir.Path(), "d", "pipe", 0));
    EXPECT_EQ(total, 5u);
}

// A copied tree with nested, hidden and empty directories and a sparse file
// above 4 GiB, walked and then validated as a host would offer it.
class CopiedTreeTest : public TotalSizeTest {
protected:
    void SetUp() override
    {
        MakeDirs(dir.Join("copied/sub/deeper"));
        MakeDirs(dir.Join("copied/sub/empty"));
        MakeDirs(dir.Join("copied/.hiddendir"));
        WriteBytes(dir.Join("copied/a.txt"), PatternBytes(100, 1));
        WriteBytes(dir.Join("copied/.hidden.txt"), PatternBytes(10, 2));
        WriteBytes(dir.Join("copied/.hiddendir/inner.txt"), PatternBytes(10, 3));
        WriteBytes(dir.Join("copied/sub/b.bin"), PatternBytes(65537, 4));
        WriteBytes(dir.Join("copied/sub/deeper/c.txt"), PatternBytes(1, 5));
        WriteBytes(dir.Join("copied/zero"), {});
        WriteBytes(dir.Join("copied/big.img"), {});
        std::filesystem::resize_file(dir.Join("copied/big.img"), kBigSize);
        WriteBytes(dir.Join("top.txt"), PatternBytes(7, 6));
    }

    std::vector<FileDescription> ExpectedTree() const
    {
        return SortedByPath({
            Expected(dir.Path(), "copied", "a.txt", 100),
            Expected(dir.Path(), "copied", "zero", 0),
            Expected(dir.Path(), "copied", "big.img", kBigSize),
            Expected(dir.Path(), "copied/sub", "b.bin", 65537),
            Expected(dir.Path(), "copied/sub/deeper", "c.txt", 1),
        });
    }

    static constexpr uint64_t kTreeSize = 100 + kBigSize + 65537 + 1;
};

TEST_F(CopiedTreeTest, WalkFindsEveryVisibleFileWithItsRelativePath)
{
    size_t total = 0;
    std::vector<FileDescription> files;
    ASSERT_TRUE(fixture.manager->getTotalSize(dir.Join("copied"), total, files, dir.Path()));
    EXPECT_EQ(total, kTreeSize);
    const auto sorted = SortedByPath(files);
    const auto expected = ExpectedTree();
    ASSERT_EQ(sorted.size(), expected.size());
    for (size_t i = 0; i < expected.size(); ++i) {
        ExpectSameDescription(sorted[i], expected[i]);
    }
}

TEST_F(CopiedTreeTest, WalkLogsEachVisibleEntryAndItsParse)
{
    size_t total = 0;
    std::vector<FileDescription> files;
    ASSERT_TRUE(fixture.manager->getTotalSize(dir.Join("copied"), total, files, dir.Path()));

    const std::string copied = dir.Join("copied");
    EXPECT_EQ(logger->CountMessage("Find new entry: " + copied + "/a.txt, a.txt, " + copied + ", 100", kDebug), 1u);
    EXPECT_EQ(logger->CountMessage("Find new entry: " + copied + "/big.img, big.img, " + copied + ", " +
                                       std::to_string(kBigSize),
                                   kDebug),
              1u);
    EXPECT_EQ(logger->CountMessage("Find new entry: " + copied + "/sub/b.bin, b.bin, " + copied + "/sub, 65537",
                                   kDebug),
              1u);
    // Directories are entries too, though they never join the list.
    EXPECT_EQ(logger->WithMessagePrefix("Find new entry: " + copied + "/sub, sub, " + copied + ", ").size(), 1u);
    EXPECT_EQ(logger->WithMessagePrefix("Find new entry: " + copied + "/sub/empty, empty, ").size(), 1u);
    EXPECT_EQ(logger->WithMessagePrefix("Find new entry: " + copied + "/sub/deeper, deeper, ").size(), 1u);
    // Five files and three directories, nothing hidden.
    EXPECT_EQ(logger->WithMessagePrefix("Find new entry: ").size(), 8u);
    for (const LogLine& line : logger->Lines()) {
        EXPECT_EQ(MessageOf(line.text).find("/.hidden"), std::string::npos) << line.text;
    }

    EXPECT_EQ(logger->CountMessage("Parse file " + copied + "/sub/b.bin", kDebug), 1u);
    EXPECT_EQ(logger->CountMessage("Parse got file " + dir.Path() + ", copied/sub, b.bin", kDebug), 1u);
    EXPECT_EQ(logger->CountMessage("Parse got file " + dir.Path() + ", copied/sub/deeper, c.txt", kDebug), 1u);
}

TEST_F(CopiedTreeTest, ValidatedListGetsSizesAttributesAndExpandedFiles)
{
    FileDescription copied;
    FileDescription top;
    fixture.manager->ParseFilePath(dir.Join("copied"), copied, "");
    fixture.manager->ParseFilePath(dir.Join("top.txt"), top, "");
    std::vector<FileDescription> list{top, copied};

    size_t total = 0;
    bool hasDirectory = false;
    std::vector<FileDescription> expanded;
    ASSERT_TRUE(fixture.manager->ValidateFileList(list, total, hasDirectory, expanded));

    EXPECT_TRUE(hasDirectory);
    EXPECT_EQ(total, 7 + kTreeSize);
    ExpectSameDescription(list[0], Expected(dir.Path(), "", "top.txt", 7));
    FileDescription copiedExpected = Expected(dir.Path(), "", "copied", kTreeSize);
    copiedExpected.attribute = kAttributeDirectory;
    ExpectSameDescription(list[1], copiedExpected);

    const auto sorted = SortedByPath(expanded);
    const auto expected = ExpectedTree();
    ASSERT_EQ(sorted.size(), expected.size());
    for (size_t i = 0; i < expected.size(); ++i) {
        ExpectSameDescription(sorted[i], expected[i]);
    }
}

// ---------------------------------------------------------------------------

class ValidateFileListTest : public TotalSizeTest {};

TEST_F(ValidateFileListTest, EmptyListPassesWithZeroTotal)
{
    std::vector<FileDescription> list;
    size_t total = 99;
    bool hasDirectory = false;
    std::vector<FileDescription> expanded;
    EXPECT_TRUE(fixture.manager->ValidateFileList(list, total, hasDirectory, expanded));
    EXPECT_EQ(total, 0u);
    EXPECT_FALSE(hasDirectory);
    EXPECT_TRUE(expanded.empty());
}

TEST_F(ValidateFileListTest, FilesOnlyLeaveTheDirectoryFlagAsItWas)
{
    WriteBytes(dir.Join("a"), PatternBytes(3));
    std::vector<FileDescription> list{TopLevelFile(dir.Path(), "a", 0)};
    size_t total = 0;
    bool hasDirectory = false;
    std::vector<FileDescription> expanded;
    EXPECT_TRUE(fixture.manager->ValidateFileList(list, total, hasDirectory, expanded));
    EXPECT_FALSE(hasDirectory);

    hasDirectory = true;
    EXPECT_TRUE(fixture.manager->ValidateFileList(list, total, hasDirectory, expanded));
    EXPECT_TRUE(hasDirectory);
}

TEST_F(ValidateFileListTest, MissingEntryStopsWithPartialResults)
{
    WriteBytes(dir.Join("first"), PatternBytes(11));
    WriteBytes(dir.Join("third"), PatternBytes(13));
    FileDescription first;
    first.sourceDir = dir.Path();
    first.fileName = "first";
    FileDescription missing = first;
    missing.fileName = "second";
    FileDescription third = first;
    third.fileName = "third";
    std::vector<FileDescription> list{first, missing, third};

    size_t total = 0;
    bool hasDirectory = false;
    std::vector<FileDescription> expanded;
    EXPECT_FALSE(fixture.manager->ValidateFileList(list, total, hasDirectory, expanded));
    EXPECT_EQ(logger->CountMessage(dir.Join("second") + " is not exist", kWarning), 1u);
    EXPECT_EQ(total, 11u);
    EXPECT_EQ(list[0].fileSize, 11u);
    EXPECT_EQ(list[0].attribute, kAttributeNormal);
    EXPECT_EQ(list[2].fileSize, 0u);
    EXPECT_EQ(list[2].attribute, 0u);
}

TEST_F(ValidateFileListTest, DirectoryThatCannotBeSizedFails)
{
    MakeDirs(dir.Join("d"));
    ASSERT_EQ(symlink(dir.Join("nowhere").c_str(), dir.Join("d/dangling").c_str()), 0);
    std::vector<FileDescription> list{TopLevelFile(dir.Path(), "d", 0)};
    size_t total = 0;
    bool hasDirectory = false;
    std::vector<FileDescription> expanded;
    EXPECT_FALSE(fixture.manager->ValidateFileList(list, total, hasDirectory, expanded));
    EXPECT_TRUE(hasDirectory);
    EXPECT_EQ(logger->CountMessage("failed to calculate size under directory " + dir.Join("d"), kWarning), 1u);
}

TEST_F(ValidateFileListTest, BackslashesAndRelativeDirectoryFormThePath)
{
    MakeDirs(dir.Join("sub/inner"));
    WriteBytes(dir.Join("sub/inner/f.bin"), PatternBytes(21));
    // A Windows-looking source directory still names the local path.
    FileDescription file;
    file.sourceDir = dir.Path() + "\\sub";
    file.filePath = "inner";
    file.fileName = "f.bin";
    // A relative directory with no name is the directory itself.
    FileDescription directory;
    directory.sourceDir = dir.Path();
    directory.filePath = "sub";
    std::vector<FileDescription> list{file, directory};

    size_t total = 0;
    bool hasDirectory = false;
    std::vector<FileDescription> expanded;
    ASSERT_TRUE(fixture.manager->ValidateFileList(list, total, hasDirectory, expanded));
    EXPECT_EQ(list[0].attribute, kAttributeNormal);
    EXPECT_EQ(list[0].fileSize, 21u);
    EXPECT_EQ(list[1].attribute, kAttributeDirectory);
    EXPECT_EQ(list[1].fileSize, 21u);
    EXPECT_EQ(total, 42u);
    ASSERT_EQ(expanded.size(), 1u);
    ExpectSameDescription(expanded[0], Expected(dir.Path(), "sub/inner", "f.bin", 21));
}

}  // namespace
}  // namespace orin::xfer::test
