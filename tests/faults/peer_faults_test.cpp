// The sending peer dies in the middle of a file: in-process, its end of the
// link is closed abruptly; as a second process (`xferfm send`, when the tool
// is built), it is killed with SIGKILL. The receiver must fail with one
// clear error, keep nothing half-written under a final name, and accept
// the next sender.
#include <signal.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ChildProcess.h"
#include "FaultCopy.h"
#include "FaultInjectingTransport.h"
#include "HostTestSupport.h"
#include "TestSupport.h"
#include "xferfm/host/InProcessTransport.h"
#include "xferfm/host/ReceiverEndpoint.h"
#include "xferfm/host/SenderEndpoint.h"
#include "xferfm/host/TcpListener.h"
#include "xferfm/host/TcpTransport.h"

namespace orin::xfer::test {

using namespace orin::xfer::host;
namespace {

using namespace std::chrono_literals;
using orin::xfer::test::PatternBytes;
using orin::xfer::test::TempDir;
using orin::xfer::test::waitUntil;

constexpr auto kCopyLimit = 20s;
constexpr uint64_t kChunk = 65536;

// Problems with a receiver that lost its sender mid-file (empty: none).
std::vector<std::string> checkLostSender(const ReceiverEndpoint& receiver, const RecordingReceiverObserver& observer,
                                         const std::string& sourceParent, const std::string& destination)
{
    std::vector<std::string> problems;
    const TransferSummary summary = receiver.Summary();
    if (summary.completed || summary.cancelled) {
        problems.push_back("the copy did not fail");
    }
    if (summary.error.find("link to the sender was lost") == std::string::npos) {
        problems.push_back("unclear error: \"" + summary.error + "\"");
    }
    if (observer.Count("failure") != 1) {
        problems.push_back(std::to_string(observer.Count("failure")) + " failures reported instead of one");
    }
    for (const std::string& entry : ListTree(destination)) {
        if (entry.back() != '/' && orin::xfer::test::ReadBytes(destination + "/" + entry) !=
                                       orin::xfer::test::ReadBytes(sourceParent + "/" + entry)) {
            problems.push_back("a partial file or a cache under a final name: " + entry);
        }
    }
    return problems;
}

class PeerFaults : public ::testing::Test {
protected:
    void SetUp() override
    {
        MakeDirectory(scratch.Join("src"));
        WriteFile(scratch.Join("src/first.bin"), PatternBytes(2 * kChunk, 1));
        WriteFile(scratch.Join("src/big.bin"), PatternBytes(64 * kChunk + 9, 2));
        destination = scratch.Join("dest");
        MakeDirectory(destination);
    }

    QuietEngineLog quiet;
    TempDir scratch;
    std::string destination;
};

TEST_F(PeerFaults, ALinkClosedAbruptlyMidFileFailsTheReceiverCleanly)
{
    {
        RecordingReceiverObserver observer;
        auto [senderEnd, receiverEnd] = InProcessTransport::CreatePair();
        // From the sender: the list, two announcements, the first file's two
        // chunks, then five chunks of the big one.
        auto cut = std::make_unique<FaultInjectingTransport>(std::move(receiverEnd),
                                                             FaultPlan{InjectedFault::kCutLink, 1 + 2 + 2 + 5});
        SenderOptions senderOptions;
        senderOptions.ackWindow = 2;
        auto sender = std::make_unique<SenderEndpoint>(std::move(senderEnd), senderOptions);
        ReceiverOptions receiverOptions;
        receiverOptions.destinationDir = destination;
        receiverOptions.observer = &observer;
        auto receiver = std::make_unique<ReceiverEndpoint>(std::move(cut), receiverOptions);
        std::string error;
        ASSERT_TRUE(sender->Offer({scratch.Join("src/first.bin"), scratch.Join("src/big.bin")}, error)) << error;
        ASSERT_TRUE(receiver->Start(error)) << error;
        ASSERT_TRUE(receiver->WaitFinished(kCopyLimit));
        ASSERT_TRUE(sender->WaitFinished(kCopyLimit));
        const auto problems = checkLostSender(*receiver, observer, scratch.Join("src"), destination);
        EXPECT_TRUE(problems.empty()) << Joined(problems);
        EXPECT_EQ(ListTree(destination), std::vector<std::string>{"first.bin"});
        EXPECT_FALSE(sender->Summary().completed);
    }
    EXPECT_EQ(NextCopyProblem(scratch.Path(), scratch.Join("next")), "");
}

#ifdef XFERFM_TOOL_PATH

// `xferfm send` as a child process, its output kept in files.
class SendProcess {
public:
    SendProcess(const std::vector<std::string>& args, const std::string& outputPrefix)
        : mProcess(XFERFM_TOOL_PATH, WithSend(args), outputPrefix)
    {
    }

