#include <chrono>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "HostTestSupport.h"
#include "TestSupport.h"
#include "xferfm/host/InProcessTransport.h"
#include "xferfm/host/ReceiverEndpoint.h"

namespace orin::xfer::host {
namespace {

using orin::xfer::test::PatternBytes;
using orin::xfer::test::ReadBytes;
using orin::xfer::test::TempDir;
using orin::xfer::test::waitUntil;
using namespace std::chrono_literals;
using test::ListTree;

// The sending side played by hand: answers the receiver as each test says.
class ScriptedSender : public ITransportHandler {
public:
    void OnMessage(Message message) override
    {
        {
            std::lock_guard<std::mutex> lock(mutex);
            received.push_back(message);
        }
        if (std::holds_alternative<FileListRequest>(message)) {
            link->Send(FileListMessage{listJson});
        } else if (auto* request = std::get_if<NextFileRequest>(&message)) {
            if (onRequest) {
                onRequest(*request);
            }
        } else if (auto* accept = std::get_if<FileAccept>(&message)) {
            if (onAccept) {
                onAccept(*accept);
            }
        }
    }
    void OnTransportClosed(const std::string&) override {}

    template <typename T>
    std::vector<T> ReceivedOf()
    {
        std::vector<T> out;
        std::lock_guard<std::mutex> lock(mutex);
        for (const auto& message : received) {
            if (const T* body = std::get_if<T>(&message)) {
                out.push_back(*body);
            }
        }
        return out;
    }

    ITransport* link = nullptr;
    std::string listJson;
    std::function<void(const NextFileRequest&)> onRequest;
    std::function<void(const FileAccept&)> onAccept;
    std::mutex mutex;
    std::vector<Message> received;
};

std::string oneFileList(const std::string& name, uint64_t size)
{
    return "{\"fileList\":[{\"filePath\":\"\",\"fileName\":\"" + name +
           "\",\"attribute\":128,\"mode\":420,\"fileSize\":" + std::to_string(size) + "}],\"root\":\"/src\"}";
}

class ReceiverProtocol : public ::testing::Test {
protected:
    void SetUp() override
    {
        destination = scratch.Join("dest");
        test::MakeDirectory(destination);
        auto [senderEnd, receiverEnd] = InProcessTransport::CreatePair();
        senderLink = std::move(senderEnd);
        script.link = senderLink.get();
        senderLink->Start(script);
        ReceiverOptions options;
        options.destinationDir = destination;
        options.stallTimeout = 400ms;
        options.observer = &observer;
        receiver = std::make_unique<ReceiverEndpoint>(std::move(receiverEnd), options);
    }
    void TearDown() override
    {
        receiver.reset();
        senderLink.reset();
    }
    void Run()
    {
        std::string error;
        ASSERT_TRUE(receiver->Start(error)) << error;
        ASSERT_TRUE(receiver->WaitFinished(20s));
    }
    void Announce(const NextFileRequest& request, uint32_t transferId, uint64_t size, uint32_t window,
                  const std::string& name = "")
    {
        FileStart start;
        start.taskId = request.taskId;
        start.transferId = transferId;
        start.name = name.empty() ? request.name : name;
        start.fileSize = size;
        start.ackWindow = window;
        senderLink->Send(start);
    }

