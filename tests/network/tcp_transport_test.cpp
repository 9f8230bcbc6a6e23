// TcpTransport between two threads on 127.0.0.1 with ephemeral ports: the
// ITransport contract (order, delivery thread, backpressure, Close from
// anywhere, one OnTransportClosed) and the link's own defences (protocol
// errors, a cut stream, a silent peer).
#include <gtest/gtest.h>

#include <atomic>
#include <memory>

#include "LinkTestSupport.h"
#include "xferfm/host/TcpListener.h"
#include "xferfm/host/TcpTransport.h"

namespace orin::xfer::test {
namespace {

using namespace std::chrono_literals;

std::vector<uint8_t> Pattern(size_t size, uint8_t seed)
{
    std::vector<uint8_t> bytes(size);
    for (size_t index = 0; index < size; ++index) {
        bytes[index] = static_cast<uint8_t>(seed + index * 31);
    }
    return bytes;
}

class TcpTransportTest : public ::testing::Test {
protected:
    void Connect(TcpTransportOptions clientOptions = {}, TcpTransportOptions serverOptions = {})
    {
        SocketPair pair = ConnectLoopbackPair();
        ASSERT_TRUE(pair.client.Valid());
        ASSERT_TRUE(pair.server.Valid());
        client = std::make_unique<TcpTransport>(std::move(pair.client), clientOptions);
        server = std::make_unique<TcpTransport>(std::move(pair.server), serverOptions);
    }
    void StartBoth()
    {
        client->Start(clientHandler);
        server->Start(serverHandler);
    }

