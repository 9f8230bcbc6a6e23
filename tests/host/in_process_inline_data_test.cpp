// The in-process transport's inline data option: data for an idle end is
// handled on the sending thread (without a copy through SendData); a busy
// end gets it queued behind what came first.
#include <atomic>
#include <condition_variable>
#include <cstdint>
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

// Records the order of arrivals and the thread of each; a control message
// can be held inside the handler until released.
class OrderHandler : public ITransportHandler {
public:
    void OnMessage(Message message) override
    {
        std::string what = MessageName(message);
        if (const auto* data = std::get_if<FileData>(&message)) {
            what += ":" + std::to_string(data->transferId);
        }
        record(what, nullptr);
        if (std::holds_alternative<NextFileRequest>(message)) {
            std::unique_lock<std::mutex> lock(mutex);
            entered = true;
            changed.notify_all();
            changed.wait(lock, [this] { return !holding; });
        }
    }
    void OnData(uint32_t transferId, const uint8_t* bytes, size_t size) override
    {
        (void)size;
        record("OnData:" + std::to_string(transferId), bytes);
        if (onData) {
            onData();
        }
    }
    void OnTransportClosed(const std::string&) override { record("closed", nullptr); }

    void record(const std::string& what, const uint8_t* pointer)
    {
        std::lock_guard<std::mutex> lock(mutex);
        arrivals.push_back(what);
        threads.push_back(std::this_thread::get_id());
        pointers.push_back(pointer);
    }
    size_t Count()
    {
        std::lock_guard<std::mutex> lock(mutex);
        return arrivals.size();
    }
    void Release()
    {
        std::lock_guard<std::mutex> lock(mutex);
        holding = false;
        changed.notify_all();
    }

    std::mutex mutex;
    std::condition_variable changed;
    bool holding = true;
    bool entered = false;
    std::vector<std::string> arrivals;
    std::vector<std::thread::id> threads;
    std::vector<const uint8_t*> pointers;
    std::function<void()> onData;
};

InProcessTransportOptions inlineOptions()
{
    InProcessTransportOptions options;
    options.inlineData = true;
    return options;
}

TEST(InProcessInlineData, DataForAnIdleEndIsHandledOnTheSendingThreadWithoutACopy)
{
    OrderHandler handler;
    auto [a, b] = InProcessTransport::CreatePair(inlineOptions());
    b->Start(handler);
    const std::vector<uint8_t> bytes(65536, 0x42);
    ASSERT_TRUE(a->SendData(5, bytes.data(), bytes.size()));
    // Send returned after the handler: nothing to wait for.
    ASSERT_EQ(handler.Count(), 1u);
    EXPECT_EQ(handler.arrivals[0], "OnData:5");
    EXPECT_EQ(handler.threads[0], std::this_thread::get_id());
    EXPECT_EQ(handler.pointers[0], bytes.data());
    EXPECT_EQ(b->QueuedDataBytes(), 0u);
}

TEST(InProcessInlineData, DataForABusyEndIsQueuedBehindWhatCameFirst)
{
    OrderHandler handler;
    auto [a, b] = InProcessTransport::CreatePair(inlineOptions());
    b->Start(handler);
    ASSERT_TRUE(a->Send(NextFileRequest{}));
    ASSERT_TRUE(waitUntil([&] {
        std::lock_guard<std::mutex> lock(handler.mutex);
        return handler.entered;
    }));
    const std::vector<uint8_t> bytes(1000, 0x17);
    ASSERT_TRUE(a->SendData(7, bytes.data(), bytes.size()));  // returns at once: queued, copied
    ASSERT_TRUE(a->Send(FileData{9, std::vector<uint8_t>(10, 1)}));
    EXPECT_EQ(handler.Count(), 1u);
    EXPECT_EQ(b->QueuedDataBytes(), 1010u);
    handler.Release();
    ASSERT_TRUE(waitUntil([&] { return handler.Count() == 3; }));
    std::lock_guard<std::mutex> lock(handler.mutex);
    EXPECT_EQ(handler.arrivals, (std::vector<std::string>{"NextFileRequest", "FileData:7", "FileData:9"}));
    EXPECT_NE(handler.threads[1], std::this_thread::get_id());
}

TEST(InProcessInlineData, WithoutTheOptionSendDataCopiesAndDeliversOnTheEndsThread)
{
    OrderHandler handler;
    handler.holding = false;
    auto [a, b] = InProcessTransport::CreatePair();
    b->Start(handler);
    const std::vector<uint8_t> bytes(100, 0x33);
    ASSERT_TRUE(a->SendData(3, bytes.data(), bytes.size()));
    ASSERT_TRUE(waitUntil([&] { return handler.Count() == 1; }));
    std::lock_guard<std::mutex> lock(handler.mutex);
    EXPECT_EQ(handler.arrivals[0], "FileData:3");
    EXPECT_NE(handler.threads[0], std::this_thread::get_id());
}

TEST(InProcessInlineData, TheReceivingEndCanCloseFromInsideAnInlineHandler)
{
    OrderHandler handler;
    handler.holding = false;
    auto [a, b] = InProcessTransport::CreatePair(inlineOptions());
    InProcessTransport* receiving = b.get();
    handler.onData = [receiving] { receiving->Close(); };
    b->Start(handler);
    const uint8_t byte = 1;
    ASSERT_TRUE(a->SendData(3, &byte, 1));
    EXPECT_FALSE(a->SendData(3, &byte, 1));
    EXPECT_FALSE(a->Send(NextFileRequest{}));
    b.reset();
    std::lock_guard<std::mutex> lock(handler.mutex);
    EXPECT_EQ(handler.arrivals, std::vector<std::string>{"OnData:3"});
}

TEST(InProcessInlineData, CloseFromAnotherThreadWaitsForARunningInlineHandler)
{
    OrderHandler handler;
    handler.holding = false;
    std::atomic<bool> inside{false};
    std::atomic<bool> leave{false};
    handler.onData = [&] {
        inside = true;
        while (!leave) {
            std::this_thread::yield();
        }
    };
    auto [a, b] = InProcessTransport::CreatePair(inlineOptions());
    b->Start(handler);
    std::thread sender([&, end = a.get()] {
        const uint8_t byte = 1;
        end->SendData(3, &byte, 1);
    });
    ASSERT_TRUE(waitUntil([&] { return inside.load(); }));
    std::atomic<bool> closed{false};
    std::thread closer([&, end = b.get()] {
        end->Close();
        closed = true;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_FALSE(closed.load());
    leave = true;
    closer.join();
    sender.join();
    EXPECT_TRUE(closed.load());
}

}  // namespace
}  // namespace orin::xfer::host