    test::QuietEngineLog quiet;
    TempDir scratch;
    std::string destination;
    ScriptedSender script;
    test::RecordingReceiverObserver observer;
    std::unique_ptr<InProcessTransport> senderLink;
    std::unique_ptr<ReceiverEndpoint> receiver;
};

TEST_F(ReceiverProtocol, AHostileListIsRejectedWithoutTouchingTheDestination)
{
    script.listJson =
        "{\"fileList\":[{\"filePath\":\"\",\"fileName\":\"..\",\"attribute\":16,\"mode\":0,\"fileSize\":0}]}";
    Run();
    const TransferSummary summary = receiver->Summary();
    EXPECT_FALSE(summary.completed);
    EXPECT_NE(summary.error.find("rejected the sender's file list"), std::string::npos) << summary.error;
    EXPECT_EQ(observer.Count("failure"), 1u);
    EXPECT_EQ(ListTree(destination), std::vector<std::string>{});
    ASSERT_TRUE(waitUntil([&] { return !script.ReceivedOf<Disconnect>().empty(); }));
    EXPECT_FALSE(script.ReceivedOf<Disconnect>()[0].completed);
    EXPECT_EQ(script.ReceivedOf<NextFileRequest>().size(), 0u);
}

TEST_F(ReceiverProtocol, ASilentSenderFailsTheCopyAfterTheStallTimeout)
{
    script.listJson = oneFileList("a.txt", 100000);
    script.onRequest = [this](const NextFileRequest& request) { Announce(request, 3, 100000, 50); };
    Run();
    EXPECT_NE(receiver->Summary().error.find("no data from the sender"), std::string::npos)
        << receiver->Summary().error;
    EXPECT_NE(receiver->Summary().error.find(destination + "/a.txt"), std::string::npos);
    EXPECT_EQ(ListTree(destination), std::vector<std::string>{});
}

TEST_F(ReceiverProtocol, AnAnnouncementOfTheWrongEntryFailsTheCopy)
{
    script.listJson = oneFileList("a.txt", 10);
    script.onRequest = [this](const NextFileRequest& request) { Announce(request, 3, 10, 50, "b.txt"); };
    Run();
    EXPECT_NE(receiver->Summary().error.find("announced \"b.txt\" where \"a.txt\" was asked for"), std::string::npos)
        << receiver->Summary().error;
    EXPECT_EQ(ListTree(destination), std::vector<std::string>{});
}

TEST_F(ReceiverProtocol, AnEvenTransferIdIsRefused)
{
    script.listJson = oneFileList("a.txt", 10);
    script.onRequest = [this](const NextFileRequest& request) { Announce(request, 4, 10, 50); };
    Run();
    EXPECT_NE(receiver->Summary().error.find("invalid transfer id"), std::string::npos) << receiver->Summary().error;
}

TEST_F(ReceiverProtocol, AcknowledgesEveryWindowOfWrittenChunks)
{
    static constexpr uint64_t kSize = 10 * 65536 + 5;
    const auto bytes = PatternBytes(kSize, 4);
    script.listJson = oneFileList("data.bin", kSize);
    script.onRequest = [this](const NextFileRequest& request) { Announce(request, 7, kSize, 3); };
    script.onAccept = [this, &bytes](const FileAccept& accept) {
        EXPECT_EQ(accept.transferId, 7u);
        for (uint64_t offset = 0; offset < kSize; offset += 65536) {
            FileData data;
            data.transferId = 7;
            data.bytes.assign(bytes.begin() + offset, bytes.begin() + std::min<uint64_t>(kSize, offset + 65536));
            senderLink->Send(std::move(data));
        }
    };
    Run();
    ASSERT_TRUE(receiver->Summary().completed) << receiver->Summary().error;
    EXPECT_EQ(ReadBytes(destination + "/data.bin"), bytes);
    // The closing Disconnect comes after every acknowledgement.
    ASSERT_TRUE(waitUntil([&] { return !script.ReceivedOf<Disconnect>().empty(); }));
    const auto acks = script.ReceivedOf<DataAck>();
    ASSERT_EQ(acks.size(), 3u);
    EXPECT_EQ(acks[0].chunksWritten, 3u);
    EXPECT_EQ(acks[1].chunksWritten, 6u);
    EXPECT_EQ(acks[2].chunksWritten, 9u);
    for (const auto& ack : acks) {
        EXPECT_EQ(ack.transferId, 7u);
    }
}

TEST_F(ReceiverProtocol, AWindowOfZeroIsAcknowledgedAtAccept)
{
    script.listJson = oneFileList("empty.txt", 0);
    script.onRequest = [this](const NextFileRequest& request) { Announce(request, 9, 0, 0); };
    script.onAccept = [this](const FileAccept& accept) { senderLink->Send(FileData{accept.transferId, {}}); };
    Run();
    ASSERT_TRUE(receiver->Summary().completed) << receiver->Summary().error;
    EXPECT_EQ(ListTree(destination), std::vector<std::string>{"empty.txt"});
    ASSERT_TRUE(waitUntil([&] { return !script.ReceivedOf<Disconnect>().empty(); }));
    const auto acks = script.ReceivedOf<DataAck>();
    ASSERT_EQ(acks.size(), 1u);
    EXPECT_EQ(acks[0].chunksWritten, 0u);
    EXPECT_TRUE(script.ReceivedOf<Disconnect>()[0].completed);
}

TEST_F(ReceiverProtocol, ASenderErrorIsReportedWithItsMessage)
{
    script.listJson = oneFileList("a.txt", 10);
    script.onRequest = [this](const NextFileRequest& request) {
        senderLink->Send(TransferError{request.taskId, 0, "/src/a.txt: cannot be read"});
    };
    Run();
    EXPECT_NE(receiver->Summary().error.find("/src/a.txt: cannot be read"), std::string::npos)
        << receiver->Summary().error;
    ASSERT_TRUE(waitUntil([&] { return !script.ReceivedOf<Disconnect>().empty(); }));
    EXPECT_TRUE(script.ReceivedOf<TransferError>().empty());  // not echoed back
}

}  // namespace
}  // namespace orin::xfer::host