    RecordingHandler clientHandler;
    RecordingHandler serverHandler;
    std::unique_ptr<TcpTransport> client;
    std::unique_ptr<TcpTransport> server;
};

TEST_F(TcpTransportTest, MessagesArriveInOrderBothWays)
{
    Connect();
    StartBoth();
    std::vector<Message> toServer = {FileListRequest{}, NextFileRequest{1, 0, "a/b.txt", 10}, FileAccept{3}};
    for (int index = 0; index < 40; ++index) {
        toServer.push_back(DataAck{3, static_cast<uint64_t>(index)});
    }
    std::vector<Message> toClient = {FileListMessage{"{\"fileList\":[]}"}, FileStart{1, 3, "a/b.txt", false, 5, 5, 50}};
    for (int index = 0; index < 40; ++index) {
        toClient.push_back(FileData{3, Pattern(index == 0 ? 0 : 65536 - index, static_cast<uint8_t>(index))});
    }
    toClient.push_back(Disconnect{true, "done"});

    for (const Message& message : toServer) {
        ASSERT_TRUE(client->Send(message));
    }
    for (const Message& message : toClient) {
        ASSERT_TRUE(server->Send(message));
    }
    ASSERT_TRUE(serverHandler.WaitForMessages(toServer.size()));
    ASSERT_TRUE(clientHandler.WaitForMessages(toClient.size()));
    EXPECT_EQ(serverHandler.Messages(), toServer);
    EXPECT_EQ(clientHandler.Messages(), toClient);
    EXPECT_EQ(clientHandler.ClosedCount(), 0);
    EXPECT_EQ(serverHandler.ClosedCount(), 0);
}

TEST_F(TcpTransportTest, DeliveryRunsOnTheTransportsOwnThread)
{
    Connect();
    StartBoth();
    ASSERT_TRUE(client->Send(EndOfList{}));
    ASSERT_TRUE(client->Send(EndOfList{}));
    ASSERT_TRUE(serverHandler.WaitForMessages(2));
    const auto threads = serverHandler.DeliveryThreads();
    EXPECT_NE(threads[0], std::this_thread::get_id());
    EXPECT_EQ(threads[0], threads[1]);
}

TEST_F(TcpTransportTest, PeerCloseIsReportedOnceAfterEverythingItSent)
{
    Connect();
    StartBoth();
    for (uint64_t index = 0; index < 100; ++index) {
        ASSERT_TRUE(client->Send(DataAck{3, index}));
    }
    ASSERT_TRUE(client->Send(Disconnect{true, "bye"}));
    client->Close();

    ASSERT_TRUE(serverHandler.WaitForClose());
    EXPECT_EQ(serverHandler.MessageCount(), 101u) << "every message sent before Close is delivered first";
    EXPECT_NE(serverHandler.CloseReason().find("closed the connection"), std::string::npos)
        << serverHandler.CloseReason();
    EXPECT_TRUE(waitUntil([&] { return !server->Send(EndOfList{}); }, 5s)) << "Send fails once the peer closed";

    std::this_thread::sleep_for(200ms);  // room for a wrong second report
    EXPECT_EQ(serverHandler.ClosedCount(), 1);
    EXPECT_EQ(clientHandler.ClosedCount(), 0) << "a local Close reports nothing to its own handler";
    EXPECT_FALSE(client->Send(EndOfList{}));
}

TEST_F(TcpTransportTest, DestroyingAnEndDeliversItsLastMessages)
{
    Connect();
    StartBoth();
    for (int index = 0; index < 50; ++index) {
        ASSERT_TRUE(client->Send(FileData{3, Pattern(65536, static_cast<uint8_t>(index))}));
    }
    ASSERT_TRUE(client->Send(Disconnect{true, "last"}));
    client.reset();
    ASSERT_TRUE(serverHandler.WaitForClose());
    const auto messages = serverHandler.Messages();
    ASSERT_EQ(messages.size(), 51u);
    EXPECT_EQ(messages.back(), Message(Disconnect{true, "last"}));
}

TEST_F(TcpTransportTest, CloseFromInsideTheHandlerStopsFurtherCalls)
{
    Connect();
    std::atomic<int> calls{0};
    serverHandler.onMessageHook = [&](const Message&) {
        if (++calls == 3) {
            server->Close();
        }
    };
    StartBoth();
    for (uint64_t index = 0; index < 20; ++index) {
        ASSERT_TRUE(client->Send(DataAck{3, index}));
    }
    ASSERT_TRUE(clientHandler.WaitForClose()) << "the peer is told the link is closed";
    EXPECT_EQ(serverHandler.MessageCount(), 3u);
    EXPECT_EQ(serverHandler.ClosedCount(), 0);
    EXPECT_FALSE(server->Send(EndOfList{}));
}

TEST_F(TcpTransportTest, CloseFromAnotherThreadReturnsWithTheHandlerIdle)
{
    Connect();
    std::atomic<bool> inHandler{false};
    serverHandler.onMessageHook = [&](const Message&) {
        inHandler = true;
        std::this_thread::sleep_for(2ms);
        inHandler = false;
    };
    StartBoth();
    std::atomic<bool> stop{false};
    std::thread pump([&] {
        for (uint64_t index = 0; index < 100000 && !stop; ++index) {
            if (!client->Send(DataAck{3, index})) {
                break;
            }
        }
    });
    ASSERT_TRUE(serverHandler.WaitForMessages(5));
    server->Close();
    EXPECT_FALSE(inHandler.load());
    const size_t countAtClose = serverHandler.MessageCount();
    std::this_thread::sleep_for(100ms);
    EXPECT_EQ(serverHandler.MessageCount(), countAtClose) << "no delivery after Close returned";
    EXPECT_EQ(serverHandler.ClosedCount(), 0);
    server->Close();  // idempotent
    stop = true;
    pump.join();
}

TEST_F(TcpTransportTest, DataSendsWaitWhileTheQueueIsFullButControlSendsDoNot)
{
    TcpTransportOptions small;
    small.maxQueuedDataBytes = 256u << 10;
    small.socketBufferBytes = 64u << 10;
    Connect(small, small);
    std::mutex gateMutex;
    std::condition_variable gateChanged;
    bool gateOpen = false;
    serverHandler.onMessageHook = [&](const Message& message) {
        if (std::holds_alternative<FileData>(message)) {
            std::unique_lock<std::mutex> lock(gateMutex);
            gateChanged.wait_for(lock, 20s, [&] { return gateOpen; });
        }
    };
    StartBoth();

    constexpr int kPieces = 300;  // ~19 MiB, far more than queue and socket buffers hold
    std::atomic<int> sent{0};
    std::thread sender([&] {
        for (int index = 0; index < kPieces; ++index) {
            if (!client->Send(FileData{3, Pattern(65536, static_cast<uint8_t>(index))})) {
                return;
            }
            ++sent;
        }
    });

    // The sender stalls once the queue and the socket buffers are full.
    int previous = -1;
    ASSERT_TRUE(waitUntil(
        [&] {
            const int now = sent.load();
            const bool stalled = now == previous && now > 0;
            previous = now;
            std::this_thread::sleep_for(100ms);
            return stalled;
        },
        10s));
    EXPECT_LT(sent.load(), kPieces);
    EXPECT_LE(client->PeakQueuedDataBytes(), small.maxQueuedDataBytes + 65536 + 16);

    const auto before = std::chrono::steady_clock::now();
    EXPECT_TRUE(client->Send(DataAck{9, 9}));
    EXPECT_TRUE(client->Send(TransferError{1, 3, "control goes through"}));
    EXPECT_LT(std::chrono::steady_clock::now() - before, 1s) << "control messages never wait";

    {
        const std::lock_guard<std::mutex> lock(gateMutex);
        gateOpen = true;
    }
    gateChanged.notify_all();
    sender.join();
    EXPECT_EQ(sent.load(), kPieces);
    ASSERT_TRUE(serverHandler.WaitForMessages(kPieces + 2, 20s));
    const auto messages = serverHandler.Messages();
    int dataSeen = 0;
    for (const Message& message : messages) {
        if (const auto* data = std::get_if<FileData>(&message)) {
            ASSERT_EQ(data->bytes, Pattern(65536, static_cast<uint8_t>(dataSeen))) << "piece " << dataSeen;
            ++dataSeen;
        }
    }
    EXPECT_EQ(dataSeen, kPieces);
    EXPECT_EQ(serverHandler.ClosedCount(), 0);
}

TEST_F(TcpTransportTest, CloseReleasesASenderWaitingForRoom)
{
    TcpTransportOptions small;
    small.maxQueuedDataBytes = 64u << 10;
    small.socketBufferBytes = 64u << 10;
    small.closeFlushTimeout = 300ms;
    Connect(small, small);
    std::atomic<bool> release{false};
    serverHandler.onMessageHook = [&](const Message&) {
        waitUntil([&] { return release.load(); }, 20s);
    };
    StartBoth();
    std::atomic<bool> senderDone{false};
    std::atomic<bool> lastResult{true};
    std::thread sender([&] {
        for (int index = 0; index < 1000 && lastResult; ++index) {
            lastResult = client->Send(FileData{3, Pattern(65536, 1)});
        }
        senderDone = true;
    });
    std::this_thread::sleep_for(300ms);
    EXPECT_FALSE(senderDone.load()) << "the sender should be waiting for room";
    client->Close();
    EXPECT_TRUE(waitUntil([&] { return senderDone.load(); }, 5s));
    EXPECT_FALSE(lastResult.load());
    sender.join();
    release = true;
    // The hook reads `release`: its delivery thread must be done before this frame goes.
    server->Close();
}

TEST_F(TcpTransportTest, SilentPeerIsDetected)
{
    std::string error;
    TcpListener listener(HostPort{"127.0.0.1", 0}, error);
    ASSERT_TRUE(listener.Valid()) << error;
    RawClient raw(listener.Port());
    ASSERT_TRUE(raw.Connected());
    TcpSocket accepted;
    ASSERT_EQ(listener.Accept(5s, accepted, error), TcpListener::AcceptResult::kAccepted);
    TcpTransportOptions options;
    options.silenceTimeout = 400ms;
    TcpTransport transport(std::move(accepted), options);
    RecordingHandler handler;
    const auto start = std::chrono::steady_clock::now();
    transport.Start(handler);
    ASSERT_TRUE(raw.SendHello());  // then nothing at all

    ASSERT_TRUE(handler.WaitForClose(5s));
    EXPECT_GE(std::chrono::steady_clock::now() - start, 400ms);
    EXPECT_NE(handler.CloseReason().find("nothing heard from 127.0.0.1:"), std::string::npos) << handler.CloseReason();
    EXPECT_NE(handler.CloseReason().find("for 0.4 s"), std::string::npos) << handler.CloseReason();
}

TEST_F(TcpTransportTest, KeepalivesHoldAnIdleLinkOpen)
{
    TcpTransportOptions options;
    options.keepaliveInterval = 50ms;
    options.silenceTimeout = 300ms;
    Connect(options, options);
    StartBoth();
    std::this_thread::sleep_for(1200ms);  // four silence timeouts of idleness
    EXPECT_EQ(clientHandler.ClosedCount(), 0) << clientHandler.CloseReason();
    EXPECT_EQ(serverHandler.ClosedCount(), 0) << serverHandler.CloseReason();
    ASSERT_TRUE(client->Send(EndOfList{}));
    EXPECT_TRUE(serverHandler.WaitForMessages(1));
}

TEST_F(TcpTransportTest, SlowHandlerIsNotMistakenForASilentPeer)
{
    TcpTransportOptions options;
    options.keepaliveInterval = 100ms;
    options.silenceTimeout = 300ms;
    Connect(options, options);
    serverHandler.onMessageHook = [](const Message&) { std::this_thread::sleep_for(500ms); };
    StartBoth();
    for (int index = 0; index < 3; ++index) {
        ASSERT_TRUE(client->Send(EndOfList{}));
    }
    ASSERT_TRUE(serverHandler.WaitForMessages(3, 5s));
    std::this_thread::sleep_for(600ms);  // two silence timeouts after the handler is done
    EXPECT_EQ(serverHandler.ClosedCount(), 0) << serverHandler.CloseReason();
    EXPECT_EQ(clientHandler.ClosedCount(), 0) << clientHandler.CloseReason();
}

class RawPeerTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        std::string error;
        listener = std::make_unique<TcpListener>(HostPort{"127.0.0.1", 0}, error);
        ASSERT_TRUE(listener->Valid()) << error;
        raw = std::make_unique<RawClient>(listener->Port());
        ASSERT_TRUE(raw->Connected());
        TcpSocket accepted;
        ASSERT_EQ(listener->Accept(5s, accepted, error), TcpListener::AcceptResult::kAccepted) << error;
        transport = std::make_unique<TcpTransport>(std::move(accepted));
        transport->Start(handler);
    }
    void TearDown() override
    {
        raw.reset();  // the transport's close then sees the raw end gone at once
        transport.reset();
    }

