// Peers that keep a NetworkReceiver busy without moving anything: each
// test is one promise that such a peer is ended in a bounded, documented
// time and that a normal sender is served again right after.
#include <gtest/gtest.h>

#include <algorithm>

#include <chrono>
#include <fstream>
#include <iterator>

#include "LinkTestSupport.h"
#include "ServingReceiver.h"
#include "TempDir.h"
#include "TestSupport.h"
#include "TreeCompare.h"
#include "Wait.h"

namespace orin::xfer::test {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

std::string ReadText(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// Reads (and drops) what the receiver says for `span`: the peer waits
// without going silent at the link's level.
void Linger(RawClient& peer, std::chrono::milliseconds span)
{
    std::vector<Message> heard;
    peer.ReadMessagesUntil([](const std::vector<Message>&) { return false; }, heard, span);
}

bool LastIs(const std::vector<Message>& heard, size_t index)
{
    return !heard.empty() && heard.back().index() == index;
}

// Hello, the list request answered with one 10-byte file, then the first
// file request: the session is receiving and waits for data.
void PlayUpToTheFirstRequest(RawClient& peer)
{
    ASSERT_TRUE(peer.SendHello());
    std::vector<Message> heard;
    ASSERT_TRUE(peer.ReadMessagesUntil(
        [](const std::vector<Message>& m) { return LastIs(m, Message(FileListRequest{}).index()); }, heard, 10s));
    const std::string list = "{\"fileList\":[{\"filePath\":\"\",\"fileName\":\"held.txt\",\"attribute\":128,"
                             "\"mode\":420,\"fileSize\":10}],\"root\":\"/peer\"}";
    ASSERT_TRUE(peer.SendMessage(FileListMessage{list}));
    ASSERT_TRUE(peer.ReadMessagesUntil(
        [](const std::vector<Message>& m) { return LastIs(m, Message(NextFileRequest{}).index()); }, heard, 10s));
}

TEST(HostileStallTest, ASenderThatChattersWithoutMovingDataEndsAsStalledAfterTheProgressTimeOut)
{
    TempDir scratch;
    WriteText(scratch / "dest/.keep", "");
    WriteText(scratch / "src/normal.txt", "served after the stall");
    NetworkReceiverOptions options;
    options.progressTimeout = 600ms;
    LoopbackReceiver receiver(scratch / "dest", options);

    RawClient peer(receiver.Address().port);
    PlayUpToTheFirstRequest(peer);
    const auto listed = Clock::now();
    // No-op acknowledgements and empty data for an unknown transfer, far
    // more often than the link's silence limit: frames, never progress.
    std::vector<Message> heard;
    for (int round = 0; round < 100 && receiver.Log().Sessions().empty(); ++round) {
        peer.SendMessage(DataAck{0, 0});
        peer.SendMessage(FileData{99, {}});
        peer.ReadMessagesUntil([](const std::vector<Message>&) { return false; }, heard, 100ms);
    }
    ASSERT_TRUE(receiver.WaitForSessions(1, 5s));
    const auto ended = Clock::now() - listed;
    const ReceivedSession session = receiver.Log().Sessions().front();
    EXPECT_EQ(session.outcome, ReceivedSession::Outcome::kStalled) << session.failure;
    EXPECT_EQ(session.failure, "no file data moved for 0.6 s");
    EXPECT_LT(ended, 3s) << "the limit is 0.6 s; frames must not extend it";

    const auto before = Clock::now();
    const SentSession normal = CopyOver(receiver.Address(), {scratch / "src/normal.txt"});
    EXPECT_EQ(normal.outcome, SentSession::Outcome::kCompleted) << normal.failure;
    EXPECT_LT(Clock::now() - before, 5s);
    EXPECT_EQ(ReadText(scratch / "dest/normal.txt"), "served after the stall");
}

TEST(HostileStallTest, ASlowSenderWhoseEveryStepMovesDataIsNotCutThoughTheWholeCopyOutlastsTheTimeOut)
{
    TempDir scratch;
    WriteText(scratch / "dest/.keep", "");
    NetworkReceiverOptions options;
    options.progressTimeout = 2s;
    LoopbackReceiver receiver(scratch / "dest", options);
    RawClient peer(receiver.Address().port);
    PlayUpToTheFirstRequest(peer);
    // The announcement comes 1.2 s after the request, the second half of
    // the data 1.2 s after the first: the copy outlasts the 2 s limit,
    // each gap does not, and the request and each chunk restart it.
    std::vector<Message> heard;
    const auto listed = Clock::now();
    Linger(peer, 1200ms);
    FileStart start;
    start.taskId = 1;
    start.transferId = 3;
    start.name = "held.txt";
    start.fileSize = 10;
    start.totalSize = 10;
    start.ackWindow = 50;
    ASSERT_TRUE(peer.SendMessage(start));
    ASSERT_TRUE(peer.ReadMessagesUntil(
        [](const std::vector<Message>& m) { return LastIs(m, Message(FileAccept{}).index()); }, heard, 10s));
    ASSERT_TRUE(peer.SendMessage(FileData{3, std::vector<uint8_t>(5, 'a')}));
    Linger(peer, 1200ms);
    ASSERT_TRUE(peer.SendMessage(FileData{3, std::vector<uint8_t>(5, 'b')}));
    ASSERT_TRUE(receiver.WaitForSessions(1, 10s));
    const ReceivedSession session = receiver.Log().Sessions().front();
    EXPECT_EQ(session.outcome, ReceivedSession::Outcome::kOk) << session.failure;
    EXPECT_GT(Clock::now() - listed, options.progressTimeout);
    EXPECT_EQ(ReadText(scratch / "dest/held.txt"), "aaaaabbbbb");
}

}  // namespace
}  // namespace orin::xfer::test

namespace orin::xfer::test {
namespace {

TEST(HostileStallTest, ASenderThatOffersNoListHearsTheListTimeOutNotACancel)
{
    TempDir scratch;
    WriteText(scratch / "dest/.keep", "");
    NetworkReceiverOptions options;
    options.listTimeout = 300ms;
    LoopbackReceiver receiver(scratch / "dest", options);
    RawClient silent(receiver.Address().port);
    ASSERT_TRUE(silent.SendHello());
    std::vector<Message> heard;
    ASSERT_TRUE(silent.ReadMessagesUntil(
        [](const std::vector<Message>& m) { return !m.empty() && std::holds_alternative<Disconnect>(m.back()); },
        heard, 10s));
    // The endpoint's own "cancelled" follows; both may come in one read.
    const auto first = std::find_if(heard.begin(), heard.end(),
                                    [](const Message& m) { return std::holds_alternative<Disconnect>(m); });
    ASSERT_NE(first, heard.end());
    const Disconnect& goodbye = std::get<Disconnect>(*first);
    EXPECT_EQ(goodbye.reason, "no file list within 0.3 s");
    EXPECT_EQ(ReasonOf(goodbye), DisconnectReason::kFailed);
}

}  // namespace
}  // namespace orin::xfer::test
