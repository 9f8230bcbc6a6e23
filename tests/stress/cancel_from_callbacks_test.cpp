// Cancel() from inside every observer callback of the endpoint that makes
// it: the endpoints allow it, so a copy cancelled that way must still end
// on both sides, promptly, with its observer told once.
#include <atomic>
#include <chrono>
#include <string>

#include <gtest/gtest.h>

#include "CheckedObservers.h"
#include "HostTestSupport.h"
#include "SilentEngineLog.h"
#include "TestSupport.h"
#include "xferfm/host/InProcessTransport.h"
#include "xferfm/host/ReceiverEndpoint.h"
#include "xferfm/host/SenderEndpoint.h"

namespace orin::xfer::test {

using namespace orin::xfer::host;
namespace {

using namespace std::chrono_literals;
using orin::xfer::test::PatternBytes;
using orin::xfer::test::TempDir;

constexpr auto kEndLimit = 20s;  // a copy of 1 MiB takes milliseconds

class CancelFromCallbacks : public ::testing::Test {
protected:
    void SetUp() override
    {
        MakeDirectory(scratch.Join("src"));
        WriteFile(scratch.Join("src/big.bin"), PatternBytes(16 * 65536 + 5, 1));
        WriteFile(scratch.Join("src/small.bin"), PatternBytes(100, 2));
        MakeDirectory(scratch.Join("dest"));
        auto [senderEnd, receiverEnd] = InProcessTransport::CreatePair();
        SenderOptions senderOptions;
        senderOptions.ackWindow = 4;
        senderOptions.observer = &senderObserver;
        ReceiverOptions receiverOptions;
        receiverOptions.destinationDir = scratch.Join("dest");
        receiverOptions.observer = &receiverObserver;
        sender = std::make_unique<SenderEndpoint>(std::move(senderEnd), senderOptions);
        receiver = std::make_unique<ReceiverEndpoint>(std::move(receiverEnd), receiverOptions);
    }

    // Runs the copy and checks that both ends finished, cancelled, once.
    void RunAndExpectCancelled()
    {
        std::string error;
        ASSERT_TRUE(sender->Offer({scratch.Join("src/big.bin"), scratch.Join("src/small.bin")}, error)) << error;
        ASSERT_TRUE(receiver->Start(error)) << error;
        ASSERT_TRUE(receiver->WaitFinished(kEndLimit)) << "the receiver did not finish";
        ASSERT_TRUE(sender->WaitFinished(kEndLimit)) << "the sender did not finish";
        EXPECT_TRUE(fired.load());
        EXPECT_TRUE(receiver->Summary().cancelled) << receiver->Summary().error;
        EXPECT_TRUE(sender->Summary().cancelled) << sender->Summary().error;
        sender.reset();
        senderObserver.MarkEndpointGone();
        receiver.reset();
        receiverObserver.MarkEndpointGone();
        EXPECT_EQ(senderObserver.Violations(), std::vector<std::string>{});
        EXPECT_EQ(receiverObserver.Violations(), std::vector<std::string>{});
        EXPECT_EQ(senderObserver.FinishedCount(), 1u);
        EXPECT_EQ(receiverObserver.FinishedCount(), 1u);
    }

    SilentEngineLog silent;
    TempDir scratch;
    CheckedSenderObserver senderObserver;
    CheckedReceiverObserver receiverObserver;
    std::atomic<bool> fired{false};
    std::unique_ptr<SenderEndpoint> sender;
    std::unique_ptr<ReceiverEndpoint> receiver;
};

TEST_F(CancelFromCallbacks, SenderCancelsFromItsOwnBytesSentCallback)
{
    senderObserver.onBytesSent = [this](uint64_t total) {
        if (total >= 3 * 65536 && !fired.exchange(true)) {
            sender->Cancel();
        }
    };
    RunAndExpectCancelled();
}

TEST_F(CancelFromCallbacks, ReceiverCancelsFromItsOwnProgressCallback)
{
    receiverObserver.onProgress = [this](const std::string&, uint64_t done, uint64_t, uint64_t, uint64_t) {
        if (done >= 2 * 65536 && !fired.exchange(true)) {
            receiver->Cancel();
        }
    };
    RunAndExpectCancelled();
}

TEST_F(CancelFromCallbacks, ReceiverCancelsFromItsOwnCompletionCallback)
{
    receiverObserver.onFileCompleted = [this](const std::string&) {
        if (!fired.exchange(true)) {
            receiver->Cancel();
        }
    };
    RunAndExpectCancelled();
}

}  // namespace
}  // namespace orin::xfer::test
