// `xferfm serve --names windows` fits every name a sender sends to a Windows
// destination: mapped names land under their mapped forms with a line
// each, refused ones are named at both ends and the rest is copied (exit
// code 7 at both ends), and a verified send checks the mapped copies.
#include <gtest/gtest.h>

#include <filesystem>

#include "ServeProcess.h"
#include "ToolExitCodes.h"

namespace orin::xfer::test {
namespace {

using namespace std::chrono_literals;

// U+FF1A and U+FF2E in UTF-8.
const std::string kColon = "\xEF\xBC\x9A";
const std::string kFullN = "\xEF\xBC\xAE";

class ToolServeNamesTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        dest = scratch / "dest";
        WriteText(scratch / "src/a:b", "colon");
        WriteText(scratch / "src/CON.txt", "device");
        WriteText(scratch / "src/plain", "plain");
        std::filesystem::create_directories(dest);
    }

    TempDir scratch;
    std::string dest;
};

TEST_F(ToolServeNamesTest, AWindowsServeLandsMappedNamesAndAVerifiedSendChecksThem)
{
    ServeProcess serve(scratch, dest, {"--once", "--names", "windows"});
    ASSERT_TRUE(serve.Listening()) << serve.Process().Describe();

    const auto send = RunSend(scratch, "send", {"--verify", serve.Address(), scratch / "src"});

    EXPECT_EQ(send->ExitCode(), toInt(cli::ExitCode::kOk)) << send->Describe();
    ASSERT_TRUE(serve.Process().WaitExit(10s));
    EXPECT_EQ(serve.Process().ExitCode(), toInt(cli::ExitCode::kOk)) << serve.Process().Describe();
    EXPECT_EQ(NamesIn(dest + "/src"), (std::vector<std::string>{"CO" + kFullN + ".txt", "a" + kColon + "b", "plain"}));
    EXPECT_NE(serve.Process().Stdout().find("landed 'src/a:b' as 'src/a" + kColon + "b'"), std::string::npos)
        << serve.Process().Describe();
}

TEST_F(ToolServeNamesTest, ARefusingServeNamesEachRefusedEntryAtBothEndsAndCopiesTheRest)
{
    ServeProcess serve(scratch, dest, {"--once", "--names", "windows", "--name-action", "refuse"});
    ASSERT_TRUE(serve.Listening()) << serve.Process().Describe();

    const auto send = RunSend(scratch, "send", {serve.Address(), scratch / "src"});

    EXPECT_EQ(send->ExitCode(), toInt(cli::ExitCode::kNamesRefused)) << send->Describe();
    ASSERT_TRUE(serve.Process().WaitExit(10s));
    EXPECT_EQ(serve.Process().ExitCode(), toInt(cli::ExitCode::kNamesRefused)) << serve.Process().Describe();
    EXPECT_EQ(NamesIn(dest + "/src"), (std::vector<std::string>{"plain"}));
    EXPECT_NE(serve.Process().Stderr().find("not copied: \"src/a:b\""), std::string::npos)
        << serve.Process().Describe();
    EXPECT_NE(send->Stderr().find("a:b"), std::string::npos) << send->Describe();
}

}  // namespace
}  // namespace orin::xfer::test
