// `xferfm send` to `xferfm serve --once` through xferfm-link, the shaped
// loopback link of the link benchmark: with a real delay many entries are
// in flight at once (requests, announcements, data), and each test is one
// promise about that pipeline: the tree arrives byte for byte; a sender
// interrupted, or a link lost, mid-pipeline leaves only whole files and no
// cache behind.
#include <gtest/gtest.h>
#include <signal.h>

#include <memory>
#include <string>

#include "ServeProcess.h"
#include "ToolExitCodes.h"
#include "TreeCompare.h"

namespace orin::xfer::test {
namespace {

using namespace std::chrono_literals;

// xferfm-link between 127.0.0.1:Port() and `target`.
class ShapedLink {
public:
    ShapedLink(const TempDir& scratch, uint16_t target, const std::string& delayMs, const std::string& rateMbit)
        : mProcess(XFERFM_LINK_PATH,
                   {"--listen", "0", "--to", "127.0.0.1:" + std::to_string(target), "--delay-ms", delayMs,
                    "--rate-mbit", rateMbit},
                   scratch / "link")
    {
        waitUntil([this] { return Port() != 0 || mProcess.WaitExit(0ms); }, 10s);
    }
    uint16_t Port() const
    {
        const std::string out = mProcess.Stdout();
        return out.find('\n') == std::string::npos ? 0 : static_cast<uint16_t>(std::stoul(out));
    }
    std::string Address() const { return "127.0.0.1:" + std::to_string(Port()); }
    ChildProcess& Process() { return mProcess; }

private:
    ChildProcess mProcess;
};

class ShapedLinkTest : public ::testing::Test {
protected:
    // `files` files of `size` bytes in 8 directories, and one of 2 MiB.
    void MakeTree(size_t files, size_t size)
    {
        for (size_t i = 0; i < files; ++i) {
            WriteBytes(source + "/d" + std::to_string(i % 8) + "/f" + std::to_string(i) + ".bin",
                       PatternBytes(size, static_cast<uint32_t>(i)));
        }
        WriteBytes(source + "/large.bin", PatternBytes(2u << 20, 99));
        WriteText(dest + "/.keep", "");
    }

    // Only whole copies of source files, and no cache, under DEST_DIR.
    void ExpectOnlyWholeFiles()
    {
        EXPECT_EQ(IncompleteCopies(source, dest + "/src"), std::vector<std::string>{});
        EXPECT_EQ(LeftoverCaches(dest), std::vector<std::string>{});
    }

    TempDir scratch;
    std::string source = scratch / "src";
    std::string dest = scratch / "dest";
};

TEST_F(ShapedLinkTest, ATreeCrossesADelayedLinkByteForByte)
{
    MakeTree(400, 3000);
    ServeProcess serve(scratch, dest, {"--once"});
    ASSERT_TRUE(serve.Listening()) << serve.Process().Describe();
    ShapedLink link(scratch, serve.Port(), "10", "400");
    ASSERT_NE(link.Port(), 0) << link.Process().Describe();

    const auto sender = RunSend(scratch, "send", {link.Address(), source});
    EXPECT_EQ(sender->ExitCode(), toInt(cli::ExitCode::kOk)) << sender->Describe();
    ASSERT_TRUE(serve.Process().WaitExit(20s));
    EXPECT_EQ(serve.Process().ExitCode(), toInt(cli::ExitCode::kOk)) << serve.Process().Describe();
    EXPECT_EQ(TreeDifference(source, dest + "/src", TreeCompare::kBytes), "");
    EXPECT_EQ(LeftoverCaches(dest), std::vector<std::string>{});
}

TEST_F(ShapedLinkTest, ASenderInterruptedMidPipelineLeavesOnlyWholeFiles)
{
    MakeTree(600, 16384);  // about 12 MiB at 20 Mbit/s: five seconds
    ServeProcess serve(scratch, dest, {"--once"});
    ASSERT_TRUE(serve.Listening()) << serve.Process().Describe();
    ShapedLink link(scratch, serve.Port(), "10", "20");
    ASSERT_NE(link.Port(), 0) << link.Process().Describe();
    ChildProcess sender(ToolPath(), {"send", "--no-progress", link.Address(), source}, scratch / "send");
    ASSERT_TRUE(waitUntil([&] { return FilesUnder(dest + "/src") >= 50; }, 30s)) << sender.Describe();

    sender.Signal(SIGINT);
    ASSERT_TRUE(sender.WaitExit(20s));
    EXPECT_EQ(sender.ExitCode(), toInt(cli::ExitCode::kInterrupted)) << sender.Describe();
    ASSERT_TRUE(serve.Process().WaitExit(20s));
    EXPECT_EQ(serve.Process().ExitCode(), toInt(cli::ExitCode::kCancelledByPeer)) << serve.Process().Describe();
    EXPECT_LT(FilesUnder(dest + "/src"), 601u) << "the copy was meant to be cut short";
    ExpectOnlyWholeFiles();
}

TEST_F(ShapedLinkTest, ALinkLostMidPipelineLeavesOnlyWholeFilesOnBothEnds)
{
    MakeTree(600, 16384);
    ServeProcess serve(scratch, dest, {"--once"});
    ASSERT_TRUE(serve.Listening()) << serve.Process().Describe();
    auto link = std::make_unique<ShapedLink>(scratch, serve.Port(), "10", "20");
    ASSERT_NE(link->Port(), 0) << link->Process().Describe();
    ChildProcess sender(ToolPath(), {"send", "--no-progress", link->Address(), source}, scratch / "send");
    ASSERT_TRUE(waitUntil([&] { return FilesUnder(dest + "/src") >= 50; }, 30s)) << sender.Describe();

    link->Process().Signal(SIGKILL);  // both connections close under the copy
    ASSERT_TRUE(sender.WaitExit(20s));
    EXPECT_EQ(sender.ExitCode(), toInt(cli::ExitCode::kLinkFailed)) << sender.Describe();
    ASSERT_TRUE(serve.Process().WaitExit(20s));
    EXPECT_EQ(serve.Process().ExitCode(), toInt(cli::ExitCode::kLinkFailed)) << serve.Process().Describe();
    EXPECT_LT(FilesUnder(dest + "/src"), 601u) << "the copy was meant to be cut short";
    ExpectOnlyWholeFiles();
}

}  // namespace
}  // namespace orin::xfer::test
