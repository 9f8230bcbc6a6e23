// The C interface's failures: every refusal comes back as a status code
// with a text, a copy that goes wrong ends with a summary that says so, and
// nothing ever throws across the interface or hangs a wait.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <functional>
#include <mutex>
#include <string>
#include <sys/stat.h>
#include <vector>

#include "HostTestSupport.h"
#include "TestSupport.h"
#include "xferfm/xferfm.h"

namespace orin::xfer::host {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

// What the callbacks of one endpoint saw; waits are bounded and woken by
// the callbacks themselves.
struct Seen {
    std::mutex mutex;
    std::condition_variable changed;
    int started = 0;
    uint64_t bytes = 0;
    int failures = 0;
    int finished = 0;
    std::string failure;
    std::function<void()> onStarted;  // runs inside on_file_started

    bool WaitFor(const std::function<bool()>& condition, milliseconds timeout = seconds(20))
    {
        std::unique_lock<std::mutex> lock(mutex);
        return changed.wait_for(lock, timeout, condition);
    }

    xferfm_callbacks Callbacks()
    {
        xferfm_callbacks callbacks{};
        callbacks.user = this;
        callbacks.on_file_started = [](void* user, const char*, uint64_t) {
            auto* seen = static_cast<Seen*>(user);
            {
                std::lock_guard<std::mutex> lock(seen->mutex);
                ++seen->started;
            }
            seen->changed.notify_all();
            if (seen->onStarted) {
                seen->onStarted();
            }
        };
        callbacks.on_progress = [](void* user, const char*, uint64_t, uint64_t, uint64_t total, uint64_t) {
            auto* seen = static_cast<Seen*>(user);
            std::lock_guard<std::mutex> lock(seen->mutex);
            seen->bytes = total;
            seen->changed.notify_all();
        };
        callbacks.on_failure = [](void* user, const char*, const char* message) {
            auto* seen = static_cast<Seen*>(user);
            std::lock_guard<std::mutex> lock(seen->mutex);
            ++seen->failures;
            seen->failure = message;
            seen->changed.notify_all();
        };
        callbacks.on_finished = [](void* user, const xferfm_summary*) {
            auto* seen = static_cast<Seen*>(user);
            std::lock_guard<std::mutex> lock(seen->mutex);
            ++seen->finished;
            seen->changed.notify_all();
        };
        return callbacks;
    }
};

class CApiErrors : public ::testing::Test {
protected:
    void SetUp() override
    {
        test::MakeDirectory(dir.Join("src"));
        test::WriteFile(dir.Join("src/a.txt"), {'a', 'b', 'c'});
        test::MakeDirectory(dir.Join("dest"));
    }

    xferfm_summary SummaryOf(const xferfm_receiver* receiver)
    {
        xferfm_summary summary{};
        EXPECT_EQ(xferfm_receiver_summary(receiver, &summary), XFERFM_OK);
        return summary;
    }
    xferfm_summary SummaryOf(const xferfm_sender* sender)
    {
        xferfm_summary summary{};
        EXPECT_EQ(xferfm_sender_summary(sender, &summary), XFERFM_OK);
        return summary;
    }

