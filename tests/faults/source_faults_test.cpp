// Faults on the sending side's disk while a file is read: the file cut
// short, grown, or deleted. A copy may never land a file whose bytes are
// not the ones the sender announced; when it cannot, it fails with one
// error naming the file, and the process can copy again afterwards.
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "CopySession.h"
#include "FaultCopy.h"
#include "HostTestSupport.h"
#include "TestSupport.h"

namespace orin::xfer::test {

using namespace orin::xfer::host;
namespace {

using namespace std::chrono_literals;
using orin::xfer::test::PatternBytes;
using orin::xfer::test::ReadBytes;
using orin::xfer::test::TempDir;

constexpr auto kCopyLimit = 20s;
constexpr uint64_t kChunk = 65536;
constexpr uint64_t kSize = 16 * kChunk + 100;

void AppendTo(const std::string& path, const std::vector<uint8_t>& bytes)
{
    FILE* file = fopen(path.c_str(), "ab");
    ASSERT_NE(file, nullptr);
    EXPECT_EQ(fwrite(bytes.data(), 1, bytes.size(), file), bytes.size());
    fclose(file);
}

class SourceFaults : public ::testing::Test {
protected:
    void SetUp() override
    {
        MakeDirectory(scratch.Join("src"));
        source = scratch.Join("src/data.bin");
        WriteFile(source, PatternBytes(kSize, 1));
        destination = scratch.Join("dest");
        MakeDirectory(destination);
        options.sender.ackWindow = 2;  // the sender reads only a little ahead of the receiver
        options.stallTimeout = 3s;     // a sender that stops sending is given up on quickly
    }

    // Runs the copy, calling `fault` once when the receiver has written two chunks.
    void RunWithFaultMidFile(const std::function<void()>& fault)
    {
        copy = std::make_unique<CopySession>(destination, options);
        std::atomic<bool> struck{false};
        copy->observer.onProgress = [&](const std::string&, uint64_t done) {
            if (done >= 2 * kChunk && !struck.exchange(true)) {
                fault();
            }
        };
        std::string error;
        ASSERT_TRUE(copy->Begin({source}, error)) << error;
        ASSERT_TRUE(copy->WaitBoth(kCopyLimit));
        ASSERT_TRUE(struck);
    }

