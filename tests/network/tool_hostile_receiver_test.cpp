// `xferfm send` against receivers played by hand that keep the link alive
// but never move the copy on: each test is one promise that the sender
// ends after its --progress-timeout with exit code 12 and says why.
#include <gtest/gtest.h>

#include <chrono>
#include <memory>

#include "ServeProcess.h"
#include "ToolExitCodes.h"
#include "xferfm/host/TcpListener.h"

namespace orin::xfer::test {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;


// A receiver's end of one connection from `xferfm send`.
class PlayedReceiver {
public:
    PlayedReceiver() : mListener(HostPort{"127.0.0.1", 0}, mError) {}

    std::string Address() const { return "127.0.0.1:" + std::to_string(mListener.Port()); }

    bool Accept()
    {
        TcpSocket connection;
        if (mListener.Accept(10s, connection, mError) != TcpListener::AcceptResult::kAccepted) {
            return false;
        }
        mPeer = std::make_unique<RawClient>(std::move(connection));
        return mPeer->SendHello();
    }
    RawClient& Peer() { return *mPeer; }

    // Reads until the last message is of the kind of `sample`.
    template <typename Kind>
    bool ReadUntil(std::vector<Message>& heard)
    {
        return mPeer->ReadMessagesUntil(
            [](const std::vector<Message>& m) { return !m.empty() && std::holds_alternative<Kind>(m.back()); },
            heard, 10s);
    }

    // Keepalives (and `alsoSend`) every 200 ms, reading what comes, until
    // `sender` exits or 20 s pass.
    void KeepAliveUntilExit(ChildProcess& sender, const std::vector<Message>& alsoSend = {})
    {
        const std::vector<uint8_t> keepalive = FrameHeader(0x02, 0);
        std::vector<Message> heard;
        const auto deadline = Clock::now() + 20s;
        while (!sender.WaitExit(10ms) && Clock::now() < deadline) {
            mPeer->SendBytes(keepalive);
            for (const Message& message : alsoSend) {
                mPeer->SendMessage(message);
            }
            mPeer->ReadMessagesUntil([](const std::vector<Message>&) { return false; }, heard, 200ms);
        }
    }

private:
    std::string mError;
    TcpListener mListener;
    std::unique_ptr<RawClient> mPeer;
};

TEST(ToolHostileReceiverTest, AReceiverThatNeverAsksForTheListEndsTheSendWithExitCode8)
{
    TempDir scratch;
    WriteText(scratch / "src/a.txt", "never asked for");
    PlayedReceiver receiver;
    const auto started = Clock::now();
    ChildProcess sender(ToolPath(),
                        {"send", "--no-progress", "--progress-timeout", "1", receiver.Address(), scratch / "src/a.txt"},
                        scratch / "send");
    ASSERT_TRUE(receiver.Accept());
    receiver.KeepAliveUntilExit(sender);
    ASSERT_TRUE(sender.WaitExit(1s)) << "send still waits after 20 s of keepalives";
    EXPECT_EQ(sender.ExitCode(), toInt(cli::ExitCode::kReceiverStalled)) << sender.Describe();
    EXPECT_EQ(LinesWith(sender.Stderr(), "send failed: the receiver moved nothing on for 1 s").size(), 1u)
        << sender.Describe();
    EXPECT_LT(Clock::now() - started, 6s);
}

TEST(ToolHostileReceiverTest, AReceiverThatAcceptsAFileButNeverAcknowledgesItEndsTheSendWithExitCode8)
{
    TempDir scratch;
    WriteBytes(scratch / "src/big.bin", PatternBytes(1u << 20, 5));
    PlayedReceiver receiver;
    const auto started = Clock::now();
    ChildProcess sender(ToolPath(),
                        {"send", "--no-progress", "--window", "1", "--progress-timeout", "1", receiver.Address(),
                         scratch / "src/big.bin"},
                        scratch / "send");
    ASSERT_TRUE(receiver.Accept());
    std::vector<Message> heard;
    ASSERT_TRUE(receiver.Peer().SendMessage(FileListRequest{}));
    ASSERT_TRUE(receiver.ReadUntil<FileListMessage>(heard));
    NextFileRequest request;
    request.taskId = 1;
    request.index = 0;
    request.name = "big.bin";
    request.totalSize = 1u << 20;
    ASSERT_TRUE(receiver.Peer().SendMessage(request));
    ASSERT_TRUE(receiver.ReadUntil<FileStart>(heard));
    const uint32_t transferId = std::get<FileStart>(heard.back()).transferId;
    ASSERT_TRUE(receiver.Peer().SendMessage(FileAccept{transferId}));
    // The same acknowledgement of nothing, over and over: not progress.
    receiver.KeepAliveUntilExit(sender, {DataAck{transferId, 0}});
    ASSERT_TRUE(sender.WaitExit(1s)) << "send still waits after 20 s of keepalives";
    EXPECT_EQ(sender.ExitCode(), toInt(cli::ExitCode::kReceiverStalled)) << sender.Describe();
    EXPECT_EQ(LinesWith(sender.Stderr(), "send failed: the receiver moved nothing on for 1 s").size(), 1u)
        << sender.Describe();
    EXPECT_LT(Clock::now() - started, 6s);
}

TEST(ToolHostileReceiverTest, AListRequestOfAnotherProtocolVersionIsRefusedNotAnswered)
{
    TempDir scratch;
    WriteText(scratch / "src/a.txt", "not for an older receiver");
    PlayedReceiver receiver;
    ChildProcess sender(ToolPath(), {"send", "--no-progress", receiver.Address(), scratch / "src/a.txt"},
                        scratch / "send");
    ASSERT_TRUE(receiver.Accept());
    ASSERT_TRUE(receiver.Peer().SendMessage(FileListRequest{1}));
    std::vector<Message> heard;
    ASSERT_TRUE(receiver.ReadUntil<Disconnect>(heard));
    for (const Message& message : heard) {
        EXPECT_FALSE(std::holds_alternative<FileListMessage>(message)) << "the list went to a version-1 receiver";
    }
    EXPECT_EQ(std::get<Disconnect>(heard.back()).reason,
              "the receiver asks for the list with protocol version 1, this end speaks 3");
    ASSERT_TRUE(sender.WaitExit(10s));
    EXPECT_EQ(sender.ExitCode(), toInt(cli::ExitCode::kLinkFailed)) << sender.Describe();
    EXPECT_EQ(LinesWith(sender.Stderr(), "protocol version 1, this end speaks 3").size(), 1u) << sender.Describe();
}

}  // namespace
}  // namespace orin::xfer::test
