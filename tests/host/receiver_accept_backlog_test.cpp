// The receiver requests entries ahead, but accepts a file (lets the sender
// stream it) only while the files accepted before it still owe little: a
// slow writer must not let whole files pile up in memory.
#include <chrono>
#include <map>
#include <mutex>
#include <string>
#include <thread>
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

constexpr uint64_t kSmall = 1000;
constexpr uint64_t kLarge = 6u << 20;  // more than the receiver lets accepted files owe

// Plays the sender: announces every request at once, and sends a file's
// data only when the test says so.
class HandSender : public ITransportHandler {
public:
    void OnMessage(Message message) override
    {
        std::lock_guard<std::mutex> lock(mutex);
        if (std::holds_alternative<FileListRequest>(message)) {
            link->Send(FileListMessage{listJson});
        } else if (auto* request = std::get_if<NextFileRequest>(&message)) {
            FileStart start;
            start.taskId = request->taskId;
            start.transferId = 3 + 2 * static_cast<uint32_t>(request->index);
            start.name = request->name;
            start.fileSize = sizes.at(request->name);
            start.ackWindow = 50;
            link->Send(start);
        } else if (auto* accept = std::get_if<FileAccept>(&message)) {
            accepted.push_back(accept->transferId);
        }
    }
    void OnTransportClosed(const std::string&) override {}

    std::vector<uint32_t> Accepted()
    {
        std::lock_guard<std::mutex> lock(mutex);
        return accepted;
    }
    void SendFile(uint32_t transferId, const std::vector<uint8_t>& bytes)
    {
        for (uint64_t offset = 0; offset < bytes.size() || offset == 0; offset += 65536) {
            const uint64_t end = std::min<uint64_t>(bytes.size(), offset + 65536);
            link->Send(FileData{transferId, std::vector<uint8_t>(bytes.begin() + offset, bytes.begin() + end)});
            if (end == bytes.size()) {
                break;
            }
        }
    }

    ITransport* link = nullptr;
    std::string listJson;
    std::map<std::string, uint64_t> sizes;
    std::mutex mutex;
    std::vector<uint32_t> accepted;
};

std::string entry(const std::string& name, uint64_t size)
{
    return "{\"filePath\":\"\",\"fileName\":\"" + name + "\",\"attribute\":128,\"mode\":420,\"fileSize\":" +
           std::to_string(size) + "}";
}

TEST(ReceiverAcceptBacklog, ALargeFileIsAcceptedOnlyOnceTheOneBeforeItHasBeenWritten)
{
    test::QuietEngineLog quiet;
    TempDir scratch;
    const std::string destination = scratch.Join("dest");
    test::MakeDirectory(destination);
    HandSender sender;
    // The first file goes alone (its request wipes the cache); the two large
    // ones are then requested and announced together.
    sender.listJson = "{\"fileList\":[" + entry("first.txt", kSmall) + "," + entry("one.bin", kLarge) + "," +
                      entry("two.bin", kLarge) + "],\"root\":\"/src\"}";
    sender.sizes = {{"first.txt", kSmall}, {"one.bin", kLarge}, {"two.bin", kLarge}};
    const auto first = PatternBytes(kSmall, 1);
    const auto one = PatternBytes(kLarge, 2);
    const auto two = PatternBytes(kLarge, 3);

    auto [senderEnd, receiverEnd] = InProcessTransport::CreatePair();
    sender.link = senderEnd.get();
    senderEnd->Start(sender);
    ReceiverOptions options;
    options.destinationDir = destination;
    ReceiverEndpoint receiver(std::move(receiverEnd), options);
    std::string error;
    ASSERT_TRUE(receiver.Start(error)) << error;

    ASSERT_TRUE(waitUntil([&] { return sender.Accepted().size() == 1; }));
    sender.SendFile(3, first);
    ASSERT_TRUE(waitUntil([&] { return sender.Accepted().size() == 2; }));
    EXPECT_EQ(sender.Accepted()[1], 5u);

    // one.bin's 6 MiB are owed: two.bin waits, however long.
    std::this_thread::sleep_for(200ms);
    EXPECT_EQ(sender.Accepted().size(), 2u);

    sender.SendFile(5, one);
    ASSERT_TRUE(waitUntil([&] { return sender.Accepted().size() == 3; }));
    EXPECT_EQ(sender.Accepted()[2], 7u);
    sender.SendFile(7, two);

    ASSERT_TRUE(receiver.WaitFinished(20s));
    ASSERT_TRUE(receiver.Summary().completed) << receiver.Summary().error;
    EXPECT_EQ(ReadBytes(destination + "/first.txt"), first);
    EXPECT_EQ(ReadBytes(destination + "/one.bin"), one);
    EXPECT_EQ(ReadBytes(destination + "/two.bin"), two);
    senderEnd->Close();
}

}  // namespace
}  // namespace orin::xfer::host
