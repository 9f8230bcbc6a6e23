// Crowds of peers that connect and never finish saying hello: each test is
// one promise that turning them away never delays accepting or answering
// another sender, and that a normal sender is served again in bounded time.
#include <gtest/gtest.h>

#include <chrono>
#include <memory>

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

constexpr size_t kCrowd = 50;

// Connects `count` peers that each send the first half of a hello, then nothing.
std::vector<std::unique_ptr<RawClient>> HalfHelloCrowd(uint16_t port, size_t count)
{
    const std::vector<uint8_t> hello = HelloFrame();
    const std::vector<uint8_t> half(hello.begin(), hello.begin() + static_cast<std::ptrdiff_t>(hello.size() / 2));
    std::vector<std::unique_ptr<RawClient>> crowd;
    for (size_t index = 0; index < count; ++index) {
        crowd.push_back(std::make_unique<RawClient>(port));
        EXPECT_TRUE(crowd.back()->SendBytes(half));
    }
    return crowd;
}

TEST(HostileCrowdTest, ASenderArrivingBehindFiftyHalfHellosIsToldAtOnceThatTheServerIsBusy)
{
    TempDir scratch;
    WriteText(scratch / "dest/.keep", "");
    WriteText(scratch / "src/real.txt", "a real sender");
    NetworkReceiverOptions options;
    options.serverName = "the test receiver";
    options.waitingPatience = 300ms;
    LoopbackReceiver receiver(scratch / "dest", options);
    const auto crowd = HalfHelloCrowd(receiver.Address().port, kCrowd);

    const auto arrived = Clock::now();
    NetworkSenderOptions senderOptions;
    senderOptions.address = receiver.Address();
    NetworkSender sender(senderOptions);
    std::string error;
    ASSERT_TRUE(sender.Connect(error)) << error;
    // The goodbye may come before the offer is made or after it.
    if (sender.Offer({scratch / "src/real.txt"}, error) == NetworkSender::OfferResult::kOffered) {
        ASSERT_TRUE(waitUntil([&sender] { return sender.WaitFinished(10ms); }, 5s));
        EXPECT_EQ(sender.Result().outcome, SentSession::Outcome::kFailed);
        error = sender.Result().failure;
    }
    EXPECT_NE(error.find(BusyDisconnect("the test receiver", 1).reason), std::string::npos) << error;
    EXPECT_LT(Clock::now() - arrived, 3s) << "each turned-away peer must not be waited for in turn";
    // Every peer of the crowd but the one in session, and the sender.
    EXPECT_TRUE(waitUntil([&receiver] { return receiver.Log().TurnedAwayCount() >= kCrowd; }, 3s))
        << receiver.Log().TurnedAwayCount();
}

TEST(HostileCrowdTest, ANormalSenderIsServedOnceTheHalfHelloInSessionHasBeenSilentForTheLinksLimit)
{
    TempDir scratch;
    WriteText(scratch / "dest/.keep", "");
    WriteText(scratch / "src/real.txt", "a real sender");
    NetworkReceiverOptions options;
    options.waitingPatience = 300ms;
    LoopbackReceiver receiver(scratch / "dest", options);
    const auto flooded = Clock::now();
    const auto crowd = HalfHelloCrowd(receiver.Address().port, kCrowd);

    SentSession last;
    EXPECT_TRUE(waitUntil(
        [&] {
            last = CopyOver(receiver.Address(), {scratch / "src/real.txt"});
            return last.outcome == SentSession::Outcome::kCompleted;
        },
        20s))
        << last.failure;
    // The half hello in session is ended by the link's 10 s silence limit.
    EXPECT_LT(Clock::now() - flooded, 13s);
    EXPECT_EQ(NamesIn(scratch / "dest"), (std::vector<std::string>{".keep", "real.txt"}));
}

}  // namespace
}  // namespace orin::xfer::test