    test::QuietEngineLog quiet;
    ::orin::xfer::test::TempDir dir;
};

TEST_F(CApiErrors, EveryNullHandleIsRefusedWithACodeAndAText)
{
    xferfm_summary summary{};
    xferfm_link* link = nullptr;
    const char* path = "x";
    EXPECT_EQ(xferfm_sender_offer(nullptr, &path, 1), XFERFM_ERR_INVALID_ARGUMENT);
    EXPECT_STRNE(xferfm_last_error(), "");
    EXPECT_EQ(xferfm_sender_cancel(nullptr), XFERFM_ERR_INVALID_ARGUMENT);
    EXPECT_EQ(xferfm_sender_wait(nullptr, 0), XFERFM_ERR_INVALID_ARGUMENT);
    EXPECT_EQ(xferfm_sender_summary(nullptr, &summary), XFERFM_ERR_INVALID_ARGUMENT);
    EXPECT_EQ(xferfm_receiver_start(nullptr), XFERFM_ERR_INVALID_ARGUMENT);
    EXPECT_EQ(xferfm_receiver_cancel(nullptr), XFERFM_ERR_INVALID_ARGUMENT);
    EXPECT_EQ(xferfm_receiver_wait(nullptr, 0), XFERFM_ERR_INVALID_ARGUMENT);
    EXPECT_EQ(xferfm_receiver_summary(nullptr, &summary), XFERFM_ERR_INVALID_ARGUMENT);
    EXPECT_EQ(xferfm_receiver_create(nullptr, "/tmp", 0, 0, nullptr, nullptr), XFERFM_ERR_INVALID_ARGUMENT);
    EXPECT_EQ(xferfm_link_connect(nullptr, 0, &link), XFERFM_ERR_INVALID_ARGUMENT);
    EXPECT_EQ(xferfm_listener_create("127.0.0.1:0", nullptr), XFERFM_ERR_INVALID_ARGUMENT);
    EXPECT_EQ(xferfm_listener_accept(nullptr, 0, &link), XFERFM_ERR_INVALID_ARGUMENT);
    EXPECT_EQ(xferfm_link_custom(nullptr, &link), XFERFM_ERR_INVALID_ARGUMENT);
    EXPECT_EQ(xferfm_link_deliver_end(nullptr, nullptr), XFERFM_ERR_INVALID_ARGUMENT);
    EXPECT_EQ(xferfm_set_log_callback(nullptr, nullptr), XFERFM_OK);
    EXPECT_STREQ(xferfm_last_error(), "") << "a call that succeeds clears the text";
}

TEST_F(CApiErrors, AnOfferOfAMissingPathNamesItAndOffersNothing)
{
    xferfm_link *a = nullptr, *b = nullptr;
    ASSERT_EQ(xferfm_link_pair(&a, &b), XFERFM_OK);
    xferfm_sender* sender = nullptr;
    ASSERT_EQ(xferfm_sender_create(a, 0, nullptr, &sender), XFERFM_OK);
    const std::string missing = dir.Join("no-such-file");
    const char* paths[] = {missing.c_str()};
    EXPECT_EQ(xferfm_sender_offer(sender, paths, 1), XFERFM_ERR_PATH);
    EXPECT_NE(std::string(xferfm_last_error()).find("no-such-file"), std::string::npos) << xferfm_last_error();
    EXPECT_EQ(xferfm_sender_offer(sender, paths, 0), XFERFM_ERR_INVALID_ARGUMENT);
    const char* nullPath[] = {nullptr};
    EXPECT_EQ(xferfm_sender_offer(sender, nullPath, 1), XFERFM_ERR_INVALID_ARGUMENT);

    const std::string good = dir.Join("src");
    const char* goodPaths[] = {good.c_str()};
    EXPECT_EQ(xferfm_sender_offer(sender, goodPaths, 1), XFERFM_OK) << "the failed offer offered nothing";
    xferfm_sender_destroy(sender);
    xferfm_link_destroy(a);
    xferfm_link_destroy(b);
}

TEST_F(CApiErrors, AReceiverRefusesADestinationThatIsNotThere)
{
    xferfm_link *a = nullptr, *b = nullptr;
    ASSERT_EQ(xferfm_link_pair(&a, &b), XFERFM_OK);
    xferfm_receiver* receiver = nullptr;
    ASSERT_EQ(xferfm_receiver_create(b, dir.Join("missing").c_str(), 0, 0, nullptr, &receiver), XFERFM_OK);
    EXPECT_EQ(xferfm_receiver_start(receiver), XFERFM_ERR_PATH);
    EXPECT_STRNE(xferfm_last_error(), "");
    xferfm_receiver_destroy(receiver);
    xferfm_link_destroy(a);
    xferfm_link_destroy(b);
}

TEST_F(CApiErrors, ALinkServesOneEndpointAndUnknownFlagsAreRefused)
{
    xferfm_link *a = nullptr, *b = nullptr;
    ASSERT_EQ(xferfm_link_pair(&a, &b), XFERFM_OK);
    xferfm_receiver* receiver = nullptr;
    EXPECT_EQ(xferfm_receiver_create(b, dir.Path().c_str(), 0x80, 0, nullptr, &receiver), XFERFM_ERR_INVALID_ARGUMENT);
    ASSERT_EQ(xferfm_receiver_create(b, dir.Join("dest").c_str(), 0, 0, nullptr, &receiver), XFERFM_OK);
    xferfm_sender* sender = nullptr;
    EXPECT_EQ(xferfm_sender_create(b, 0, nullptr, &sender), XFERFM_ERR_BAD_STATE);
    EXPECT_EQ(sender, nullptr);
    EXPECT_EQ(xferfm_receiver_wait(receiver, 0), XFERFM_ERR_TIMEOUT) << "a session that never started";
    xferfm_receiver_destroy(receiver);
    xferfm_link_destroy(a);
    xferfm_link_destroy(b);
}

TEST_F(CApiErrors, CancellingMidCopyEndsBothSidesCancelledWithNoPartialFile)
{
    test::WriteFile(dir.Join("src/big.bin"), ::orin::xfer::test::PatternBytes(4u << 20));
    xferfm_link *a = nullptr, *b = nullptr;
    ASSERT_EQ(xferfm_link_pair(&a, &b), XFERFM_OK);
    Seen senderSeen, receiverSeen;
    const xferfm_callbacks senderCallbacks = senderSeen.Callbacks();
    const xferfm_callbacks receiverCallbacks = receiverSeen.Callbacks();
    xferfm_receiver* receiver = nullptr;
    xferfm_sender* sender = nullptr;
    ASSERT_EQ(xferfm_receiver_create(b, dir.Join("dest").c_str(), 0, 0, &receiverCallbacks, &receiver), XFERFM_OK);
    ASSERT_EQ(xferfm_sender_create(a, 2000, &senderCallbacks, &sender), XFERFM_OK);  // 4 MiB: ~16 s
    const std::string source = dir.Join("src");
    const char* paths[] = {source.c_str()};
    ASSERT_EQ(xferfm_sender_offer(sender, paths, 1), XFERFM_OK);
    ASSERT_EQ(xferfm_receiver_start(receiver), XFERFM_OK);

    ASSERT_TRUE(receiverSeen.WaitFor([&] { return receiverSeen.bytes > 64 * 1024; })) << "no data flowed";
    EXPECT_EQ(xferfm_sender_cancel(sender), XFERFM_OK);
    EXPECT_EQ(xferfm_sender_cancel(sender), XFERFM_OK) << "cancel is idempotent";
    ASSERT_EQ(xferfm_sender_wait(sender, 20000), XFERFM_OK);
    ASSERT_EQ(xferfm_receiver_wait(receiver, 20000), XFERFM_OK);

    EXPECT_EQ(SummaryOf(sender).outcome, XFERFM_CANCELLED);
    EXPECT_EQ(SummaryOf(receiver).outcome, XFERFM_CANCELLED);
    struct stat info;
    EXPECT_NE(stat(dir.Join("dest/src/big.bin").c_str(), &info), 0) << "a cancelled file never lands";
    EXPECT_TRUE(senderSeen.WaitFor([&] { return senderSeen.finished == 1; }));
    EXPECT_TRUE(receiverSeen.WaitFor([&] { return receiverSeen.finished == 1; }));
    xferfm_receiver_destroy(receiver);
    xferfm_sender_destroy(sender);
    xferfm_link_destroy(a);
    xferfm_link_destroy(b);
}

TEST_F(CApiErrors, CancelIsAllowedFromInsideACallback)
{
    xferfm_link *a = nullptr, *b = nullptr;
    ASSERT_EQ(xferfm_link_pair(&a, &b), XFERFM_OK);
    Seen receiverSeen;
    xferfm_receiver* receiver = nullptr;
    receiverSeen.onStarted = [&receiver] { EXPECT_EQ(xferfm_receiver_cancel(receiver), XFERFM_OK); };
    const xferfm_callbacks callbacks = receiverSeen.Callbacks();
    ASSERT_EQ(xferfm_receiver_create(b, dir.Join("dest").c_str(), 0, 0, &callbacks, &receiver), XFERFM_OK);
    xferfm_sender* sender = nullptr;
    ASSERT_EQ(xferfm_sender_create(a, 0, nullptr, &sender), XFERFM_OK);
    const std::string source = dir.Join("src");
    const char* paths[] = {source.c_str()};
    ASSERT_EQ(xferfm_sender_offer(sender, paths, 1), XFERFM_OK);
    ASSERT_EQ(xferfm_receiver_start(receiver), XFERFM_OK);
    ASSERT_EQ(xferfm_receiver_wait(receiver, 20000), XFERFM_OK);
    ASSERT_EQ(xferfm_sender_wait(sender, 20000), XFERFM_OK);
    EXPECT_EQ(SummaryOf(receiver).outcome, XFERFM_CANCELLED);
    xferfm_receiver_destroy(receiver);
    xferfm_sender_destroy(sender);
    xferfm_link_destroy(a);
    xferfm_link_destroy(b);
}

TEST_F(CApiErrors, AScreenedNameIsSkippedOnBothSidesAndTheRestIsCopied)
{
    test::WriteFile(dir.Join("src/bad\x01name"), {'x'});
    xferfm_link *a = nullptr, *b = nullptr;
    ASSERT_EQ(xferfm_link_pair(&a, &b), XFERFM_OK);
    struct Skips {
        std::mutex mutex;
        std::vector<std::string> names;
    } senderSkips, receiverSkips;
    xferfm_callbacks senderCallbacks{};
    senderCallbacks.user = &senderSkips;
    senderCallbacks.on_entry_skipped = [](void* user, const char* name, const char*) {
        auto* skips = static_cast<Skips*>(user);
        std::lock_guard<std::mutex> lock(skips->mutex);
        skips->names.emplace_back(name);
    };
    xferfm_callbacks receiverCallbacks = senderCallbacks;
    receiverCallbacks.user = &receiverSkips;
    xferfm_receiver* receiver = nullptr;
    xferfm_sender* sender = nullptr;
    ASSERT_EQ(xferfm_receiver_create(b, dir.Join("dest").c_str(), XFERFM_RECEIVER_SCREEN_NAMES, 0,
                                     &receiverCallbacks, &receiver),
              XFERFM_OK);
    ASSERT_EQ(xferfm_sender_create(a, 0, &senderCallbacks, &sender), XFERFM_OK);
    const std::string source = dir.Join("src");
    const char* paths[] = {source.c_str()};
    ASSERT_EQ(xferfm_sender_offer(sender, paths, 1), XFERFM_OK);
    ASSERT_EQ(xferfm_receiver_start(receiver), XFERFM_OK);
    ASSERT_EQ(xferfm_receiver_wait(receiver, 20000), XFERFM_OK);
    ASSERT_EQ(xferfm_sender_wait(sender, 20000), XFERFM_OK);

    const xferfm_summary sent = SummaryOf(sender);
    EXPECT_EQ(sent.outcome, XFERFM_PARTIAL);
    EXPECT_EQ(sent.entries_skipped, 1u);
    ASSERT_EQ(receiverSkips.names.size(), 1u);
    EXPECT_EQ(receiverSkips.names[0], "src/bad\x01name");
    ASSERT_EQ(senderSkips.names.size(), 1u);
    EXPECT_EQ(senderSkips.names[0], dir.Join("src/bad\x01name"));
    struct stat info;
    EXPECT_EQ(stat(dir.Join("dest/src/a.txt").c_str(), &info), 0) << "the rest of the list is copied";
    xferfm_receiver_destroy(receiver);
    xferfm_sender_destroy(sender);
    xferfm_link_destroy(a);
    xferfm_link_destroy(b);
}

// Two host-supplied links looped into each other; the sender's channel
// breaks after `breakAfter` bytes.
struct BreakingLoop {
    xferfm_link* peer = nullptr;
    std::atomic<size_t> sent{0};
    size_t breakAfter = SIZE_MAX;
    std::atomic<int> closes{0};

