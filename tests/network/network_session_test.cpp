// The host kit's network sessions, without the tool: a NetworkReceiver
// serving on loopback and a NetworkSender copying to it. Each test is one
// promise of NetworkReceiver.h and NetworkSender.h.
#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <thread>
#include <vector>

#include "LinkTestSupport.h"
#include "ServingReceiver.h"
#include "TempDir.h"
#include "TestSupport.h"
#include "TreeCompare.h"
#include "Wait.h"
#include "xferfm/host/NetworkReceiver.h"
#include "xferfm/host/NetworkSender.h"
#include "xferfm/host/Sha256.h"

namespace orin::xfer::test {
namespace {

using namespace orin::xfer::test;

using namespace std::chrono_literals;

// Connects, offers and waits (bounded) for the end of the copy.
SentSession SendOver(const HostPort& address, const std::vector<std::string>& sources, FileDigests digests = {})
{
    NetworkSenderOptions options;
    options.address = address;
    options.digests = std::move(digests);
    NetworkSender sender(options);
    std::string error;
    EXPECT_TRUE(sender.Connect(error)) << error;
    EXPECT_EQ(sender.Offer(sources, error), NetworkSender::OfferResult::kOffered) << error;
    EXPECT_TRUE(waitUntil([&sender] { return sender.WaitFinished(10ms); }, 20s));
    return sender.Result();
}

std::string DigestOf(const std::string& path)
{
    std::string error;
    const std::optional<std::string> digest = Sha256OfFile(path, error);
    EXPECT_TRUE(digest.has_value()) << error;
    return digest.value_or("");
}

TEST(NetworkSessionTest, ASenderCopiesATreeToAReceiverOverLoopback)
{
    TempDir scratch;
    WriteText(scratch / "src/a.txt", "hello");
    WriteBytes(scratch / "src/tree/b.bin", PatternBytes(300000, 7));
    WriteText(scratch / "dest/.keep", "");
    LoopbackReceiver receiver(scratch / "dest");

    const SentSession sent = SendOver(receiver.Address(), {scratch / "src/a.txt", scratch / "src/tree"});
    EXPECT_EQ(sent.outcome, SentSession::Outcome::kCompleted) << sent.failure << sent.summary.error;
    EXPECT_FALSE(sent.verdict.has_value()) << "no digests, no verdict";

    ASSERT_TRUE(receiver.WaitForSessions(1));
    const ReceivedSession session = receiver.Log().Sessions().front();
    EXPECT_EQ(session.outcome, ReceivedSession::Outcome::kOk) << session.failure;
    EXPECT_EQ(session.number, 1u);
    EXPECT_EQ(session.summary.filesDone, 2u);
    EXPECT_EQ(TreeDifference(scratch / "src/tree", scratch / "dest/tree"), "");
    EXPECT_EQ(DigestOf(scratch / "dest/a.txt"), DigestOf(scratch / "src/a.txt"));
}

TEST(NetworkSessionTest, AVerifiedCopyBringsTheMatchingVerdictTypedToBothEnds)
{
    TempDir scratch;
    WriteText(scratch / "src/a.txt", "abc");
    WriteText(scratch / "src/b.txt", "defg");
    WriteText(scratch / "dest/.keep", "");
    LoopbackReceiver receiver(scratch / "dest");

    const SentSession sent =
        SendOver(receiver.Address(), {scratch / "src/a.txt", scratch / "src/b.txt"},
                 FileDigests{{"a.txt", DigestOf(scratch / "src/a.txt")}, {"b.txt", DigestOf(scratch / "src/b.txt")}});
    EXPECT_EQ(sent.outcome, SentSession::Outcome::kCompleted) << sent.failure;
    ASSERT_TRUE(sent.verdict.has_value());
    EXPECT_TRUE(sent.verdict->matched);
    EXPECT_EQ(sent.verdict->filesCompared, 2u);

    ASSERT_TRUE(receiver.WaitForSessions(1));
    const ReceivedSession session = receiver.Log().Sessions().front();
    EXPECT_EQ(session.outcome, ReceivedSession::Outcome::kOk) << session.failure;
    ASSERT_TRUE(session.verdict.has_value());
    EXPECT_TRUE(session.verdict->matched);
}

TEST(NetworkSessionTest, ACopyThatDiffersFromItsDigestIsAVerifyFailureAtBothEnds)
{
    TempDir scratch;
    WriteText(scratch / "src/a.txt", "abc");
    WriteText(scratch / "dest/.keep", "");
    LoopbackReceiver receiver(scratch / "dest");

    const std::string otherDigest(64, '0');
    const SentSession sent = SendOver(receiver.Address(), {scratch / "src/a.txt"}, FileDigests{{"a.txt", otherDigest}});
    EXPECT_EQ(sent.outcome, SentSession::Outcome::kVerifyFailed) << sent.failure;
    ASSERT_TRUE(sent.verdict.has_value());
    EXPECT_FALSE(sent.verdict->matched);
    EXPECT_EQ(sent.verdict->filesCompared, 1u);
    EXPECT_EQ(sent.verdict->filesDiffering, 1u);

    ASSERT_TRUE(receiver.WaitForSessions(1));
    const ReceivedSession session = receiver.Log().Sessions().front();
    EXPECT_EQ(session.outcome, ReceivedSession::Outcome::kVerifyFailed);
    ASSERT_TRUE(session.verdict.has_value());
    EXPECT_EQ(session.verdict->details, sent.verdict->details);
}

TEST(NetworkSessionTest, ASenderArrivingDuringASessionIsTurnedAwayAsBusyOnceItsPatienceRunsOut)
{
    TempDir scratch;
    WriteText(scratch / "dest/.keep", "");
    NetworkReceiverOptions options;
    options.serverName = "the test receiver";
    options.waitingPatience = 100ms;
    LoopbackReceiver receiver(scratch / "dest", options);

    RawClient first(receiver.Address().port);  // says hello, then offers nothing: the session waits for its list
    ASSERT_TRUE(first.SendHello());
    std::vector<Message> firstHeard;
    ASSERT_TRUE(first.ReadMessagesUntil(
        [](const std::vector<Message>& heard) {
            return !heard.empty() && std::holds_alternative<FileListRequest>(heard.back());
        },
        firstHeard, 10s));

    RawClient second(receiver.Address().port);
    ASSERT_TRUE(second.SendHello());
    std::vector<Message> heard;
    second.ReadMessagesUntil(
        [](const std::vector<Message>& messages) {
            return !messages.empty() && std::holds_alternative<Disconnect>(messages.back());
        },
        heard, 10s);
    ASSERT_FALSE(heard.empty());
    const auto* goodbye = std::get_if<Disconnect>(&heard.back());
    ASSERT_NE(goodbye, nullptr);
    EXPECT_EQ(ReasonOf(*goodbye), DisconnectReason::kBusy);
    EXPECT_EQ(goodbye->reason, BusyDisconnect("the test receiver", 1).reason);
    EXPECT_TRUE(waitUntil([&receiver] { return receiver.Log().TurnedAwayCount() == 1; }));
    EXPECT_TRUE(receiver.Log().Sessions().empty()) << "the first session still runs";
}

TEST(NetworkSessionTest, StopCancelsTheSessionInProgress)
{
    TempDir scratch;
    WriteText(scratch / "dest/.keep", "");
    LoopbackReceiver receiver(scratch / "dest");
    RawClient client(receiver.Address().port);
    ASSERT_TRUE(client.SendHello());
    std::vector<Message> heard;
    ASSERT_TRUE(client.ReadMessagesUntil(
        [](const std::vector<Message>& messages) {
            return !messages.empty() && std::holds_alternative<FileListRequest>(messages.back());
        },
        heard, 10s));
    receiver.Stop();
    const std::vector<ReceivedSession> sessions = receiver.Log().Sessions();
    ASSERT_EQ(sessions.size(), 1u);
    EXPECT_EQ(sessions.front().outcome, ReceivedSession::Outcome::kCancelled);
    // The client hears the cancel, typed.
    client.ReadMessagesUntil(
        [](const std::vector<Message>& messages) {
            return !messages.empty() && std::holds_alternative<Disconnect>(messages.back());
        },
        heard, 10s);
    ASSERT_FALSE(heard.empty());
    const auto* goodbye = std::get_if<Disconnect>(&heard.back());
    ASSERT_NE(goodbye, nullptr);
    EXPECT_EQ(ReasonOf(*goodbye), DisconnectReason::kCancelled);
}

TEST(NetworkSessionTest, ASenderThatOffersNoListInTimeEndsItsSessionAsAListTimeOut)
{
    TempDir scratch;
    WriteText(scratch / "dest/.keep", "");
    NetworkReceiverOptions options;
    options.listTimeout = 300ms;
    LoopbackReceiver receiver(scratch / "dest", options);

    RawClient silent(receiver.Address().port);
    ASSERT_TRUE(silent.SendHello());
    ASSERT_TRUE(receiver.WaitForSessions(1));
    const ReceivedSession session = receiver.Log().Sessions().front();
    EXPECT_EQ(session.outcome, ReceivedSession::Outcome::kListTimeout) << session.failure;
    EXPECT_FALSE(session.summary.completed);
}

}  // namespace
}  // namespace orin::xfer::test
