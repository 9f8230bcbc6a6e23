// The host kit's network sessions over a stream that is already open (two
// pipes, or a socketpair), without the tool: NetworkReceiver::RunOne at one
// end, NetworkSender::Attach at the other. Each test is one promise of
// NetworkReceiver.h and NetworkSender.h for streams.
#include <gtest/gtest.h>

#include <future>
#include <optional>
#include <string>
#include <vector>

#include "StreamPairs.h"
#include "TempDir.h"
#include "TestSupport.h"
#include "TreeCompare.h"
#include "Wait.h"
#include "xferfm/host/NetworkReceiver.h"
#include "xferfm/host/NetworkSender.h"
#include "xferfm/host/Sha256.h"

namespace orin::xfer::test {
namespace {

using namespace std::chrono_literals;

// Attaches to `stream`, offers and waits (bounded) for the end of the copy.
SentSession SendOver(StreamEnds stream, const std::vector<std::string>& sources, FileDigests digests = {})
{
    NetworkSenderOptions options;
    options.digests = std::move(digests);
    NetworkSender sender(options);
    sender.Attach(std::move(stream));
    std::string error;
    EXPECT_EQ(sender.Offer(sources, error), NetworkSender::OfferResult::kOffered) << error;
    EXPECT_TRUE(waitUntil([&sender] { return sender.WaitFinished(10ms); }, 20s));
    return sender.Result();
}

// Serves the one session of `stream` into `destination` on its own thread.
std::future<ReceivedSession> ServeOne(StreamEnds stream, const std::string& destination)
{
    return std::async(std::launch::async, [stream = std::move(stream), destination]() mutable {
        NetworkReceiverObserver quiet;
        NetworkReceiverOptions options;
        options.destinationDir = destination;
        NetworkReceiver receiver(options, quiet);
        return receiver.RunOne(std::move(stream));
    });
}

std::string DigestOf(const std::string& path)
{
    std::string error;
    return Sha256OfFile(path, error).value_or(error);
}

TEST(StreamSessionTest, ATreeCrossesTwoPipesByteForByteAndTheStreamsLabelNamesTheSender)
{
    TempDir scratch;
    WriteText(scratch / "src/a.txt", "hello");
    WriteBytes(scratch / "src/tree/b.bin", PatternBytes(3000000, 7));
    WriteText(scratch / "src/tree/deeper/c.txt", "c");
    WriteText(scratch / "dest/.keep", "");
    StreamPair pair = PipeStreamPair();
    pair.second.peer = "the sender's pipes";
    auto served = ServeOne(std::move(pair.second), scratch / "dest");

    const SentSession sent = SendOver(std::move(pair.first), {scratch / "src/a.txt", scratch / "src/tree"});
    EXPECT_EQ(sent.outcome, SentSession::Outcome::kCompleted) << sent.failure << sent.summary.error;

    ASSERT_EQ(served.wait_for(20s), std::future_status::ready);
    const ReceivedSession session = served.get();
    EXPECT_EQ(session.outcome, ReceivedSession::Outcome::kOk) << session.failure;
    EXPECT_EQ(session.peer, "the sender's pipes");
    EXPECT_EQ(session.number, 1u);
    EXPECT_EQ(session.summary.filesDone, 3u);
    EXPECT_EQ(TreeDifference(scratch / "src/tree", scratch / "dest/tree"), "");
    EXPECT_EQ(DigestOf(scratch / "dest/a.txt"), DigestOf(scratch / "src/a.txt"));
}

TEST(StreamSessionTest, AVerifiedCopyOverASocketPairBringsTheVerdictToBothEnds)
{
    TempDir scratch;
    WriteText(scratch / "src/a.txt", "abc");
    WriteText(scratch / "dest/.keep", "");
    StreamPair pair = SocketStreamPair();
    auto served = ServeOne(std::move(pair.second), scratch / "dest");

    const SentSession sent =
        SendOver(std::move(pair.first), {scratch / "src/a.txt"}, FileDigests{{"a.txt", DigestOf(scratch / "src/a.txt")}});
    EXPECT_EQ(sent.outcome, SentSession::Outcome::kCompleted) << sent.failure;
    ASSERT_TRUE(sent.verdict.has_value());
    EXPECT_TRUE(sent.verdict->matched);

    ASSERT_EQ(served.wait_for(20s), std::future_status::ready);
    const ReceivedSession session = served.get();
    EXPECT_EQ(session.outcome, ReceivedSession::Outcome::kOk) << session.failure;
    ASSERT_TRUE(session.verdict.has_value());
    EXPECT_TRUE(session.verdict->matched);
}

TEST(StreamSessionTest, AReceiverWhoseStreamEndsBeforeItsGoodbyeIsALostLinkNamedByTheLabel)
{
    TempDir scratch;
    WriteBytes(scratch / "src/big.bin", PatternBytes(4000000, 3));
    StreamPair pair = PipeStreamPair();
    pair.first.peer = "the receiver's pipes";
    pair.second = StreamEnds{};  // the receiver's process is gone before a word

    const SentSession sent = SendOver(std::move(pair.first), {scratch / "src/big.bin"});
    EXPECT_EQ(sent.outcome, SentSession::Outcome::kLinkLost) << sent.failure;
    EXPECT_NE(sent.failure.find("the receiver's pipes"), std::string::npos) << sent.failure;
}

TEST(StreamSessionTest, ASenderWhoseStreamEndsBeforeItsListIsALostLinkThatLeavesNothingBehind)
{
    TempDir scratch;
    WriteText(scratch / "dest/.keep", "");
    StreamPair pair = PipeStreamPair();
    auto served = ServeOne(std::move(pair.second), scratch / "dest");
    {
        StreamEnds senderEnds = std::move(pair.first);  // says nothing, then its process goes
    }
    ASSERT_EQ(served.wait_for(20s), std::future_status::ready);
    const ReceivedSession session = served.get();
    EXPECT_EQ(session.outcome, ReceivedSession::Outcome::kLinkLost) << session.failure;
    EXPECT_NE(session.failure.find("first"), std::string::npos) << session.failure;
    EXPECT_EQ(NamesIn(scratch / "dest"), std::vector<std::string>{".keep"});
    EXPECT_TRUE(LeftoverCaches(scratch / "dest").empty());
}

}  // namespace
}  // namespace orin::xfer::test
