// StreamTransport over the two shapes of byte stream it is given: one
// socketpair (a socket each way) and two pipes (what a process started over
// a remote shell has for standard input and output). Each test is one fact
// of the link contract that must hold on both.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <memory>
#include <thread>

#include "LinkTestSupport.h"
#include "StreamPairs.h"
#include "Wait.h"

namespace orin::xfer::test {
namespace {

using namespace std::chrono_literals;

std::vector<uint8_t> Pattern(size_t size, uint8_t seed)
{
    std::vector<uint8_t> bytes(size);
    for (size_t index = 0; index < size; ++index) {
        bytes[index] = static_cast<uint8_t>(seed + index * 7);
    }
    return bytes;
}

enum class Shape { kSocketPair, kTwoPipes };

class StreamTransportTest : public ::testing::TestWithParam<Shape> {
protected:
    StreamPair MakePair() const
    {
        return GetParam() == Shape::kSocketPair ? SocketStreamPair() : PipeStreamPair();
    }
    void MakeBoth(StreamTransportOptions options = {})
    {
        StreamPair pair = MakePair();
        ASSERT_TRUE(pair.first.readEnd.Valid());
        ASSERT_TRUE(pair.second.readEnd.Valid());
        first = std::make_unique<StreamTransport>(std::move(pair.first), options);
        second = std::make_unique<StreamTransport>(std::move(pair.second), options);
        first->Start(firstHandler);
        second->Start(secondHandler);
    }

