// What `xferfm serve` does with what a sender lists beyond the bytes:
// modification times kept, permission bits under serve's umask unless
// `serve -p`; and how it reports a session: -q, -v, --json, and the exit
// codes of a session whose sender vanished (8) or cancelled (10).
#include <gtest/gtest.h>
#include <json/json.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>

#include <filesystem>
#include <sstream>

#include "JsonText.h"
#include "ServeProcess.h"
#include "ToolExitCodes.h"

namespace orin::xfer::test {
namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;

mode_t ModeOf(const std::string& path)
{
    struct stat status {};
    EXPECT_EQ(::stat(path.c_str(), &status), 0) << path;
    return status.st_mode & 07777;
}

timespec ModifiedOf(const std::string& path)
{
    struct stat status {};
    EXPECT_EQ(::stat(path.c_str(), &status), 0) << path;
    return status.st_mtim;
}

// A `serve` started under `mask`, the test's own umask restored after.
std::unique_ptr<ServeProcess> ServeUnder(mode_t mask, const TempDir& scratch, const std::string& dest,
                                         std::vector<std::string> args)
{
    const mode_t before = ::umask(mask);
    auto serve = std::make_unique<ServeProcess>(scratch, dest, std::move(args));
    ::umask(before);
    return serve;
}

class ServeLanding : public ::testing::Test {
protected:
    void SetUp() override
    {
        tree = scratch / "tree";
        dest = scratch / "dest";
        WriteText(tree + "/open.txt", "open to all\n");
        WriteText(tree + "/sub/tool.sh", "#!/bin/sh\n");
        fs::create_directories(dest);
        ASSERT_EQ(::chmod((tree + "/open.txt").c_str(), 0666), 0);
        ASSERT_EQ(::chmod((tree + "/sub/tool.sh").c_str(), 0777), 0);
        ASSERT_EQ(::chmod((tree + "/sub").c_str(), 0777), 0);
        // Times well in the past, to the nanosecond.
        const timespec times[2] = {{1500000000, 123456789}, {1500000000, 123456789}};
        for (const char* path : {"/open.txt", "/sub/tool.sh", "/sub"}) {
            ASSERT_EQ(::utimensat(AT_FDCWD, (tree + path).c_str(), times, 0), 0) << path;
        }
    }

