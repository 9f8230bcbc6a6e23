// A name that already exists in DEST_DIR is never overwritten: the copy
// arrives as "name(1).ext", "name(2).ext", ... with the counter before the
// first dot of the name (so "a.tar.gz" -> "a(1).tar.gz", ".bashrc" ->
// "(1).bashrc") and at the end of a directory's name.
#include <gtest/gtest.h>

#include "ToolExitCodes.h"
#include "TestSupport.h"
#include "ToolRunner.h"
#include "TreeBuilders.h"
#include "TreeCompare.h"

namespace orin::xfer::test {
namespace {

using namespace orin::xfer::test;

class NameClash : public ::testing::Test {
protected:
    void SetUp() override
    {
        source = work.Join("source");
        destination = work.Join("destination");
        makeDirectory(source);
        makeDirectory(destination);
    }

    ToolResult copy(const std::vector<std::string>& names)
    {
        std::vector<std::string> args{"copy", "--no-progress"};
        for (const std::string& name : names) {
            args.push_back(source + "/" + name);
        }
        args.push_back(destination);
        return runTool(args);
    }

    TempDir work;
    std::string source;
    std::string destination;
};

TEST_F(NameClash, ExistingFileKeepsItsContentAndTheCopyGetsACounter)
{
    writeTextFile(source + "/report.pdf", "new report\n");
    writeTextFile(destination + "/report.pdf", "old report\n");

    const ToolResult first = copy({"report.pdf"});
    const ToolResult second = copy({"report.pdf"});

    ASSERT_EQ(first.exitCode, toInt(cli::ExitCode::kOk)) << describe(first);
    ASSERT_EQ(second.exitCode, toInt(cli::ExitCode::kOk)) << describe(second);
    EXPECT_EQ(readTextFile(destination + "/report.pdf"), "old report\n");
    EXPECT_EQ(readTextFile(destination + "/report(1).pdf"), "new report\n");
    EXPECT_EQ(readTextFile(destination + "/report(2).pdf"), "new report\n");
    EXPECT_NE(first.out.find("report(1).pdf"), std::string::npos) << "the rename is reported: " << first.out;
}

TEST_F(NameClash, ExistingDirectoryIsLeftAloneAndTheCopyGetsACounter)
{
    makeDirectory(source + "/photos");
    writeTextFile(source + "/photos/a.jpg", "new a\n");
    makeDirectory(source + "/photos/empty");
    makeDirectory(destination + "/photos");
    writeTextFile(destination + "/photos/a.jpg", "old a\n");

    const ToolResult result = copy({"photos"});

    ASSERT_EQ(result.exitCode, toInt(cli::ExitCode::kOk)) << describe(result);
    EXPECT_EQ(NamesIn(destination + "/photos"), std::vector<std::string>{"a.jpg"});
    EXPECT_EQ(readTextFile(destination + "/photos/a.jpg"), "old a\n");
    const std::vector<std::string> differences = TreeDifferences(source + "/photos", destination + "/photos(1)");
    EXPECT_TRUE(differences.empty()) << ::testing::PrintToString(differences);
}

TEST_F(NameClash, CounterGoesBeforeTheFirstDot)
{
    writeTextFile(source + "/archive.tar.gz", "archive\n");
    writeTextFile(source + "/.bashrc", "rc\n");
    writeTextFile(source + "/README", "readme\n");
    for (const char* name : {"archive.tar.gz", "archive(1).tar.gz", ".bashrc", "README"}) {
        writeTextFile(destination + "/" + name, "taken\n");
    }

    const ToolResult result = copy({"archive.tar.gz", ".bashrc", "README"});

    ASSERT_EQ(result.exitCode, toInt(cli::ExitCode::kOk)) << describe(result);
    EXPECT_EQ(readTextFile(destination + "/archive(2).tar.gz"), "archive\n");
    EXPECT_EQ(readTextFile(destination + "/(1).bashrc"), "rc\n");
    EXPECT_EQ(readTextFile(destination + "/README(1)"), "readme\n");
    EXPECT_EQ(readTextFile(destination + "/archive.tar.gz"), "taken\n");
    EXPECT_TRUE(LeftoverCaches(destination).empty());
}

TEST_F(NameClash, TwoSourcesWithTheSameNameAreRefused)
{
    makeDirectory(source + "/a");
    makeDirectory(source + "/b");
    writeTextFile(source + "/a/same.txt", "a\n");
    writeTextFile(source + "/b/same.txt", "b\n");

    const ToolResult result = copy({"a/same.txt", "b/same.txt"});

    EXPECT_EQ(result.exitCode, toInt(cli::ExitCode::kUsage)) << describe(result);
    EXPECT_NE(result.err.find("same.txt"), std::string::npos) << result.err;
    EXPECT_TRUE(NamesIn(destination).empty());
}

}  // namespace
}  // namespace orin::xfer::test