    RecordingHandler firstHandler;
    RecordingHandler secondHandler;
    std::unique_ptr<StreamTransport> first;
    std::unique_ptr<StreamTransport> second;
};

TEST_P(StreamTransportTest, FramesArriveInOrderBothWays)
{
    MakeBoth();
    std::vector<Message> toSecond = {FileListRequest{}, NextFileRequest{1, 0, "a/b.txt", 10}, FileAccept{3}};
    std::vector<Message> toFirst = {FileListMessage{"{\"fileList\":[]}"}, FileStart{1, 3, "a/b.txt", false, 5, 5, 50}};
    for (int index = 0; index < 30; ++index) {
        toSecond.push_back(DataAck{3, static_cast<uint64_t>(index)});
        toFirst.push_back(FileData{3, Pattern(65536 - index, static_cast<uint8_t>(index))});
    }
    for (const Message& message : toSecond) {
        ASSERT_TRUE(first->Send(message));
    }
    for (const Message& message : toFirst) {
        ASSERT_TRUE(second->Send(message));
    }
    ASSERT_TRUE(secondHandler.WaitForMessages(toSecond.size()));
    ASSERT_TRUE(firstHandler.WaitForMessages(toFirst.size()));
    EXPECT_EQ(secondHandler.Messages(), toSecond);
    EXPECT_EQ(firstHandler.Messages(), toFirst);
    EXPECT_EQ(first->Peer(), "second");
    EXPECT_EQ(firstHandler.ClosedCount(), 0);
    EXPECT_EQ(secondHandler.ClosedCount(), 0);
}

TEST_P(StreamTransportTest, CloseFlushesWhatWasQueuedThenThePeerSeesTheEndOfTheStream)
{
    MakeBoth();
    for (int index = 0; index < 40; ++index) {
        ASSERT_TRUE(first->Send(FileData{3, Pattern(65536, static_cast<uint8_t>(index))}));
    }
    ASSERT_TRUE(first->Send(Disconnect{true, "last"}));
    first->Close();

    ASSERT_TRUE(secondHandler.WaitForClose());
    const auto messages = secondHandler.Messages();
    ASSERT_EQ(messages.size(), 41u);
    EXPECT_EQ(messages[39], Message(FileData{3, Pattern(65536, 39)}));
    EXPECT_EQ(messages.back(), Message(Disconnect{true, "last"}));
    EXPECT_NE(secondHandler.CloseReason().find("first closed the connection"), std::string::npos)
        << secondHandler.CloseReason();
    EXPECT_TRUE(waitUntil([&] { return !second->Send(EndOfList{}); })) << "Send fails once the peer ended";
    EXPECT_EQ(firstHandler.ClosedCount(), 0) << "a local Close reports nothing to its own handler";
}

TEST_P(StreamTransportTest, AStreamCutInsideAFrameIsReportedAsCutShort)
{
    StreamPair pair = MakePair();
    StreamTransport transport(std::move(pair.first));
    transport.Start(firstHandler);
    const int rawWrite = pair.second.writeEnd.Valid() ? pair.second.writeEnd.Fd() : pair.second.readEnd.Fd();
    std::vector<uint8_t> bytes = HelloFrame();
    const std::vector<uint8_t> header = FrameHeader(0x10, 0);
    bytes.insert(bytes.end(), header.begin(), header.begin() + 3);  // a header that never arrives whole
    ASSERT_EQ(::write(rawWrite, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    std::vector<uint8_t> theirHello(HelloFrame().size());  // taken, so the writer is idle when the peer goes
    ASSERT_EQ(::read(pair.second.readEnd.Fd(), theirHello.data(), theirHello.size()),
              static_cast<ssize_t>(theirHello.size()));
    pair.second = StreamEnds{};  // the peer's process is gone: its ends close

    ASSERT_TRUE(firstHandler.WaitForClose());
    EXPECT_NE(firstHandler.CloseReason().find("cut short"), std::string::npos) << firstHandler.CloseReason();
    EXPECT_TRUE(transport.PeerWentAway());
}

TEST_P(StreamTransportTest, APeerGoneMidWriteClosesTheLinkWithAReasonAndTheProcessLives)
{
    StreamPair pair = MakePair();
    StreamTransport transport(std::move(pair.first));
    transport.Start(firstHandler);
    std::atomic<bool> senderDone{false};
    std::thread sender([&] {
        for (int index = 0; index < 2000; ++index) {
            if (!transport.Send(FileData{3, Pattern(65536, 1)})) {
                break;
            }
        }
        senderDone = true;
    });
    // The kernel's buffer is full and frames wait in the queue: the writer is mid-write.
    ASSERT_TRUE(waitUntil([&] { return transport.QueuedDataBytes() > 0; }));
    // The reader of our frames goes away; for two pipes the other direction stays open.
    if (GetParam() == Shape::kTwoPipes) {
        pair.second.readEnd.Reset();
    } else {
        ::shutdown(pair.second.readEnd.Fd(), SHUT_RD);
    }

    ASSERT_TRUE(firstHandler.WaitForClose());
    EXPECT_NE(firstHandler.CloseReason().find("lost while sending"), std::string::npos) << firstHandler.CloseReason();
    EXPECT_TRUE(transport.PeerWentAway()) << "the peer's doing, not a rule of ours";
    EXPECT_TRUE(waitUntil([&] { return senderDone.load(); })) << "a sender waiting for room is released";
    sender.join();
}

TEST_P(StreamTransportTest, APeerSilentForTheTimeoutIsCutWithTheLabelInTheReason)
{
    StreamPair pair = MakePair();
    StreamTransportOptions options;
    options.silenceTimeout = 400ms;
    StreamTransport transport(std::move(pair.first), options);
    const auto start = std::chrono::steady_clock::now();
    transport.Start(firstHandler);
    const int rawWrite = pair.second.writeEnd.Valid() ? pair.second.writeEnd.Fd() : pair.second.readEnd.Fd();
    const std::vector<uint8_t> hello = HelloFrame();
    ASSERT_EQ(::write(rawWrite, hello.data(), hello.size()), static_cast<ssize_t>(hello.size()));  // then nothing

    ASSERT_TRUE(firstHandler.WaitForClose(5s));
    EXPECT_GE(std::chrono::steady_clock::now() - start, 400ms);
    EXPECT_NE(firstHandler.CloseReason().find("nothing heard from second for 0.4 s"), std::string::npos)
        << firstHandler.CloseReason();
    EXPECT_FALSE(transport.PeerWentAway()) << "the silence limit is a rule of this end";
}

TEST_P(StreamTransportTest, DestroyingAnEndIsTheEndOfTheStreamAfterItsLastFrames)
{
    MakeBoth();
    ASSERT_TRUE(first->Send(EndOfList{}));
    ASSERT_TRUE(first->Send(Disconnect{true, "bye"}));
    first.reset();
    ASSERT_TRUE(secondHandler.WaitForClose());
    ASSERT_EQ(secondHandler.MessageCount(), 2u);
    EXPECT_EQ(secondHandler.Messages().back(), Message(Disconnect{true, "bye"}));
}

INSTANTIATE_TEST_SUITE_P(Shapes, StreamTransportTest, ::testing::Values(Shape::kSocketPair, Shape::kTwoPipes),
                         [](const ::testing::TestParamInfo<Shape>& info) {
                             return info.param == Shape::kSocketPair ? std::string("SocketPair")
                                                                     : std::string("TwoPipes");
                         });

}  // namespace
}  // namespace orin::xfer::test
