// Renaming of requested entries that would overwrite something already at
// the destination: name(1).ext, name(2).ext..., with children of a renamed
// directory following their parent.
#include <gtest/gtest.h>

#include "DownloadSupport.h"
#include "TestSupport.h"

namespace orin::xfer::test {
namespace {

class DuplicateRenameTest : public ::testing::Test {
protected:
    FileDescription Entry(const std::string& name, bool isDirectory = false) const
    {
        FileDescription entry;
        entry.fileName = name;
        entry.destDir = dest;
        entry.attribute = isDirectory ? kAttributeDirectory : kAttributeNormal;
        return entry;
    }

    // Renames `entries` and returns the messages logged meanwhile; each must
    // be at level 2.
    std::vector<std::string> Rename(std::vector<FileDescription>& entries)
    {
        logger->Clear();
        m.RenameDuplicatedFilePath(entries);
        std::vector<std::string> messages;
        for (const LogLine& line : logger->Lines()) {
            EXPECT_EQ(line.level, 2) << line.text;
            messages.push_back(MessageOf(line.text));
        }
        return messages;
    }

    std::string Check(const std::string& relative) const { return "Check file duplicate, " + dest + "/" + relative; }

    ScopedCapturingLogger logger;
    TempDir tmp;
    std::string dest = tmp.Join("dest");
    ManagerFixture f;
    OrinFileTransferManager& m = *f.manager;
};

TEST_F(DuplicateRenameTest, TakesTheFirstFreeCounter)
{
    MakeDirs(dest);
    WriteText(dest + "/report.pdf", "1");
    WriteText(dest + "/report(1).pdf", "2");
    std::vector<FileDescription> entries = {Entry("report.pdf")};

    const auto messages = Rename(entries);

    EXPECT_EQ(entries[0].destFileName, "report(2).pdf");
    EXPECT_EQ(entries[0].fileName, "report.pdf");
    EXPECT_EQ(messages, (std::vector<std::string>{
                            Check("report.pdf"),
                            "Found file duplicate, try rename report.pdf to report(1).pdf",
                            Check("report(1).pdf"),
                            "Found file duplicate, try rename report.pdf to report(2).pdf",
                            Check("report(2).pdf"),
                            "Check file duplicate, file not exist, skip renaming",
                            "Got target file dest name, report(2).pdf",
                        }));
}

TEST_F(DuplicateRenameTest, NothingPresentKeepsTheFileName)
{
    std::vector<FileDescription> entries = {Entry("report.pdf")};

    const auto messages = Rename(entries);

    EXPECT_EQ(entries[0].destFileName, "report.pdf");
    EXPECT_EQ(messages, (std::vector<std::string>{
                            Check("report.pdf"),
                            "Check file duplicate, file not exist, skip renaming",
                            "Got target file dest name, ",
                        }));
}

TEST_F(DuplicateRenameTest, EachTryStartsFromTheOriginalName)
{
    MakeDirs(dest);
    WriteText(dest + "/a.txt", "");
    WriteText(dest + "/a(1).txt", "");
    std::vector<FileDescription> entries = {Entry("a.txt")};

    const auto messages = Rename(entries);

    EXPECT_EQ(entries[0].destFileName, "a(2).txt");
    EXPECT_TRUE(ContainsInOrder(messages, {"Found file duplicate, try rename a.txt to a(1).txt",
                                           "Found file duplicate, try rename a.txt to a(2).txt"}));
    for (const auto& message : messages) {
        EXPECT_EQ(message.find("(1)("), std::string::npos) << message;
    }
}

TEST_F(DuplicateRenameTest, CounterGoesBeforeTheFirstDot)
{
    MakeDirs(dest);
    WriteText(dest + "/a.tar.gz", "");
    WriteText(dest + "/.bashrc", "");
    WriteText(dest + "/README", "");
    std::vector<FileDescription> entries = {Entry("a.tar.gz"), Entry(".bashrc"), Entry("README")};

    Rename(entries);

    EXPECT_EQ(entries[0].destFileName, "a(1).tar.gz");
    EXPECT_EQ(entries[1].destFileName, "(1).bashrc");
    EXPECT_EQ(entries[2].destFileName, "README(1)");
}

TEST_F(DuplicateRenameTest, DirectoryGetsTheCounterAtTheEnd)
{
    MakeDirs(dest + "/v1.2");
    std::vector<FileDescription> entries = {Entry("v1.2", true)};

    Rename(entries);

    EXPECT_EQ(entries[0].destFileName, "v1.2(1)");
}

TEST_F(DuplicateRenameTest, ChildOfARenamedDirectoryFollowsItsParent)
{
    MakeDirs(dest + "/photos");
    std::vector<FileDescription> entries = {Entry("photos", true), Entry("photos/a.jpg")};

    const auto messages = Rename(entries);

    EXPECT_EQ(entries[0].destFileName, "photos(1)");
    EXPECT_EQ(entries[1].destFileName, "photos(1)/a.jpg");
    EXPECT_EQ(messages, (std::vector<std::string>{
                            Check("photos"),
                            "Found file duplicate, try rename photos to photos(1)",
                            Check("photos(1)"),
                            "Check file duplicate, file not exist, skip renaming",
                            "Got target file dest name, photos(1)",
                            Check("photos/a.jpg"),
                            "Matched parent directory, photos/a.jpg, photos/",
                            "Rename file name, photos/a.jpg, photos(1)",
                            "Check file duplicate, file not exist, skip renaming",
                            "Got target file dest name, photos(1)/a.jpg",
                        }));
}

TEST_F(DuplicateRenameTest, ChildPresentUnderTheOldDirectoryNameGetsItsOwnCounter)
{
    MakeDirs(dest + "/photos");
    WriteText(dest + "/photos/a.jpg", "");
    std::vector<FileDescription> entries = {Entry("photos", true), Entry("photos/a.jpg")};

    const auto messages = Rename(entries);

    EXPECT_EQ(entries[1].destFileName, "photos(1)/a(1).jpg");
    EXPECT_TRUE(ContainsInOrder(messages, {Check("photos/a.jpg"),
                                           "Matched parent directory, photos/a.jpg, photos/",
                                           "Rename file name, photos/a.jpg, photos(1)",
                                           "Found file duplicate, try rename photos(1)/a.jpg to photos(1)/a(1).jpg",
                                           Check("photos(1)/a(1).jpg"),
                                           "Got target file dest name, photos(1)/a(1).jpg"}));
}

TEST_F(DuplicateRenameTest, RenamesCarryDownThroughNestedDirectories)
{
    MakeDirs(dest + "/top");
    std::vector<FileDescription> entries = {Entry("top", true), Entry("top/sub", true), Entry("top/sub/f.txt")};

    Rename(entries);

    EXPECT_EQ(entries[0].destFileName, "top(1)");
    EXPECT_EQ(entries[1].destFileName, "top(1)/sub");
    EXPECT_EQ(entries[2].destFileName, "top(1)/sub/f.txt");
}

TEST_F(DuplicateRenameTest, ChildListedBeforeItsParentIsNotRenamed)
{
    MakeDirs(dest + "/photos");
    std::vector<FileDescription> entries = {Entry("photos/a.jpg"), Entry("photos", true)};

    Rename(entries);

    EXPECT_EQ(entries[0].destFileName, "photos/a.jpg");
    EXPECT_EQ(entries[1].destFileName, "photos(1)");
}

TEST_F(DuplicateRenameTest, UnrenamedDirectoryLeavesItsChildrenAlone)
{
    std::vector<FileDescription> entries = {Entry("photos", true), Entry("photos/a.jpg")};

    Rename(entries);

    EXPECT_EQ(entries[0].destFileName, "photos");
    EXPECT_EQ(entries[1].destFileName, "photos/a.jpg");
    EXPECT_TRUE(logger->WithMessagePrefix("Matched parent directory, ").empty());
}

}  // namespace
}  // namespace orin::xfer::test
