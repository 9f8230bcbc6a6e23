// `xferfm serve` pasting into a DEST_DIR whose names are taken by dangling
// symbolic links: a taken name is taken whatever holds it, so each copy
// lands under the next free name and every link is left as it was.
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>

#include "ServeProcess.h"
#include "ToolExitCodes.h"

namespace orin::xfer::test {
namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;

TEST(ToolTakenNamesTest, DanglingLinksTakeTheirNamesAndTheCopiesLandUnderTheNextFreeOnes)
{
    TempDir scratch;
    const std::string dest = scratch / "dest";
    WriteText(scratch / "src/ok.txt", "ok");
    WriteText(scratch / "src/a.txt", "a");
    WriteText(scratch / "src/d/inside.txt", "inside");
    WriteText(dest + "/a.txt", "was here");
    fs::create_directories(dest + "/d");
    for (const char* name : {"ok.txt", "a(1).txt", "d(1)"}) {
        ASSERT_EQ(::symlink("/nonexistent/target", (dest + "/" + name).c_str()), 0) << name;
    }
    ServeProcess serve(scratch, dest, {"--once"});
    ASSERT_TRUE(serve.Listening()) << serve.Process().Describe();
    const auto send = RunSend(scratch, "send",
                              {serve.Address(), scratch / "src/ok.txt", scratch / "src/a.txt", scratch / "src/d"});
    EXPECT_EQ(send->ExitCode(), toInt(cli::ExitCode::kOk)) << send->Describe();
    ASSERT_TRUE(serve.Process().WaitExit(10s));
    EXPECT_EQ(serve.Process().ExitCode(), toInt(cli::ExitCode::kOk)) << serve.Process().Describe();
    EXPECT_EQ(NamesIn(dest), (std::vector<std::string>{"a(1).txt", "a(2).txt", "a.txt", "d", "d(1)", "d(2)", "ok(1).txt",
                                                       "ok.txt"}));
    EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(dest + "/ok(1).txt")));
    EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(dest + "/a(2).txt")));
    EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(dest + "/d(2)/inside.txt")));
    for (const char* name : {"ok.txt", "a(1).txt", "d(1)"}) {
        EXPECT_TRUE(fs::is_symlink(fs::symlink_status(dest + "/" + name))) << name;
    }
}

}  // namespace
}  // namespace orin::xfer::test