    TempDir scratch;
    std::string tree;
    std::string dest;
};

TEST_F(ServeLanding, ModesLandUnderServesUmaskAndTimesAreKept)
{
    auto serve = ServeUnder(027, scratch, dest, {"--once"});
    ASSERT_TRUE(serve->Listening()) << serve->Process().Describe();

    const auto send = RunSend(scratch, "send", {serve->Address(), tree});

    ASSERT_TRUE(send->Exited()) << send->Describe();
    EXPECT_EQ(send->ExitCode(), toInt(cli::ExitCode::kOk)) << send->Describe();
    ASSERT_TRUE(serve->Process().WaitExit(10s)) << serve->Process().Describe();
    EXPECT_EQ(ModeOf(dest + "/tree/open.txt"), 0640u);
    EXPECT_EQ(ModeOf(dest + "/tree/sub/tool.sh"), 0750u);
    EXPECT_EQ(ModeOf(dest + "/tree/sub"), 0750u);
    for (const char* path : {"/open.txt", "/sub/tool.sh", "/sub"}) {
        const timespec source = ModifiedOf(tree + path);
        const timespec landed = ModifiedOf(dest + "/tree" + path);
        EXPECT_EQ(landed.tv_sec, source.tv_sec) << path;
        EXPECT_EQ(landed.tv_nsec, source.tv_nsec) << path;
    }
}

TEST_F(ServeLanding, PreservePermsLandsTheExactModes)
{
    auto serve = ServeUnder(027, scratch, dest, {"--once", "-p"});
    ASSERT_TRUE(serve->Listening()) << serve->Process().Describe();

    const auto send = RunSend(scratch, "send", {serve->Address(), tree});

    ASSERT_TRUE(send->Exited()) << send->Describe();
    EXPECT_EQ(send->ExitCode(), toInt(cli::ExitCode::kOk)) << send->Describe();
    ASSERT_TRUE(serve->Process().WaitExit(10s)) << serve->Process().Describe();
    EXPECT_EQ(ModeOf(dest + "/tree/open.txt"), 0666u);
    EXPECT_EQ(ModeOf(dest + "/tree/sub/tool.sh"), 0777u);
    EXPECT_EQ(ModeOf(dest + "/tree/sub"), 0777u);
}

TEST_F(ServeLanding, JsonIsOneDocumentPerSessionAndVerboseNamesEachFileOnStderr)
{
    fs::create_directories(dest + "/tree");  // taken: lands as tree(1)
    ServeProcess serve(scratch, dest, {"--once", "--json", "-v"});
    ASSERT_TRUE(serve.Listening()) << serve.Process().Describe();

    const auto send = RunSend(scratch, "send", {"--verify", serve.Address(), tree});

    ASSERT_TRUE(send->Exited()) << send->Describe();
    ASSERT_TRUE(serve.Process().WaitExit(10s)) << serve.Process().Describe();
    EXPECT_EQ(serve.Process().ExitCode(), toInt(cli::ExitCode::kOk)) << serve.Process().Describe();
    const Json::Value session = ParseJsonText(serve.Process().Stdout());
    EXPECT_EQ(session["session"].asUInt(), 1u);
    EXPECT_EQ(session["outcome"].asString(), "ok");
    EXPECT_EQ(session["failure"].asString(), "");
    EXPECT_EQ(session["files"].asUInt64(), 2u);
    EXPECT_EQ(session["bytes"].asUInt64(), 12u + 10u);
    EXPECT_EQ(session["destination"].asString(), fs::canonical(dest).string());
    ASSERT_EQ(session["renamed"].size(), 1u) << serve.Process().Stdout();
    EXPECT_EQ(session["renamed"][0]["name"].asString(), "tree");
    EXPECT_EQ(session["renamed"][0]["finalName"].asString(), "tree(1)");
    EXPECT_TRUE(session["verify"]["matched"].asBool());
    EXPECT_EQ(session["exitCode"].asInt(), 0);
    EXPECT_EQ(LinesWith(serve.Process().Stderr(), ": received ").size(), 2u) << serve.Process().Describe();
}

TEST_F(ServeLanding, QuietPrintsNothingOnStdout)
{
    ServeProcess serve(scratch, dest, {"--once", "-q"});
    ASSERT_TRUE(serve.Listening()) << serve.Process().Describe();

    const auto send = RunSend(scratch, "send", {serve.Address(), tree});

    ASSERT_TRUE(send->Exited()) << send->Describe();
    ASSERT_TRUE(serve.Process().WaitExit(10s)) << serve.Process().Describe();
    EXPECT_EQ(serve.Process().ExitCode(), toInt(cli::ExitCode::kOk)) << serve.Process().Describe();
    EXPECT_EQ(serve.Process().Stdout(), "");
    EXPECT_EQ(serve.Process().Stderr(), "");
    EXPECT_EQ(TreeDifference(tree, dest + "/tree", TreeCompare::kBytes), "");
}

// A sender that is mid-file when `signal` reaches it.
void SenderStoppedMidFile(int signal, cli::ExitCode expected, const char* words)
{
    TempDir scratch;
    const std::string dest = scratch / "dest";
    fs::create_directories(dest);
    WriteBytes(scratch / "slow/big.bin", PatternBytes(32u << 20, 5));
    ServeProcess serve(scratch, dest, {"--once"});
    ASSERT_TRUE(serve.Listening()) << serve.Process().Describe();
    // About 1 MB/s, so the file is surely still in flight.
    ChildProcess sender(ToolPath(), {"send", "--no-progress", "--bandwidth", "8000", serve.Address(), scratch / "slow"},
                        scratch / "sender");
    ASSERT_TRUE(waitUntil([&] { return PartialFileInCache(dest, "big.bin"); }, 30s)) << sender.Describe();

    sender.Signal(signal);

    ASSERT_TRUE(serve.Process().WaitExit(20s)) << serve.Process().Describe();
    EXPECT_EQ(serve.Process().ExitCode(), toInt(expected)) << serve.Process().Describe();
    EXPECT_EQ(LinesWith(serve.Process().Stdout(), words).size(), 1u) << serve.Process().Describe();
    EXPECT_FALSE(fs::exists(dest + "/slow/big.bin"));
    EXPECT_TRUE(sender.WaitExit(20s)) << sender.Describe();
}

TEST(ServeSessionEnd, ASenderThatVanishesMidFileEndsServeOnceWithTheLinkCode)
{
    SenderStoppedMidFile(SIGKILL, cli::ExitCode::kLinkFailed, ": failed: the link to the sender was lost: ");
}

TEST(ServeSessionEnd, ASenderCancelledMidFileEndsServeOnceWithTheCancelledCode)
{
    SenderStoppedMidFile(SIGINT, cli::ExitCode::kCancelledByPeer, ": failed: the sender cancelled the copy");
}

}  // namespace
}  // namespace orin::xfer::test