    // Sends `bytes`, expects the link to close with a reason holding
    // `expected`, and the raw peer to hear a Disconnect naming it.
    void ExpectRejected(const std::vector<uint8_t>& bytes, const std::string& expected)
    {
        ASSERT_TRUE(raw->SendBytes(bytes));
        ASSERT_TRUE(handler.WaitForClose(5s));
        EXPECT_NE(handler.CloseReason().find(expected), std::string::npos) << handler.CloseReason();
        EXPECT_NE(handler.CloseReason().find("protocol error from 127.0.0.1:"), std::string::npos);
        std::vector<Message> messages;
        raw->ReadMessagesUntil([](const std::vector<Message>& got) { return !got.empty(); }, messages, 5s);
        ASSERT_EQ(messages.size(), 1u);
        const auto* goodbye = std::get_if<Disconnect>(&messages[0]);
        ASSERT_NE(goodbye, nullptr);
        EXPECT_FALSE(goodbye->completed);
        EXPECT_NE(goodbye->reason.find(expected), std::string::npos) << goodbye->reason;
        std::vector<uint8_t> rest;
        EXPECT_TRUE(raw->ReadUntilClosed(rest, 5s)) << "the link ends after the Disconnect";
        EXPECT_FALSE(transport->Send(EndOfList{}));
    }

