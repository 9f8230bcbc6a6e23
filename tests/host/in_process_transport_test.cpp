#include <pthread.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "TestSupport.h"
#include "xferfm/host/InProcessTransport.h"

namespace orin::xfer::host {
namespace {

using orin::xfer::test::waitUntil;

// Records what arrives; can be held inside OnMessage until released.
class RecordingHandler : public ITransportHandler {
public:
    void OnMessage(Message message) override
    {
        char name[32] = {};
        pthread_getname_np(pthread_self(), name, sizeof(name));
        {
            std::lock_guard<std::mutex> lock(mutex);
            threadName = name;
            thread = std::this_thread::get_id();
            if (auto* request = std::get_if<NextFileRequest>(&message)) {
                indices.push_back(request->index);
            }
            if (auto* data = std::get_if<FileData>(&message)) {
                dataPointers.push_back(data->bytes.data());
                dataBytes += data->bytes.size();
            }
            ++received;
        }
        if (onMessage) {
            onMessage();
        }
        std::unique_lock<std::mutex> lock(mutex);
        released.wait(lock, [this] { return !holding; });
    }
    void OnTransportClosed(const std::string&) override
    {
        std::lock_guard<std::mutex> lock(mutex);
        closedAfter = received;
        ++closedCount;
    }
    void Hold()
    {
        std::lock_guard<std::mutex> lock(mutex);
        holding = true;
    }
    void Release()
    {
        {
            std::lock_guard<std::mutex> lock(mutex);
            holding = false;
        }
        released.notify_all();
    }
    size_t Received()
    {
        std::lock_guard<std::mutex> lock(mutex);
        return received;
    }
    int ClosedCount()
    {
        std::lock_guard<std::mutex> lock(mutex);
        return closedCount;
    }

