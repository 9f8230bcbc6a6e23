// Requests ahead, files one at a time, and the sender's window over an
// inline in-process link, as the xferfm tool runs them.
#include <algorithm>
#include <chrono>
#include <mutex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "CopySession.h"
#include "HandPlayedReceiver.h"
#include "HostTestSupport.h"
#include "TestSupport.h"
#include "TreeCompare.h"
#include "xferfm/host/InProcessTransport.h"
#include "xferfm/host/SenderEndpoint.h"

namespace orin::xfer::host {
namespace {

using orin::xfer::test::PatternBytes;
using orin::xfer::test::ReadBytes;
using orin::xfer::test::TempDir;
using orin::xfer::test::TreeDifference;
using orin::xfer::test::waitUntil;
using namespace std::chrono_literals;
using test::CopySession;
using test::CopySessionOptions;
using test::MakeDirectory;
using test::WriteFile;

constexpr auto kCopyLimit = 20s;

CopySessionOptions inlineLink(uint32_t window = 50)
{
    CopySessionOptions options;
    options.link.inlineData = true;
    options.sender.ackWindow = window;
    return options;
}

TEST(CopyPipelining, ManySmallFilesEmptyFilesAndDirectoriesArriveWhole)
{
    test::QuietEngineLog quiet;
    TempDir scratch;
    const std::string source = scratch.Join("src/tree");
    MakeDirectory(scratch.Join("src"));
    MakeDirectory(source);
    for (int d = 0; d < 5; ++d) {
        const std::string dir = source + "/d" + std::to_string(d);
        MakeDirectory(dir);
        MakeDirectory(dir + "/empty");
        for (int f = 0; f < 60; ++f) {
            // Sizes around the chunk size and zero, in no particular order.
            const size_t size = static_cast<size_t>((f * 7919) % 140000) * (f % 9 == 0 ? 0 : 1);
            WriteFile(dir + "/f" + std::to_string(f), PatternBytes(size, static_cast<uint32_t>(f + 100 * d)),
                      f % 2 ? 0600 : 0644);
        }
    }
    const std::string destination = scratch.Join("dest");
    MakeDirectory(destination);
    CopySession copy(destination, inlineLink());
    std::string error;
    ASSERT_TRUE(copy.Begin({source}, error)) << error;
    ASSERT_TRUE(copy.WaitBoth(kCopyLimit));
    ASSERT_TRUE(copy.receiver->Summary().completed) << copy.receiver->Summary().error;
    EXPECT_TRUE(copy.sender->Summary().completed) << copy.sender->Summary().error;
    EXPECT_EQ(copy.receiver->Summary().filesDone, 300u);
    EXPECT_EQ(copy.receiver->Summary().directoriesDone, 11u);
    EXPECT_EQ(TreeDifference(source, destination + "/tree"), "");
    EXPECT_EQ(copy.observer.Count("completed"), 300u);
    EXPECT_EQ(copy.observer.Count("failure"), 0u);
}

class InlineWindow : public ::testing::TestWithParam<uint32_t> {};

// Files that end on, before and after window boundaries, back to back, so
// a worker starts while the previous one may still be finishing.
TEST_P(InlineWindow, CompletesWithoutStalling)
{
    test::QuietEngineLog quiet;
    TempDir scratch;
    MakeDirectory(scratch.Join("src"));
    const uint32_t window = GetParam();
    const size_t windowBytes = static_cast<size_t>(std::max<uint32_t>(window, 1)) * 65536;
    std::vector<std::string> paths;
    const std::vector<size_t> sizes = {3 * windowBytes, 2 * windowBytes + 1, windowBytes - 1, 5 * 65536 + 3, 1};
    for (size_t i = 0; i < sizes.size(); ++i) {
        paths.push_back(scratch.Join("src/f" + std::to_string(i)));
        WriteFile(paths.back(), PatternBytes(sizes[i], static_cast<uint32_t>(i + 1)));
    }
    const std::string destination = scratch.Join("dest");
    MakeDirectory(destination);
    const auto started = std::chrono::steady_clock::now();
    CopySession copy(destination, inlineLink(window));
    std::string error;
    ASSERT_TRUE(copy.Begin(paths, error)) << error;
    ASSERT_TRUE(copy.WaitBoth(kCopyLimit));
    ASSERT_TRUE(copy.receiver->Summary().completed) << copy.receiver->Summary().error;
    for (size_t i = 0; i < sizes.size(); ++i) {
        EXPECT_EQ(ReadBytes(destination + "/f" + std::to_string(i)), ReadBytes(paths[i])) << i;
    }
    // Far below the engine's 30-second wait for an acknowledgement.
    EXPECT_LT(std::chrono::steady_clock::now() - started, 10s);
}

INSTANTIATE_TEST_SUITE_P(Windows, InlineWindow, ::testing::Values(0u, 1u, 7u, 50u));

// The worker pauses after every window; it is let go while the receiver has
// written all but the last window, so two windows go out unacknowledged and
// each acknowledgement lets exactly one more window follow.
TEST(SenderWindow, AtMostTwoWindowsGoOutUnacknowledged)
{
    test::QuietEngineLog quiet;
    TempDir scratch;
    MakeDirectory(scratch.Join("src"));
    constexpr uint32_t kWindow = 4;
    WriteFile(scratch.Join("src/big.bin"), PatternBytes(40 * 65536, 3));
    auto [senderEnd, receiverEnd] = InProcessTransport::CreatePair();
    test::HandPlayedReceiver receiver(*receiverEnd, "big.bin");
    SenderOptions options;
    options.ackWindow = kWindow;
    SenderEndpoint sender(std::move(senderEnd), options);
    std::string error;
    ASSERT_TRUE(sender.Offer({scratch.Join("src/big.bin")}, error)) << error;
    receiverEnd->Start(receiver);
    receiverEnd->Send(FileListRequest{});

    ASSERT_TRUE(waitUntil([&] { return receiver.Chunks() == 2 * kWindow; })) << receiver.Chunks();
    std::this_thread::sleep_for(100ms);  // longer than the idle nudge: nothing more may come
    EXPECT_EQ(receiver.Chunks(), 2 * kWindow);

    receiverEnd->Send(DataAck{receiver.TransferId(), kWindow});
    ASSERT_TRUE(waitUntil([&] { return receiver.Chunks() == 3 * kWindow; }));
    std::this_thread::sleep_for(100ms);
    EXPECT_EQ(receiver.Chunks(), 3 * kWindow);

    sender.Cancel();
    ASSERT_TRUE(sender.WaitFinished(5s));
    receiverEnd->Close();
}

}  // namespace
}  // namespace orin::xfer::host