    std::unique_ptr<TcpListener> listener;
    std::unique_ptr<RawClient> raw;
    RecordingHandler handler;
    std::unique_ptr<TcpTransport> transport;
};

TEST_F(RawPeerTest, GarbageInsteadOfAHelloIsRejected)
{
    const std::string text = "GET / HTTP/1.0\r\n\r\n";
    ExpectRejected(std::vector<uint8_t>(text.begin(), text.end()), "did not open with a hello frame");
}

TEST_F(RawPeerTest, UnknownFrameTypeIsRejected)
{
    std::vector<uint8_t> bytes = HelloFrame();
    const std::vector<uint8_t> unknown = FrameHeader(0x42, 0);
    bytes.insert(bytes.end(), unknown.begin(), unknown.end());
    ExpectRejected(bytes, "unknown frame type 0x42");
}

TEST_F(RawPeerTest, OversizedDataFrameIsRejected)
{
    std::vector<uint8_t> bytes = HelloFrame();
    const std::vector<uint8_t> huge = FrameHeader(0x15, 0xFFFFFFFF);
    bytes.insert(bytes.end(), huge.begin(), huge.end());
    ExpectRejected(bytes, "more than the limit");
}

TEST_F(RawPeerTest, MessagesBeforeTheBadFrameAreDelivered)
{
    ASSERT_TRUE(raw->SendHello());
    ASSERT_TRUE(raw->SendMessage(FileListRequest{}));
    ExpectRejected(FrameHeader(0x16, 3), "data-ack frame must carry 12");
    EXPECT_EQ(handler.Messages(), std::vector<Message>{FileListRequest{}});
}

TEST_F(RawPeerTest, StreamCutInsideAFrameIsReported)
{
    ASSERT_TRUE(raw->SendHello());
    std::vector<uint8_t> partial = FrameHeader(0x15, 8 + 1000);
    partial.resize(partial.size() + 100, 0);
    ASSERT_TRUE(raw->SendBytes(partial));
    raw->FinishSending();  // an end of stream, not a reset by unread bytes
    ASSERT_TRUE(handler.WaitForClose(5s));
    EXPECT_NE(handler.CloseReason().find("cut short: the stream ended inside a file-data frame"), std::string::npos)
        << handler.CloseReason();
}

TEST_F(RawPeerTest, ResetIsReportedAsALostConnection)
{
    ASSERT_TRUE(raw->SendHello());
    raw->Abort();
    ASSERT_TRUE(handler.WaitForClose(5s));
    EXPECT_NE(handler.CloseReason().find("127.0.0.1:"), std::string::npos) << handler.CloseReason();
    EXPECT_EQ(handler.ClosedCount(), 1);
}

TEST_F(RawPeerTest, EachEndOpensWithItsHello)
{
    std::vector<Message> none;
    std::vector<uint8_t> received;
    ASSERT_TRUE(raw->SendHello());
    transport->Close();
    ASSERT_TRUE(raw->ReadUntilClosed(received, 5s));
    ASSERT_GE(received.size(), 13u);
    EXPECT_EQ(std::vector<uint8_t>(received.begin(), received.begin() + 13), HelloFrame());
}

}  // namespace
}  // namespace orin::xfer::test