    xferfm_link_callbacks Callbacks()
    {
        xferfm_link_callbacks callbacks{};
        callbacks.user = this;
        callbacks.send = [](void* user, const uint8_t* bytes, size_t size) {
            auto* loop = static_cast<BreakingLoop*>(user);
            if (loop->sent + size > loop->breakAfter) {
                return -1;
            }
            loop->sent += size;
            return xferfm_link_deliver(loop->peer, bytes, size) == XFERFM_OK ? 0 : -1;
        };
        callbacks.close = [](void* user) {
            auto* loop = static_cast<BreakingLoop*>(user);
            ++loop->closes;
            xferfm_link_deliver_end(loop->peer, "channel gone");
        };
        return callbacks;
    }
};

TEST_F(CApiErrors, AHostChannelThatFailsEndsTheCopyAsFailedOnBothSides)
{
    test::WriteFile(dir.Join("src/big.bin"), ::orin::xfer::test::PatternBytes(1u << 20));
    BreakingLoop senderLoop, receiverLoop;
    senderLoop.breakAfter = 200 * 1024;
    const xferfm_link_callbacks senderLink = senderLoop.Callbacks();
    const xferfm_link_callbacks receiverLink = receiverLoop.Callbacks();
    xferfm_link *a = nullptr, *b = nullptr;
    ASSERT_EQ(xferfm_link_custom(&senderLink, &a), XFERFM_OK);
    ASSERT_EQ(xferfm_link_custom(&receiverLink, &b), XFERFM_OK);
    senderLoop.peer = b;
    receiverLoop.peer = a;

    Seen senderSeen, receiverSeen;
    const xferfm_callbacks senderCallbacks = senderSeen.Callbacks();
    const xferfm_callbacks receiverCallbacks = receiverSeen.Callbacks();
    xferfm_receiver* receiver = nullptr;
    xferfm_sender* sender = nullptr;
    ASSERT_EQ(xferfm_receiver_create(b, dir.Join("dest").c_str(), 0, 0, &receiverCallbacks, &receiver), XFERFM_OK);
    ASSERT_EQ(xferfm_sender_create(a, 0, &senderCallbacks, &sender), XFERFM_OK);
    const std::string source = dir.Join("src");
    const char* paths[] = {source.c_str()};
    ASSERT_EQ(xferfm_sender_offer(sender, paths, 1), XFERFM_OK);
    ASSERT_EQ(xferfm_receiver_start(receiver), XFERFM_OK);
    ASSERT_EQ(xferfm_receiver_wait(receiver, 20000), XFERFM_OK);
    ASSERT_EQ(xferfm_sender_wait(sender, 20000), XFERFM_OK);

    const xferfm_summary received = SummaryOf(receiver);
    EXPECT_EQ(received.outcome, XFERFM_FAILED);
    EXPECT_STRNE(received.error, "");
    EXPECT_EQ(SummaryOf(sender).outcome, XFERFM_FAILED);
    EXPECT_EQ(receiverSeen.failures, 1);
    EXPECT_EQ(senderLoop.closes, 1) << "the kit closes the host's channel once";
    struct stat info;
    EXPECT_NE(stat(dir.Join("dest/src/big.bin").c_str(), &info), 0);
    xferfm_receiver_destroy(receiver);
    xferfm_sender_destroy(sender);
    xferfm_link_destroy(a);
    xferfm_link_destroy(b);
}

TEST_F(CApiErrors, BytesThatAreNotFramesCloseTheLinkAndTellThePeer)
{
    struct Channel {
        std::string sent;
        int closes = 0;
    } channel;
    xferfm_link_callbacks callbacks{};
    callbacks.user = &channel;
    callbacks.send = [](void* user, const uint8_t* bytes, size_t size) {
        static_cast<Channel*>(user)->sent.append(reinterpret_cast<const char*>(bytes), size);
        return 0;
    };
    callbacks.close = [](void* user) { ++static_cast<Channel*>(user)->closes; };
    xferfm_link* link = nullptr;
    ASSERT_EQ(xferfm_link_custom(&callbacks, &link), XFERFM_OK);
    Seen seen;
    const xferfm_callbacks receiverCallbacks = seen.Callbacks();
    xferfm_receiver* receiver = nullptr;
    ASSERT_EQ(xferfm_receiver_create(link, dir.Join("dest").c_str(), XFERFM_RECEIVER_SCREEN_NAMES, 0,
                                     &receiverCallbacks, &receiver),
              XFERFM_OK);
    ASSERT_EQ(xferfm_receiver_start(receiver), XFERFM_OK);

    const uint8_t garbage[] = "GET / HTTP/1.1\r\n\r\n";
    EXPECT_EQ(xferfm_link_deliver(link, garbage, sizeof garbage), XFERFM_ERR_PROTOCOL);
    EXPECT_STRNE(xferfm_last_error(), "");
    EXPECT_EQ(xferfm_link_deliver(link, garbage, sizeof garbage), XFERFM_ERR_CLOSED);
    EXPECT_EQ(xferfm_link_deliver_end(link, nullptr), XFERFM_ERR_CLOSED);
    ASSERT_EQ(xferfm_receiver_wait(receiver, 20000), XFERFM_OK);
    EXPECT_EQ(SummaryOf(receiver).outcome, XFERFM_FAILED);
    EXPECT_EQ(channel.closes, 1);
    EXPECT_EQ(channel.sent.compare(0, 1, "\x01"), 0) << "the hello goes first";
    EXPECT_NE(channel.sent.find("bad frames"), std::string::npos) << "the peer hears why";
    xferfm_receiver_destroy(receiver);
    xferfm_link_destroy(link);
}

TEST_F(CApiErrors, DeliveringToALinkTheKitDidNotGetFromTheHostIsRefused)
{
    xferfm_link *a = nullptr, *b = nullptr;
    ASSERT_EQ(xferfm_link_pair(&a, &b), XFERFM_OK);
    const uint8_t byte = 1;
    EXPECT_EQ(xferfm_link_deliver(a, &byte, 1), XFERFM_ERR_INVALID_ARGUMENT);
    xferfm_link_destroy(a);
    xferfm_link_destroy(b);
    xferfm_listener* listener = nullptr;
    EXPECT_EQ(xferfm_listener_create("256.1.1.1:0", &listener), XFERFM_ERR_NETWORK);
    EXPECT_EQ(listener, nullptr);
}

}  // namespace
}  // namespace orin::xfer::host
