// `xferfm serve` and `xferfm send` as two processes on 127.0.0.1: a tree
// arrives byte for byte, verified when asked, renamed on a clash, and the
// server goes on serving one sender after another.
#include <gtest/gtest.h>
#include <signal.h>

#include <filesystem>

#include "ToolExitCodes.h"
#include "ServeProcess.h"
#include "xferfm/host/TcpListener.h"

namespace orin::xfer::test {
namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;

void MakeSampleTree(const std::string& root)
{
    WriteText(root + "/readme.txt", "hello over tcp\n");
    WriteBytes(root + "/data/big.bin", PatternBytes(3 * 1024 * 1024 + 123, 7));
    WriteBytes(root + "/data/exact-chunk.bin", PatternBytes(65536, 8));
    WriteBytes(root + "/data/deeper/still/small.bin", PatternBytes(100, 9));
    WriteText(root + "/data/.hidden", "secret");
    WriteText(root + "/empty-file", "");
    fs::create_directories(root + "/empty-dir");
    WriteText(root + "/caf\xC3\xA9 with spaces.txt", "unicode name");
}

TEST(ServeSendTest, TreeArrivesByteForByteAndVerified)
{
    TempDir scratch;
    const std::string source = scratch / "tree";
    const std::string dest = scratch / "dest";
    MakeSampleTree(source);
    fs::create_directories(dest);

    ServeProcess serve(scratch, dest, {"--once"});
    ASSERT_TRUE(serve.Listening()) << serve.Process().Describe();
    EXPECT_NE(serve.Process().Stdout().find("listening on " + serve.Address()), std::string::npos);

    const auto send = RunSend(scratch, "send", {"--verify", serve.Address(), source});
    ASSERT_TRUE(send->Exited()) << send->Describe();
    EXPECT_EQ(send->ExitCode(), toInt(cli::ExitCode::kOk)) << send->Describe();
    EXPECT_NE(send->Stdout().find("verified 7 files: SHA-256 of every copy matches its source"), std::string::npos)
        << send->Describe();
    EXPECT_NE(send->Stdout().find("sent 7 files"), std::string::npos) << send->Describe();

    ASSERT_TRUE(serve.Process().WaitExit(10s)) << serve.Process().Describe();
    EXPECT_EQ(serve.Process().ExitCode(), toInt(cli::ExitCode::kOk)) << serve.Process().Describe();
    const auto sessions = LinesWith(serve.Process().Stdout(), "session 1 from 127.0.0.1:");
    ASSERT_EQ(sessions.size(), 1u) << serve.Process().Describe();
    EXPECT_NE(sessions[0].find(": ok: received 7 files and 5 directories"), std::string::npos) << sessions[0];
    EXPECT_NE(sessions[0].find("verified 7 files"), std::string::npos) << sessions[0];

    EXPECT_EQ(TreeDifference(source, dest + "/tree", TreeCompare::kBytes), "");
    EXPECT_EQ(NamesIn(dest), std::vector<std::string>{"tree"}) << "no cache directory is left behind";
}

TEST(ServeSendTest, OneSenderAfterAnotherWithRenameOnClash)
{
    TempDir scratch;
    const std::string dest = scratch / "dest";
    fs::create_directories(dest);
    WriteText(scratch / "one/a.txt", "first");
    WriteText(scratch / "report.pdf", "pdf bytes");

    ServeProcess serve(scratch, dest);
    ASSERT_TRUE(serve.Listening()) << serve.Process().Describe();
    for (int round = 0; round < 2; ++round) {
        const auto send = RunSend(scratch, "send" + std::to_string(round),
                                  {serve.Address(), scratch / "one", scratch / "report.pdf"});
        ASSERT_TRUE(send->Exited()) << send->Describe();
        EXPECT_EQ(send->ExitCode(), toInt(cli::ExitCode::kOk)) << send->Describe();
    }
    const auto sessions = serve.WaitForSessions(2, 10s);
    ASSERT_EQ(sessions.size(), 2u) << serve.Process().Describe();
    EXPECT_NE(sessions[0].find("session 1 from"), std::string::npos);
    EXPECT_NE(sessions[1].find("session 2 from"), std::string::npos);
    EXPECT_NE(sessions[1].find("already existed, so received 'one' as 'one(1)', 'report.pdf' as 'report(1).pdf'"),
              std::string::npos)
        << sessions[1];
    EXPECT_EQ(NamesIn(dest), (std::vector<std::string>{"one", "one(1)", "report(1).pdf", "report.pdf"}));
    EXPECT_EQ(TreeDifference(scratch / "one", dest + "/one(1)", TreeCompare::kBytes), "");

    serve.Process().Signal(SIGTERM);
    ASSERT_TRUE(serve.Process().WaitExit(10s)) << serve.Process().Describe();
    EXPECT_EQ(serve.Process().ExitCode(), toInt(cli::ExitCode::kInterrupted));
}

TEST(ServeSendTest, SecondSenderIsTurnedAwayWhileBusy)
{
    TempDir scratch;
    const std::string dest = scratch / "dest";
    fs::create_directories(dest);
    WriteBytes(scratch / "slow/big.bin", PatternBytes(32u << 20, 5));
    WriteText(scratch / "quick/q.txt", "quick");

    ServeProcess serve(scratch, dest);
    ASSERT_TRUE(serve.Listening()) << serve.Process().Describe();
    // About 1 MB/s, so the first session is surely still running.
    ChildProcess first(ToolPath(), {"send", "--no-progress", "--bandwidth", "8000", serve.Address(), scratch / "slow"},
                       scratch / "first");
    ASSERT_TRUE(waitUntil([&] { return PartialFileInCache(dest, "big.bin"); }, 30s)) << first.Describe();

    const auto second = RunSend(scratch, "second", {serve.Address(), scratch / "quick"}, 20s);
    ASSERT_TRUE(second->Exited()) << second->Describe();
    EXPECT_EQ(second->ExitCode(), toInt(cli::ExitCode::kPeerBusy)) << second->Describe();
    EXPECT_NE(second->Stderr().find("xferfm serve is busy with another sender (session 1); try again when it is done"),
              std::string::npos)
        << second->Describe();
    EXPECT_FALSE(fs::exists(dest + "/quick"));

    first.Signal(SIGINT);  // a cancelled sender: its session ends, the next one may come
    ASSERT_TRUE(first.WaitExit(20s)) << first.Describe();
    EXPECT_EQ(first.ExitCode(), toInt(cli::ExitCode::kInterrupted)) << first.Describe();
    const auto sessions = serve.WaitForSessions(1, 10s);
    ASSERT_EQ(sessions.size(), 1u) << serve.Process().Describe();
    EXPECT_NE(sessions[0].find(": failed: "), std::string::npos) << sessions[0];
    EXPECT_FALSE(fs::exists(dest + "/slow/big.bin"));

    const auto third = RunSend(scratch, "third", {serve.Address(), scratch / "quick"});
    EXPECT_EQ(third->ExitCode(), toInt(cli::ExitCode::kOk)) << third->Describe() << serve.Process().Describe();
    EXPECT_EQ(TreeDifference(scratch / "quick", dest + "/quick", TreeCompare::kBytes), "");
}

// The receiver refuses one entry (its destination would be reached through
// a symbolic link planted in DEST_DIR): the rest of the copy arrives and is
// verified, and both ends exit with 7, naming the entry.
TEST(ServeSendTest, AnEntryTheReceiverRefusesIsNamedAndTheRestArrives)
{
    TempDir scratch;
    const std::string source = scratch / "src";
    const std::string dest = scratch / "dest";
    const std::string canary = scratch / "canary";
    WriteText(source + "/tree/a.txt", "alpha");
    WriteBytes(source + "/tree/sub/b.bin", PatternBytes(200000, 3));
    WriteText(source + "/notes.txt", "notes");
    WriteText(canary + "/keep.txt", "must never change");
    // DEST_DIR already has a "tree" whose "sub" leads out of it.
    fs::create_directories(dest + "/tree");
    fs::create_directory_symlink(canary, dest + "/tree/sub");
    const std::string canaryBefore = TreeFingerprint(canary);

    ServeProcess serve(scratch, dest, {"--once"});
    ASSERT_TRUE(serve.Listening()) << serve.Process().Describe();
    const auto send =
        RunSend(scratch, "send", {"--verify", serve.Address(), source + "/tree", source + "/notes.txt"});
    ASSERT_TRUE(send->Exited()) << send->Describe();
    ASSERT_TRUE(serve.Process().WaitExit(10s)) << serve.Process().Describe();

    const std::string rule = "refused remote name \"tree/sub/b.bin\": " + dest + "/tree/sub is a symbolic link";
    EXPECT_EQ(send->ExitCode(), toInt(cli::ExitCode::kNamesRefused)) << send->Describe();
    EXPECT_NE(send->Stderr().find("xferfm: not sent: " + source + "/tree/sub/b.bin: " + rule), std::string::npos)
        << send->Describe();
    EXPECT_NE(send->Stderr().find("xferfm: not everything was sent: the receiver refused 1 entry of 5"),
              std::string::npos)
        << send->Describe();
    EXPECT_NE(send->Stdout().find("verified 2 files"), std::string::npos) << send->Describe();
    EXPECT_NE(send->Stdout().find("sent 2 files"), std::string::npos) << send->Describe();

    EXPECT_EQ(serve.Process().ExitCode(), toInt(cli::ExitCode::kNamesRefused)) << serve.Process().Describe();
    EXPECT_NE(serve.Process().Stderr().find(": not copied: " + rule), std::string::npos) << serve.Process().Describe();
    const auto sessions = LinesWith(serve.Process().Stdout(), "session 1 from 127.0.0.1:");
    ASSERT_EQ(sessions.size(), 1u) << serve.Process().Describe();
    EXPECT_NE(sessions[0].find(": failed: refused 1 of 5 entries (" + rule + "); received 2 files and 2 directories"),
              std::string::npos)
        << sessions[0];

    // Everything else arrived ("tree" was taken, so it came as "tree(1)").
    EXPECT_EQ(NamesIn(dest), (std::vector<std::string>{"notes.txt", "tree", "tree(1)"}));
    EXPECT_EQ(TreeDifference(source + "/notes.txt", dest + "/notes.txt", TreeCompare::kBytes), "");
    EXPECT_EQ(TreeDifference(source + "/tree/a.txt", dest + "/tree(1)/a.txt", TreeCompare::kBytes), "");
    EXPECT_EQ(NamesIn(dest + "/tree(1)/sub"), std::vector<std::string>{});
    EXPECT_EQ(TreeFingerprint(canary), canaryBefore);
}

TEST(ServeSendTest, SendToNobodyFailsClearly)
{
    TempDir scratch;
    WriteText(scratch / "a.txt", "x");
    // A port that was free a moment ago and has nobody listening now.
    uint16_t port = 0;
    {
        std::string error;
        TcpListener probe(HostPort{"127.0.0.1", 0}, error);
        port = probe.Port();
    }
    const auto send = RunSend(scratch, "send", {"127.0.0.1:" + std::to_string(port), scratch / "a.txt"});
    ASSERT_TRUE(send->Exited());
    EXPECT_EQ(send->ExitCode(), toInt(cli::ExitCode::kLinkFailed)) << send->Describe();
    EXPECT_NE(send->Stderr().find("cannot connect to 127.0.0.1:" + std::to_string(port)), std::string::npos)
        << send->Describe();
}

TEST(ServeSendTest, BadArgumentsAreUsageErrors)
{
    TempDir scratch;
    const auto badAddress = RunSend(scratch, "bad-address", {"no-port-here:http", scratch.Path()});
    EXPECT_EQ(badAddress->ExitCode(), toInt(cli::ExitCode::kUsage)) << badAddress->Describe();

    ChildProcess missingDest(ToolPath(), {"serve", "--once", scratch / "missing"}, scratch / "serve-missing");
    ASSERT_TRUE(missingDest.WaitExit(10s));
    EXPECT_EQ(missingDest.ExitCode(), toInt(cli::ExitCode::kDestinationUnusable)) << missingDest.Describe();
    EXPECT_NE(missingDest.Stderr().find("cannot receive into"), std::string::npos) << missingDest.Describe();

    const auto missingSource =
        RunSend(scratch, "missing-source", {"127.0.0.1:1", scratch / "does-not-exist"});
    EXPECT_EQ(missingSource->ExitCode(), toInt(cli::ExitCode::kSourceMissing)) << missingSource->Describe();
}

}  // namespace
}  // namespace orin::xfer::test