    bool Started() const { return mProcess.Started(); }
    void Kill()
    {
        mProcess.Signal(SIGKILL);
        mProcess.WaitExit(kCopyLimit);
    }
    // The exit code once it ended within `timeout`, -1 otherwise.
    int WaitExit(std::chrono::milliseconds timeout) { return mProcess.WaitExit(timeout) ? mProcess.ExitCode() : -1; }

private:
    static std::vector<std::string> WithSend(const std::vector<std::string>& args)
    {
        std::vector<std::string> all{"send", "--no-progress"};
        all.insert(all.end(), args.begin(), args.end());
        return all;
    }

    orin::xfer::test::ChildProcess mProcess;
};

// A receiver on 127.0.0.1 in this process, for one `xferfm send`.
struct TcpReceiver {
    RecordingReceiverObserver observer;  // first: it must outlive the endpoint
    std::unique_ptr<ReceiverEndpoint> endpoint;
};

std::unique_ptr<TcpReceiver> acceptSender(TcpListener& listener, const std::string& destination, std::string& error)
{
    TcpSocket socket;
    if (listener.Accept(10s, socket, error) != TcpListener::AcceptResult::kAccepted) {
        error = "no sender connected: " + error;
        return nullptr;
    }
    auto receiver = std::make_unique<TcpReceiver>();
    ReceiverOptions options;
    options.destinationDir = destination;
    options.observer = &receiver->observer;
    receiver->endpoint = std::make_unique<ReceiverEndpoint>(std::make_unique<TcpTransport>(std::move(socket)), options);
    if (!receiver->endpoint->Start(error)) {
        return nullptr;
    }
    return receiver;
}

TEST_F(PeerFaults, ASendingProcessKilledMidFileFailsTheReceiverCleanly)
{
    std::string error;
    TcpListener listener(HostPort{"127.0.0.1", 0}, error);
    ASSERT_TRUE(listener.Valid()) << error;
    const std::string address = "127.0.0.1:" + std::to_string(listener.Port());
    {
        // 2,000 kbit/s: the big file takes many seconds, the kill comes after two chunks.
        SendProcess send({"--bandwidth", "2000", address, scratch.Join("src/first.bin"), scratch.Join("src/big.bin")},
                         scratch.Join("send1"));
        ASSERT_TRUE(send.Started());
        auto receiver = acceptSender(listener, destination, error);
        ASSERT_NE(receiver, nullptr) << error;
        std::atomic<bool> underway{false};
        receiver->observer.onProgress = [&](const std::string& name, uint64_t done) {
            if (name == "big.bin" && done >= 2 * kChunk) {
                underway = true;
            }
        };
        ASSERT_TRUE(waitUntil([&] { return underway.load() || receiver->endpoint->Finished(); }, kCopyLimit));
        ASSERT_TRUE(underway.load()) << receiver->endpoint->Summary().error;
        send.Kill();
        ASSERT_TRUE(receiver->endpoint->WaitFinished(kCopyLimit));
        const auto problems =
            checkLostSender(*receiver->endpoint, receiver->observer, scratch.Join("src"), destination);
        EXPECT_TRUE(problems.empty()) << Joined(problems);
        EXPECT_EQ(ListTree(destination), std::vector<std::string>{"first.bin"});
    }
    // The next sender, on the same listener, gets its copy through.
    const std::string next = scratch.Join("dest2");
    MakeDirectory(next);
    SendProcess send({address, scratch.Join("src/big.bin")}, scratch.Join("send2"));
    ASSERT_TRUE(send.Started());
    auto receiver = acceptSender(listener, next, error);
    ASSERT_NE(receiver, nullptr) << error;
    ASSERT_TRUE(receiver->endpoint->WaitFinished(kCopyLimit));
    EXPECT_TRUE(receiver->endpoint->Summary().completed) << receiver->endpoint->Summary().error;
    EXPECT_EQ(send.WaitExit(kCopyLimit), 0);
    EXPECT_EQ(orin::xfer::test::ReadBytes(next + "/big.bin"), PatternBytes(64 * kChunk + 9, 2));
}

#endif  // XFERFM_TOOL_PATH

}  // namespace
}  // namespace orin::xfer::test