    QuietEngineLog quiet;
    TempDir scratch;
    std::string source;
    std::string destination;
    CopySessionOptions options;
    std::unique_ptr<CopySession> copy;
};

// The worker stops quietly where the file ends now; the sender notices the
// source no longer matches its announcement (the receiver's own patience
// is set longer than the copy may take, so it is not what ends the copy).
TEST_F(SourceFaults, AFileCutShortWhileReadFailsNamingItsSource)
{
    options.stallTimeout = 2 * kCopyLimit;
    RunWithFaultMidFile([&] { ASSERT_EQ(truncate(source.c_str(), 3 * kChunk + 7), 0); });
    const auto problems = CheckCleanFailure(*copy, scratch.Join("src"), destination, source);
    EXPECT_TRUE(problems.empty()) << Joined(problems);
    EXPECT_NE(copy->receiver->Summary().error.find("changed while it was read"), std::string::npos)
        << copy->receiver->Summary().error;
    EXPECT_EQ(ListTree(destination), std::vector<std::string>{});
    copy.reset();
    EXPECT_EQ(NextCopyProblem(scratch.Path(), scratch.Join("next")), "");
}

// The sender announced the size it saw; bytes appended later are not part
// of this copy. Either the announced bytes land whole or the copy fails
// naming the file: never a mix.
TEST_F(SourceFaults, AFileGrownWhileReadLandsAsAnnouncedOrFailsNamingItsSource)
{
    options.stallTimeout = 2 * kCopyLimit;
    RunWithFaultMidFile([&] { AppendTo(source, PatternBytes(5 * kChunk, 2)); });
    const TransferSummary summary = copy->receiver->Summary();
    if (summary.completed) {
        EXPECT_EQ(ReadBytes(destination + "/data.bin"), PatternBytes(kSize, 1));
    } else {
        const auto problems = CheckCleanFailure(*copy, scratch.Join("src"), destination, source);
        EXPECT_TRUE(problems.empty()) << Joined(problems);
        EXPECT_NE(summary.error.find("changed while it was read"), std::string::npos) << summary.error;
        EXPECT_EQ(ListTree(destination), std::vector<std::string>{});
    }
    copy.reset();
    EXPECT_EQ(NextCopyProblem(scratch.Path(), scratch.Join("next")), "");
}

// Announced as whole chunks: the data past the announced size comes after
// the file's last announced byte went out, for a transfer already done.
TEST_F(SourceFaults, AFileGrownAfterItsLastWholeChunkLandsAsAnnouncedOrFailsNamingItsSource)
{
    const auto announced = PatternBytes(16 * kChunk, 4);
    WriteFile(source, announced);
    options.stallTimeout = 2 * kCopyLimit;
    RunWithFaultMidFile([&] { AppendTo(source, PatternBytes(3 * kChunk, 5)); });
    const TransferSummary summary = copy->receiver->Summary();
    if (summary.completed) {
        EXPECT_EQ(ReadBytes(destination + "/data.bin"), announced);
    } else {
        EXPECT_NE(summary.error.find(source), std::string::npos) << summary.error;
        EXPECT_NE(summary.error.find("changed while it was read"), std::string::npos) << summary.error;
        EXPECT_EQ(copy->observer.Count("failure"), 1u);
        const auto tree = ListTree(destination);
        if (!tree.empty()) {
            // Only a file that arrived whole, as announced, may stay.
            EXPECT_EQ(tree, std::vector<std::string>{"data.bin"});
            EXPECT_EQ(ReadBytes(destination + "/data.bin"), announced);
        }
    }
    copy.reset();
    EXPECT_EQ(NextCopyProblem(scratch.Path(), scratch.Join("next")), "");
}

// Deleting a file that is open only takes its name away: the bytes being
// read stay readable, so the copy may complete with them, or fail cleanly.
TEST_F(SourceFaults, AFileDeletedWhileReadLandsWholeOrFailsNamingIt)
{
    const auto original = PatternBytes(kSize, 1);
    RunWithFaultMidFile([&] { ASSERT_EQ(unlink(source.c_str()), 0); });
    const TransferSummary summary = copy->receiver->Summary();
    if (summary.completed) {
        EXPECT_EQ(ReadBytes(destination + "/data.bin"), original);
    } else {
        EXPECT_NE(summary.error.find("data.bin"), std::string::npos) << summary.error;
        EXPECT_EQ(copy->observer.Count("failure"), 1u);
        EXPECT_EQ(ListTree(destination), std::vector<std::string>{});
    }
    copy.reset();
    EXPECT_EQ(NextCopyProblem(scratch.Path(), scratch.Join("next")), "");
}

// Deleted after it was listed, before its turn: named by its source path.
TEST_F(SourceFaults, AFileDeletedBeforeItsTurnFailsNamingItsSource)
{
    WriteFile(scratch.Join("src/a-first.bin"), PatternBytes(3 * kChunk, 3));
    CopySession session(destination, options);
    session.observer.onFileStarted = [&](const std::string& name) {
        if (name == "a-first.bin") {
            unlink(source.c_str());
        }
    };
    std::string error;
    ASSERT_TRUE(session.Begin({scratch.Join("src/a-first.bin"), source}, error)) << error;
    ASSERT_TRUE(session.WaitBoth(kCopyLimit));
    const auto problems = CheckCleanFailure(session, scratch.Join("src"), destination, source);
    EXPECT_TRUE(problems.empty()) << Joined(problems);
    EXPECT_EQ(ListTree(destination), std::vector<std::string>{"a-first.bin"});
    EXPECT_EQ(NextCopyProblem(scratch.Path(), scratch.Join("next")), "");
}

}  // namespace
}  // namespace orin::xfer::test