    std::mutex mutex;
    std::condition_variable released;
    bool holding = false;
    std::vector<uint64_t> indices;
    std::vector<const uint8_t*> dataPointers;
    uint64_t dataBytes = 0;
    size_t received = 0;
    size_t closedAfter = 0;
    int closedCount = 0;
    std::string threadName;
    std::thread::id thread;
    std::function<void()> onMessage;
};

NextFileRequest request(uint64_t index)
{
    NextFileRequest message;
    message.index = index;
    return message;
}

FileData chunk(size_t size)
{
    FileData data;
    data.transferId = 3;
    data.bytes.assign(size, 0x5a);
    return data;
}

TEST(InProcessTransport, DeliversInOrderOnTheReceivingEndsOwnThread)
{
    RecordingHandler handler;
    auto [a, b] = InProcessTransport::CreatePair();
    b->Start(handler);
    for (uint64_t i = 0; i < 2000; ++i) {
        ASSERT_TRUE(a->Send(request(i)));
    }
    ASSERT_TRUE(waitUntil([&] { return handler.Received() == 2000; }));
    std::lock_guard<std::mutex> lock(handler.mutex);
    for (uint64_t i = 0; i < 2000; ++i) {
        ASSERT_EQ(handler.indices[i], i);
    }
    EXPECT_NE(handler.thread, std::this_thread::get_id());
    EXPECT_EQ(handler.threadName, "xfer-link-b");
}

TEST(InProcessTransport, MessagesSentBeforeStartWaitForIt)
{
    RecordingHandler handler;
    auto [a, b] = InProcessTransport::CreatePair();
    ASSERT_TRUE(b->Send(request(7)));
    a->Start(handler);
    ASSERT_TRUE(waitUntil([&] { return handler.Received() == 1; }));
    EXPECT_EQ(handler.indices.at(0), 7u);
}

TEST(InProcessTransport, DataTravelsWithoutACopy)
{
    RecordingHandler handler;
    auto [a, b] = InProcessTransport::CreatePair();
    b->Start(handler);
    FileData data = chunk(65536);
    const uint8_t* original = data.bytes.data();
    ASSERT_TRUE(a->Send(std::move(data)));
    ASSERT_TRUE(waitUntil([&] { return handler.Received() == 1; }));
    std::lock_guard<std::mutex> lock(handler.mutex);
    EXPECT_EQ(handler.dataPointers.at(0), original);
}

TEST(InProcessTransport, DataBackpressureBoundsWhatIsQueued)
{
    constexpr uint64_t kBound = 4 * 65536;
    RecordingHandler handler;
    InProcessTransportOptions options;
    options.maxQueuedDataBytes = kBound;
    auto [a, b] = InProcessTransport::CreatePair(options);
    handler.Hold();
    b->Start(handler);
    std::atomic<int> sent{0};
    std::thread producer([&, end = a.get()] {
        for (int i = 0; i < 100; ++i) {
            ASSERT_TRUE(end->Send(chunk(65536)));
            ++sent;
        }
    });
    // One chunk is held by the handler, four wait in the queue; the
    // producer's sixth Send cannot return before the handler moves on.
    ASSERT_TRUE(waitUntil([&] { return handler.Received() == 1 && b->QueuedDataBytes() == kBound; }));
    EXPECT_LE(sent.load(), 5);
    EXPECT_EQ(handler.Received(), 1u);
    handler.Release();
    producer.join();
    ASSERT_TRUE(waitUntil([&] { return handler.Received() == 100; }));
    EXPECT_LE(b->PeakQueuedDataBytes(), kBound);
    EXPECT_EQ(handler.dataBytes, 100u * 65536);
}

TEST(InProcessTransport, ControlMessagesPassAFullDataQueue)
{
    RecordingHandler handler;
    InProcessTransportOptions options;
    options.maxQueuedDataBytes = 65536;
    auto [a, b] = InProcessTransport::CreatePair(options);
    handler.Hold();
    b->Start(handler);
    ASSERT_TRUE(a->Send(chunk(65536)));  // held by the handler
    ASSERT_TRUE(waitUntil([&] { return handler.Received() == 1; }));
    ASSERT_TRUE(a->Send(chunk(65536)));  // fills the queue
    std::atomic<bool> controlSent{false};
    std::thread control([&, end = a.get()] {
        end->Send(DataAck{3, 1});
        end->Send(Disconnect{false, "x"});
        controlSent = true;
    });
    EXPECT_TRUE(waitUntil([&] { return controlSent.load(); }, std::chrono::seconds(5)));
    handler.Release();
    control.join();
    EXPECT_TRUE(waitUntil([&] { return handler.Received() == 4; }));
}

TEST(InProcessTransport, AMessageLargerThanTheBoundStillPassesAnEmptyQueue)
{
    RecordingHandler handler;
    InProcessTransportOptions options;
    options.maxQueuedDataBytes = 1000;
    auto [a, b] = InProcessTransport::CreatePair(options);
    b->Start(handler);
    ASSERT_TRUE(a->Send(chunk(65536)));
    EXPECT_TRUE(waitUntil([&] { return handler.Received() == 1; }));
}

TEST(InProcessTransport, ThePeerHearsOfACloseAfterWhatWasSentBefore)
{
    RecordingHandler handler;
    auto [a, b] = InProcessTransport::CreatePair();
    handler.Hold();
    b->Start(handler);
    for (uint64_t i = 0; i < 3; ++i) {
        ASSERT_TRUE(a->Send(request(i)));
    }
    a->Close();
    EXPECT_FALSE(a->Send(request(9)));
    EXPECT_FALSE(b->Send(request(9)));
    handler.Release();
    ASSERT_TRUE(waitUntil([&] { return handler.ClosedCount() == 1; }));
    std::lock_guard<std::mutex> lock(handler.mutex);
    EXPECT_EQ(handler.closedAfter, 3u);
}

TEST(InProcessTransport, ClosingTheReceivingEndReleasesABlockedSender)
{
    RecordingHandler handler;
    InProcessTransportOptions options;
    options.maxQueuedDataBytes = 65536;
    auto [a, b] = InProcessTransport::CreatePair(options);
    handler.Hold();
    b->Start(handler);
    ASSERT_TRUE(a->Send(chunk(65536)));
    ASSERT_TRUE(waitUntil([&] { return handler.Received() == 1; }));
    ASSERT_TRUE(a->Send(chunk(65536)));
    std::atomic<int> result{-1};
    std::thread blocked([&, end = a.get()] { result = end->Send(chunk(65536)) ? 1 : 0; });
    std::thread closer([&, end = b.get()] { end->Close(); });  // waits for the held handler
    // Once a control message is refused the link is closed; only then may
    // the handler move on (else it could drain the queue first).
    ASSERT_TRUE(waitUntil([&] { return !a->Send(DataAck{3, 0}); }));
    handler.Release();
    closer.join();
    blocked.join();
    EXPECT_EQ(result.load(), 0);
}

TEST(InProcessTransport, CanBeClosedFromInsideItsHandler)
{
    RecordingHandler handler;
    auto [a, b] = InProcessTransport::CreatePair();
    std::atomic<bool> closedInside{false};
    handler.onMessage = [&, end = b.get()] {
        end->Close();
        closedInside = true;
    };
    b->Start(handler);
    ASSERT_TRUE(a->Send(request(1)));
    ASSERT_TRUE(waitUntil([&] { return closedInside.load(); }));
    EXPECT_FALSE(a->Send(request(2)));
    b.reset();  // a later Close from another thread returns once the handler is done
    EXPECT_EQ(handler.Received(), 1u);
}

}  // namespace
}  // namespace orin::xfer::host
