// `xferfm serve --stdio` and `xferfm send --stdio` as processes joined by
// two pipes, as a remote shell joins them: the frames cross standard input
// and output, every human line goes to stderr, and the exit codes and the
// receiver's guards are those of a copy over TCP.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <unistd.h>

#include <filesystem>

#include "HostileSender.h"
#include "ServeProcess.h"
#include "ToolExitCodes.h"
#include "Wait.h"
#include "xferfm/host/StreamTransport.h"

namespace orin::xfer::test {
namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;

struct Pipe {
    OwnedFd readEnd;
    OwnedFd writeEnd;
};

Pipe MakePipe()
{
    int fds[2] = {-1, -1};
    EXPECT_EQ(::pipe2(fds, O_CLOEXEC), 0);
    return {OwnedFd(fds[0]), OwnedFd(fds[1])};
}

// A `serve --stdio` and a `send --stdio` whose standard input and output
// are joined crosswise; the test keeps no end of either pipe.
struct JoinedPair {
    std::unique_ptr<ChildProcess> serve;
    std::unique_ptr<ChildProcess> send;
};

JoinedPair StartJoined(const TempDir& scratch, const std::string& dest, const std::vector<std::string>& sendArgs)
{
    Pipe toServe = MakePipe();
    Pipe toSend = MakePipe();
    ChildOptions serveIo;
    serveIo.standardInput = toServe.readEnd.Fd();
    serveIo.standardOutput = toSend.writeEnd.Fd();
    ChildOptions sendIo;
    sendIo.standardInput = toSend.readEnd.Fd();
    sendIo.standardOutput = toServe.writeEnd.Fd();
    std::vector<std::string> send{"send", "--stdio", "--no-progress"};
    send.insert(send.end(), sendArgs.begin(), sendArgs.end());
    JoinedPair pair;
    pair.serve = std::make_unique<ChildProcess>(ToolPath(), std::vector<std::string>{"serve", "--stdio", dest},
                                                scratch / "serve", serveIo);
    pair.send = std::make_unique<ChildProcess>(ToolPath(), send, scratch / "send", sendIo);
    return pair;
}

void MakeSampleTree(const std::string& root)
{
    WriteText(root + "/readme.txt", "hello over pipes\n");
    WriteBytes(root + "/data/big.bin", PatternBytes(3 * 1024 * 1024 + 123, 7));
    WriteBytes(root + "/data/deeper/small.bin", PatternBytes(100, 9));
    WriteText(root + "/empty-file", "");
    fs::create_directories(root + "/empty-dir");
}

TEST(StdioToolTest, ATreeCrossesTwoPipesByteForByteVerifiedWithEveryLineOnStderr)
{
    TempDir scratch;
    const std::string source = scratch / "tree";
    const std::string dest = scratch / "dest";
    MakeSampleTree(source);
    fs::create_directories(dest);

    JoinedPair pair = StartJoined(scratch, dest, {"--verify", source});
    ASSERT_TRUE(pair.send->WaitExit(60s)) << pair.send->Describe();
    ASSERT_TRUE(pair.serve->WaitExit(10s)) << pair.serve->Describe();
    EXPECT_EQ(pair.send->ExitCode(), toInt(cli::ExitCode::kOk)) << pair.send->Describe();
    EXPECT_EQ(pair.serve->ExitCode(), toInt(cli::ExitCode::kOk)) << pair.serve->Describe();

    EXPECT_NE(pair.send->Stderr().find("verified 4 files: SHA-256 of every copy matches its source"), std::string::npos)
        << pair.send->Describe();
    EXPECT_NE(pair.send->Stderr().find("sent 4 files"), std::string::npos) << pair.send->Describe();
    const auto sessions = LinesWith(pair.serve->Stderr(), "session 1 from standard input/output: ok: received 4 files");
    EXPECT_EQ(sessions.size(), 1u) << pair.serve->Describe();
    EXPECT_NE(pair.serve->Stderr().find("verified 4 files"), std::string::npos) << pair.serve->Describe();

    EXPECT_EQ(TreeDifference(source, dest + "/tree", TreeCompare::kBytes), "");
    EXPECT_EQ(NamesIn(dest), std::vector<std::string>{"tree"}) << "no cache directory is left behind";
}

TEST(StdioToolTest, ASenderKilledMidFileEndsTheReceiverWithExitCode8AndNothingPartial)
{
    TempDir scratch;
    const std::string dest = scratch / "dest";
    WriteBytes(scratch / "src/big.bin", PatternBytes(3 * 1024 * 1024, 5));
    fs::create_directories(dest);

    JoinedPair pair = StartJoined(scratch, dest, {"--bandwidth", "800", scratch / "src/big.bin"});
    ASSERT_TRUE(waitUntil([&] { return PartialFileInCache(dest, "big.bin"); }, 20s)) << pair.serve->Describe();
    pair.send->Signal(SIGKILL);

    ASSERT_TRUE(pair.serve->WaitExit(15s)) << pair.serve->Describe();
    EXPECT_EQ(pair.serve->ExitCode(), toInt(cli::ExitCode::kLinkFailed)) << pair.serve->Describe();
    EXPECT_NE(pair.serve->Stderr().find("session 1 from standard input/output: failed"), std::string::npos)
        << pair.serve->Describe();
    EXPECT_TRUE(NamesIn(dest).empty()) << "neither the partial file nor the cache directory stays";
}

TEST(StdioToolTest, AHostileNameFromAHandPlayedStdioSenderIsRefusedAsOverTcp)
{
    TempDir scratch;
    const std::string dest = scratch / "dest";
    fs::create_directories(dest);
    Pipe toServe = MakePipe();
    Pipe fromServe = MakePipe();
    ChildOptions serveIo;
    serveIo.standardInput = toServe.readEnd.Fd();
    serveIo.standardOutput = fromServe.writeEnd.Fd();
    ChildProcess serve(ToolPath(), {"serve", "--stdio", dest}, scratch / "serve", serveIo);
    toServe.readEnd.Reset();
    fromServe.writeEnd.Reset();

    HostileSender sender({{"", "good.txt", false}, {"", "..", true}, {"..", "escape.txt", false}}, "");
    StreamEnds ends;
    ends.readEnd = std::move(fromServe.readEnd);
    ends.writeEnd = std::move(toServe.writeEnd);
    ends.peer = "serve --stdio";
    StreamTransport link(std::move(ends));
    sender.Attach(link);
    link.Start(sender);

    ASSERT_TRUE(serve.WaitExit(20s)) << serve.Describe();
    EXPECT_EQ(serve.ExitCode(), toInt(cli::ExitCode::kNamesRefused)) << serve.Describe();
    EXPECT_NE(serve.Stderr().find("not copied"), std::string::npos) << serve.Describe();
    EXPECT_NE(serve.Stderr().find("\"..\""), std::string::npos) << serve.Describe();
    EXPECT_TRUE(waitUntil([&] { return sender.Closed(); })) << "the receiver ends the stream when it is done";
    EXPECT_EQ(NamesIn(dest), std::vector<std::string>{"good.txt"});
    EXPECT_FALSE(fs::exists(scratch / "escape.txt"));
}

TEST(StdioToolTest, AnOutputThatIsATerminalIsRefusedBeforeAnyFrameIsWritten)
{
    TempDir scratch;
    OwnedFd controller(::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC));
    ASSERT_TRUE(controller.Valid());
    ASSERT_EQ(::grantpt(controller.Fd()), 0);
    ASSERT_EQ(::unlockpt(controller.Fd()), 0);
    OwnedFd terminal(::open(::ptsname(controller.Fd()), O_RDWR | O_NOCTTY | O_CLOEXEC));
    ASSERT_TRUE(terminal.Valid());
    ChildOptions io;
    io.standardOutput = terminal.Fd();
    ChildProcess serve(ToolPath(), {"serve", "--stdio", scratch.Path()}, scratch / "serve", io);
    ASSERT_TRUE(serve.WaitExit(10s));
    EXPECT_EQ(serve.ExitCode(), toInt(cli::ExitCode::kLinkFailed)) << serve.Describe();
    EXPECT_NE(serve.Stderr().find("is a terminal"), std::string::npos) << serve.Describe();
}

TEST(StdioToolTest, StdioTakesNoAddressAndRefusesTheListeningOptions)
{
    TempDir scratch;
    ChildProcess serve(ToolPath(), {"serve", "--stdio", "--listen", "127.0.0.1:0", scratch.Path()}, scratch / "serve");
    ASSERT_TRUE(serve.WaitExit(10s));
    EXPECT_EQ(serve.ExitCode(), toInt(cli::ExitCode::kUsage)) << serve.Describe();

    ChildProcess sendNothing(ToolPath(), {"send", "--stdio"}, scratch / "send-nothing");
    ASSERT_TRUE(sendNothing.WaitExit(10s));
    EXPECT_EQ(sendNothing.ExitCode(), toInt(cli::ExitCode::kUsage)) << sendNothing.Describe();

    // The first argument is a SOURCE with --stdio: a missing one is named as such.
    ChildProcess sendMissing(ToolPath(), {"send", "--stdio", scratch / "no-such-source"}, scratch / "send-missing");
    ASSERT_TRUE(sendMissing.WaitExit(10s));
    EXPECT_EQ(sendMissing.ExitCode(), toInt(cli::ExitCode::kSourceMissing)) << sendMissing.Describe();
}

}  // namespace
}  // namespace orin::xfer::test
