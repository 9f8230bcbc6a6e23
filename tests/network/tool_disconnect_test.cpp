// A copy cut in the middle of a file by a process that dies: both sides
// say so within a couple of seconds, the receiver leaves no partial file
// under a final name, and `serve` takes the next sender.
#include <gtest/gtest.h>
#include <signal.h>

#include <filesystem>

#include "ToolExitCodes.h"
#include "ServeProcess.h"

namespace orin::xfer::test {
namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

constexpr size_t kBigFileBytes = 48u << 20;
// About 1 MB/s: the big file takes most of a minute, so the kill surely
// lands while it is in flight.
const std::string kSlowBandwidthKbps = "8000";

class DisconnectTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        source = scratch / "src";
        dest = scratch / "dest";
        WriteText(source + "/first.txt", "lands before the big one");
        WriteBytes(source + "/big.bin", PatternBytes(kBigFileBytes, 3));
        fs::create_directories(dest);
    }

    TempDir scratch;
    std::string source;
    std::string dest;
};

TEST_F(DisconnectTest, SenderKilledMidFileIsReportedAndServeGoesOn)
{
    ServeProcess serve(scratch, dest);
    ASSERT_TRUE(serve.Listening()) << serve.Process().Describe();
    ChildProcess sender(ToolPath(), {"send", "--no-progress", "--bandwidth", kSlowBandwidthKbps, serve.Address(), source},
                        scratch / "send");
    ASSERT_TRUE(waitUntil([&] { return PartialFileInCache(dest, "big.bin"); }, 30s)) << sender.Describe();

    sender.Signal(SIGKILL);
    const auto killed = Clock::now();
    const auto sessions = serve.WaitForSessions(1, 10s);
    ASSERT_EQ(sessions.size(), 1u) << serve.Process().Describe();
    EXPECT_LT(Clock::now() - killed, 3s) << "the receiver must notice the dead sender at once";
    EXPECT_NE(sessions[0].find("session 1 from 127.0.0.1:"), std::string::npos) << sessions[0];
    EXPECT_NE(sessions[0].find(": failed: "), std::string::npos) << sessions[0];
    EXPECT_NE(sessions[0].find("sender"), std::string::npos) << sessions[0];

    // The whole file that had landed stays; the one in flight never shows.
    EXPECT_FALSE(fs::exists(dest + "/src/big.bin"));
    for (const std::string& name : NamesIn(dest)) {
        EXPECT_EQ(name.find(".xferfm-cache-"), std::string::npos) << "cache left behind: " << name;
    }

    // Ready for the next sender.
    WriteText(scratch / "next/n.txt", "next sender");
    const auto next = RunSend(scratch, "send-next", {serve.Address(), scratch / "next"});
    EXPECT_EQ(next->ExitCode(), toInt(cli::ExitCode::kOk)) << next->Describe();
    const auto after = serve.WaitForSessions(2, 10s);
    ASSERT_EQ(after.size(), 2u) << serve.Process().Describe();
    EXPECT_NE(after[1].find("session 2 from 127.0.0.1:"), std::string::npos) << after[1];
    EXPECT_NE(after[1].find(": ok: received 1 files"), std::string::npos) << after[1];
    EXPECT_EQ(TreeDifference(scratch / "next", dest + "/next", TreeCompare::kBytes), "");
}

TEST_F(DisconnectTest, ASenderKilledMidFileEndsServeOnceWithTheLinkFailedCode)
{
    ServeProcess serve(scratch, dest, {"--once"});
    ASSERT_TRUE(serve.Listening()) << serve.Process().Describe();
    ChildProcess sender(ToolPath(), {"send", "--no-progress", "--bandwidth", kSlowBandwidthKbps, serve.Address(), source},
                        scratch / "send");
    ASSERT_TRUE(waitUntil([&] { return PartialFileInCache(dest, "big.bin"); }, 30s)) << sender.Describe();

    sender.Signal(SIGKILL);
    ASSERT_TRUE(serve.Process().WaitExit(10s)) << serve.Process().Describe();
    EXPECT_EQ(serve.Process().ExitCode(), toInt(cli::ExitCode::kLinkFailed)) << serve.Process().Describe();
    EXPECT_FALSE(fs::exists(dest + "/src/big.bin"));
}

TEST_F(DisconnectTest, ReceiverKilledMidFileFailsTheSenderClearly)
{
    ServeProcess serve(scratch, dest, {"--once"});
    ASSERT_TRUE(serve.Listening()) << serve.Process().Describe();
    ChildProcess sender(ToolPath(), {"send", "--no-progress", "--bandwidth", kSlowBandwidthKbps, serve.Address(), source},
                        scratch / "send");
    ASSERT_TRUE(waitUntil([&] { return PartialFileInCache(dest, "big.bin"); }, 30s)) << sender.Describe();

    serve.Process().Signal(SIGKILL);
    const auto killed = Clock::now();
    ASSERT_TRUE(sender.WaitExit(10s)) << sender.Describe();
    EXPECT_LT(Clock::now() - killed, 5s);
    EXPECT_EQ(sender.ExitCode(), toInt(cli::ExitCode::kLinkFailed)) << sender.Describe();
    EXPECT_NE(sender.Stderr().find("xferfm: send failed: the link to the receiver was lost: "), std::string::npos)
        << sender.Describe();
}

}  // namespace
}  // namespace orin::xfer::test
