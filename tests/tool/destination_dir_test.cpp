// The one DEST_DIR check of `copy` and `serve`: a usable directory comes
// back absolute; anything else is refused with exit code 5 and a message
// naming the directory and the reason.
#include <gtest/gtest.h>
#include <unistd.h>

#include "DestinationDir.h"
#include "TestSupport.h"
#include "ToolError.h"
#include "TreeBuilders.h"

namespace xferfm::cli {
namespace {

using orin::xfer::test::TempDir;
using orin::xfer::test::makeDirectory;
using orin::xfer::test::writeTextFile;

// The message of the ToolError that `check` throws; fails the test when
// it throws none or one with another exit code.
template <typename Check>
std::string refusalOf(Check check)
{
    try {
        check();
    } catch (const ToolError& error) {
        EXPECT_EQ(error.code(), ExitCode::kDestinationUnusable) << error.what();
        return error.what();
    }
    ADD_FAILURE() << "the destination was accepted";
    return "";
}

TEST(DestinationDir, ADirectoryComesBackAsAnAbsolutePath)
{
    TempDir work;
    makeDirectory(work.Join("dest"));
    makeDirectory(work.Join("other"));

    EXPECT_EQ(usableDestinationDir(work.Join("other/../dest"), DestinationNeed::kWritableDirectory,
                                   "cannot copy into"),
              work.Join("dest"));
}

TEST(DestinationDir, AMissingDirectoryIsRefusedByName)
{
    TempDir work;
    const std::string missing = work.Join("not there");

    const std::string message =
        refusalOf([&] { usableDestinationDir(missing, DestinationNeed::kDirectory, "cannot copy into"); });

    EXPECT_EQ(message, "cannot copy into '" + missing + "': No such file or directory");
}

TEST(DestinationDir, AFileIsNotADirectory)
{
    TempDir work;
    const std::string file = work.Join("a file");
    writeTextFile(file, "not a directory\n");

    const std::string message =
        refusalOf([&] { usableDestinationDir(file, DestinationNeed::kDirectory, "cannot receive into"); });

    EXPECT_EQ(message, "cannot receive into '" + file + "': Not a directory");
}

TEST(DestinationDir, AReadOnlyDirectoryIsRefusedOnlyWhenWritingIsNeeded)
{
    if (geteuid() == 0) {
        GTEST_SKIP() << "root may write into any directory";
    }
    TempDir work;
    const std::string locked = work.Join("locked");
    makeDirectory(locked, 0555);

    EXPECT_EQ(usableDestinationDir(locked, DestinationNeed::kDirectory, "cannot copy into"), locked);
    const std::string message =
        refusalOf([&] { usableDestinationDir(locked, DestinationNeed::kWritableDirectory, "cannot receive into"); });
    EXPECT_EQ(message, "cannot receive into '" + locked + "': Permission denied");
}

}  // namespace
}  // namespace xferfm::cli
