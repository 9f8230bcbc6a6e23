// A sender whose receiver goes away mid-file reports the lost link, not a
// problem with one of its sources.
#include <gtest/gtest.h>

#include <mutex>
#include <string>
#include <vector>

#include "HandPlayedReceiver.h"
#include "HostTestSupport.h"
#include "TestSupport.h"
#include "xferfm/host/InProcessTransport.h"
#include "xferfm/host/SenderEndpoint.h"

namespace orin::xfer::host {
namespace {

using orin::xfer::test::PatternBytes;
using orin::xfer::test::TempDir;
using orin::xfer::test::waitUntil;
using namespace std::chrono_literals;
using test::MakeDirectory;
using test::WriteFile;

class FailureRecorder : public SenderObserver {
public:
    void OnFailure(const std::string& path, const std::string& message) override
    {
        std::lock_guard<std::mutex> lock(mutex);
        failures.push_back(path + " | " + message);
    }
    std::vector<std::string> Failures()
    {
        std::lock_guard<std::mutex> lock(mutex);
        return failures;
    }

    std::mutex mutex;
    std::vector<std::string> failures;
};

TEST(SenderLinkLoss, ALinkLostMidFileIsReportedAsSuchAndNamesNoSource)
{
    test::QuietEngineLog quiet;
    TempDir scratch;
    MakeDirectory(scratch.Join("src"));
    WriteFile(scratch.Join("src/first.bin"), PatternBytes(40 * 65536, 1));
    WriteFile(scratch.Join("src/second.bin"), PatternBytes(10, 2));
    auto [senderEnd, receiverEnd] = InProcessTransport::CreatePair();
    test::HandPlayedReceiver receiver(*receiverEnd, "first.bin");
    FailureRecorder observer;
    SenderOptions options;
    options.ackWindow = 4;
    options.observer = &observer;
    SenderEndpoint sender(std::move(senderEnd), options);
    std::string error;
    ASSERT_TRUE(sender.Offer({scratch.Join("src/first.bin"), scratch.Join("src/second.bin")}, error)) << error;
    receiverEnd->Start(receiver);
    receiverEnd->Send(FileListRequest{});

    // Mid-file: the sender waits for an acknowledgement that never comes.
    ASSERT_TRUE(waitUntil([&] { return receiver.Chunks() >= 4; }));
    receiverEnd->Close();
    ASSERT_TRUE(sender.WaitFinished(10s));
    // The finish is signalled before the observer hears of the failure.
    ASSERT_TRUE(waitUntil([&] { return !observer.Failures().empty(); }, 10s));

    const std::vector<std::string> failures = observer.Failures();
    ASSERT_FALSE(failures.empty());
    EXPECT_NE(failures.front().find("the link to the receiver was lost"), std::string::npos) << failures.front();
    for (const std::string& failure : failures) {
        EXPECT_EQ(failure.find("no longer exists"), std::string::npos) << failure;
        EXPECT_EQ(failure.find("second.bin"), std::string::npos) << failure;
    }
}

}  // namespace
}  // namespace orin::xfer::host
