#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "CopySession.h"
#include "HostTestSupport.h"
#include "TestSupport.h"
#include "TreeCompare.h"

namespace orin::xfer::host {
namespace {

using orin::xfer::test::PatternBytes;
using orin::xfer::test::PathExists;
using orin::xfer::test::ReadBytes;
using orin::xfer::test::TempDir;
using orin::xfer::test::TreeDifference;
using orin::xfer::test::waitUntil;
using namespace std::chrono_literals;
using test::CopySession;
using test::CopySessionOptions;
using test::ListTree;
using test::MakeDirectory;
using test::ModeOf;
using test::WriteFile;

constexpr auto kCopyLimit = 20s;  // well under the engine's 30 s acknowledgement wait

class CopyEndpoints : public ::testing::Test {
protected:
    // Entries of `destination` other than the ones named.
    static std::vector<std::string> leftovers(const std::string& destination, const std::vector<std::string>& expected)
    {
        std::vector<std::string> extra;
        for (const auto& entry : ListTree(destination)) {
            bool known = false;
            for (const auto& prefix : expected) {
                known = known || entry.rfind(prefix, 0) == 0;
            }
            if (!known) {
                extra.push_back(entry);
            }
        }
        return extra;
    }

    test::QuietEngineLog quiet;
    TempDir scratch;
};

// A tree with every shape a copy must carry.
std::string makeSourceTree(const TempDir& scratch)
{
    const std::string root = scratch.Join("src/project");
    MakeDirectory(scratch.Join("src"));
    MakeDirectory(root, 0750);
    WriteFile(root + "/empty.bin", {});
    WriteFile(root + "/one.bin", PatternBytes(1, 2));
    WriteFile(root + "/below.bin", PatternBytes(65535, 3), 0600);
    WriteFile(root + "/exact.bin", PatternBytes(65536, 4), 0755);
    WriteFile(root + "/above.bin", PatternBytes(65537, 5), 0640);
    WriteFile(root + "/big.bin", PatternBytes(3 * 1024 * 1024 + 123, 6));
    WriteFile(root + "/.hidden", PatternBytes(100, 7));
    WriteFile(root + "/with space é ü.txt", PatternBytes(333, 8));
    MakeDirectory(root + "/nested");
    MakeDirectory(root + "/nested/deeper", 0700);
    WriteFile(root + "/nested/deeper/leaf.txt", PatternBytes(70000, 9), 0444);
    MakeDirectory(root + "/nested/empty-dir");
    MakeDirectory(root + "/.hidden-dir");
    WriteFile(root + "/.hidden-dir/inside", PatternBytes(10, 10));
    MakeDirectory(root + "/日本語 dir", 0555);
    return root;
}

TEST_F(CopyEndpoints, CopiesATreeByteForByteWithModesHiddenAndEmptyEntries)
{
    const std::string source = makeSourceTree(scratch);
    const std::string destination = scratch.Join("dest");
    MakeDirectory(destination);
    const std::string single = scratch.Join("src/single file.txt");
    WriteFile(single, PatternBytes(12345, 12), 0604);

    CopySession copy(destination);
    std::string error;
    ASSERT_TRUE(copy.Begin({source, single}, error)) << error;
    ASSERT_TRUE(copy.WaitBoth(kCopyLimit));

    const TransferSummary received = copy.receiver->Summary();
    EXPECT_TRUE(received.completed) << received.error;
    EXPECT_EQ(received.error, "");
    EXPECT_TRUE(copy.sender->Summary().completed) << copy.sender->Summary().error;
    EXPECT_EQ(TreeDifference(source, destination + "/project"), "");
    EXPECT_EQ(ReadBytes(destination + "/single file.txt"), ReadBytes(single));
    EXPECT_EQ(ModeOf(destination + "/single file.txt"), 0604u);
    EXPECT_EQ(ModeOf(destination + "/project"), 0750u);
    EXPECT_EQ(leftovers(destination, {"project", "single file.txt"}), std::vector<std::string>{});
    EXPECT_EQ(copy.observer.Count("failure"), 0u);
    EXPECT_EQ(copy.observer.Count("finished"), 1u);
    EXPECT_EQ(received.filesDone, 11u);
    EXPECT_EQ(received.directoriesDone, 6u);
    EXPECT_EQ(received.bytesDone, received.bytesTotal);
    EXPECT_EQ(copy.observer.FinalPathOf("project/nested/deeper/leaf.txt"),
              destination + "/project/nested/deeper/leaf.txt");
}

TEST_F(CopyEndpoints, ExistingNamesGetDuplicateNamesAndStayUntouched)
{
    MakeDirectory(scratch.Join("src"));
    WriteFile(scratch.Join("src/report.pdf"), PatternBytes(5000, 1));
    MakeDirectory(scratch.Join("src/photos"));
    WriteFile(scratch.Join("src/photos/a.jpg"), PatternBytes(7000, 2));
    WriteFile(scratch.Join("src/.bashrc"), PatternBytes(40, 3));
    const std::string destination = scratch.Join("dest");
    MakeDirectory(destination);
    WriteFile(destination + "/report.pdf", PatternBytes(10, 9));
    WriteFile(destination + "/report(1).pdf", PatternBytes(11, 9));
    MakeDirectory(destination + "/photos");
    WriteFile(destination + "/photos/a.jpg", PatternBytes(12, 9));
    WriteFile(destination + "/.bashrc", PatternBytes(13, 9));

    CopySession copy(destination);
    std::string error;
    ASSERT_TRUE(copy.Begin({scratch.Join("src/report.pdf"), scratch.Join("src/photos"), scratch.Join("src/.bashrc")},
                           error))
        << error;
    ASSERT_TRUE(copy.WaitBoth(kCopyLimit));
    ASSERT_TRUE(copy.receiver->Summary().completed) << copy.receiver->Summary().error;

    EXPECT_EQ(ReadBytes(destination + "/report(2).pdf"), PatternBytes(5000, 1));
    EXPECT_EQ(ReadBytes(destination + "/photos(1)/a.jpg"), PatternBytes(7000, 2));
    EXPECT_EQ(ReadBytes(destination + "/(1).bashrc"), PatternBytes(40, 3));
    EXPECT_EQ(ReadBytes(destination + "/report.pdf"), PatternBytes(10, 9));
    EXPECT_EQ(ReadBytes(destination + "/report(1).pdf"), PatternBytes(11, 9));
    EXPECT_EQ(ReadBytes(destination + "/photos/a.jpg"), PatternBytes(12, 9));
    EXPECT_EQ(ReadBytes(destination + "/.bashrc"), PatternBytes(13, 9));
    EXPECT_EQ(copy.observer.FinalPathOf("report.pdf"), destination + "/report(2).pdf");
    EXPECT_EQ(copy.observer.FinalPathOf("photos"), destination + "/photos(1)");
}

TEST_F(CopyEndpoints, CopiesListsLongerThanTheEnginesSliceInOrder)
{
    const std::string source = scratch.Join("src/many");
    MakeDirectory(scratch.Join("src"));
    MakeDirectory(source);
    for (int d = 0; d < 3; ++d) {
        const std::string dir = source + "/d" + std::to_string(d);
        MakeDirectory(dir);
        for (int f = 0; f < 70; ++f) {
            WriteFile(dir + "/f" + std::to_string(f), PatternBytes(static_cast<size_t>(f * 37), f + d));
        }
    }
    const std::string destination = scratch.Join("dest");
    MakeDirectory(destination);
    CopySession copy(destination);
    std::string error;
    ASSERT_TRUE(copy.Begin({source}, error)) << error;
    ASSERT_TRUE(copy.WaitBoth(kCopyLimit));
    ASSERT_TRUE(copy.receiver->Summary().completed) << copy.receiver->Summary().error;
    EXPECT_EQ(copy.receiver->Summary().filesDone, 210u);
    EXPECT_EQ(TreeDifference(source, destination + "/many"), "");
}

class CopyWithWindow : public CopyEndpoints, public ::testing::WithParamInterface<uint32_t> {};

// Every window size completes without the worker ever sitting out its
// 30-second acknowledgement wait.
TEST_P(CopyWithWindow, CompletesWithoutStalling)
{
    MakeDirectory(scratch.Join("src"));
    const auto bytes = PatternBytes(6 * 1024 * 1024 + 17, 21);
    WriteFile(scratch.Join("src/payload.bin"), bytes);
    WriteFile(scratch.Join("src/second.bin"), PatternBytes(50 * 65536, 22));
    const std::string destination = scratch.Join("dest");
    MakeDirectory(destination);

    CopySessionOptions options;
    options.sender.ackWindow = GetParam();
    options.link.maxQueuedDataBytes = 256 * 1024;
    CopySession copy(destination, options);
    std::string error;
    ASSERT_TRUE(copy.Begin({scratch.Join("src/payload.bin"), scratch.Join("src/second.bin")}, error)) << error;
    ASSERT_TRUE(copy.WaitBoth(kCopyLimit));
    EXPECT_TRUE(copy.receiver->Summary().completed) << copy.receiver->Summary().error;
    EXPECT_EQ(ReadBytes(destination + "/payload.bin"), bytes);
    EXPECT_EQ(ReadBytes(destination + "/second.bin"), PatternBytes(50 * 65536, 22));
}

INSTANTIATE_TEST_SUITE_P(Windows, CopyWithWindow, ::testing::Values(0u, 1u, 7u, 50u, 1000u));

TEST_F(CopyEndpoints, AnEmptyOfferCompletesAtOnce)
{
    const std::string destination = scratch.Join("dest");
    MakeDirectory(destination);
    CopySession copy(destination);
    std::string error;
    ASSERT_TRUE(copy.Begin({}, error)) << error;
    ASSERT_TRUE(copy.WaitBoth(kCopyLimit));
    EXPECT_TRUE(copy.receiver->Summary().completed);
    EXPECT_TRUE(copy.sender->Summary().completed);
    EXPECT_EQ(ListTree(destination), std::vector<std::string>{});
}

TEST_F(CopyEndpoints, OfferRefusesWhatItCannotCopy)
{
    const std::string destination = scratch.Join("dest");
    MakeDirectory(destination);
    MakeDirectory(scratch.Join("a"));
    MakeDirectory(scratch.Join("b"));
    WriteFile(scratch.Join("a/x"), PatternBytes(1, 1));
    WriteFile(scratch.Join("b/x"), PatternBytes(1, 1));
    ASSERT_EQ(mkfifo(scratch.Join("fifo").c_str(), 0600), 0);
    CopySession copy(destination);
    std::string error;
    EXPECT_FALSE(copy.sender->Offer({scratch.Join("missing")}, error));
    EXPECT_NE(error.find(scratch.Join("missing")), std::string::npos) << error;
    EXPECT_FALSE(copy.sender->Offer({scratch.Join("fifo")}, error));
    EXPECT_NE(error.find("not a regular file or directory"), std::string::npos) << error;
    EXPECT_FALSE(copy.sender->Offer({scratch.Join("a/x"), scratch.Join("b/x")}, error));
    EXPECT_NE(error.find("also named"), std::string::npos) << error;
}

TEST_F(CopyEndpoints, CancelLeavesNoPartialFileNoCacheAndNoThreads)
{
    MakeDirectory(scratch.Join("src"));
    WriteFile(scratch.Join("src/first.bin"), PatternBytes(1000, 1));
    WriteFile(scratch.Join("src/huge.bin"), PatternBytes(24 * 1024 * 1024, 2));
    const std::string destination = scratch.Join("dest");
    MakeDirectory(destination);
    const size_t threadsBefore = test::ThreadCount();
    const size_t descriptorsBefore = test::OpenDescriptorCount();
    {
        CopySessionOptions options;
        options.sender.ackWindow = 4;
        CopySession copy(destination, options);
        copy.observer.onProgress = [&copy](const std::string& name, uint64_t done) {
            if (name == "huge.bin" && done >= 4 * 65536) {
                copy.receiver->Cancel();
            }
        };
        std::string error;
        ASSERT_TRUE(copy.Begin({scratch.Join("src/first.bin"), scratch.Join("src/huge.bin")}, error)) << error;
        ASSERT_TRUE(copy.WaitBoth(kCopyLimit));
        const TransferSummary summary = copy.receiver->Summary();
        EXPECT_FALSE(summary.completed);
        EXPECT_TRUE(summary.cancelled);
        EXPECT_TRUE(copy.sender->Summary().cancelled);
        EXPECT_EQ(copy.observer.Count("failure"), 0u);
        EXPECT_EQ(ListTree(destination), std::vector<std::string>{"first.bin"});
    }
    EXPECT_TRUE(test::WaitForThreadCount(threadsBefore)) << test::ThreadCount() << " threads, " << threadsBefore
                                                         << " before";
    EXPECT_EQ(test::OpenDescriptorCount(), descriptorsBefore);
}

TEST_F(CopyEndpoints, SenderCancelEndsBothSides)
{
    MakeDirectory(scratch.Join("src"));
    WriteFile(scratch.Join("src/huge.bin"), PatternBytes(24 * 1024 * 1024, 2));
    const std::string destination = scratch.Join("dest");
    MakeDirectory(destination);
    CopySessionOptions options;
    options.sender.ackWindow = 4;
    CopySession copy(destination, options);
    copy.observer.onProgress = [&copy](const std::string&, uint64_t done) {
        if (done >= 4 * 65536) {
            copy.sender->Cancel();
        }
    };
    std::string error;
    ASSERT_TRUE(copy.Begin({scratch.Join("src/huge.bin")}, error)) << error;
    ASSERT_TRUE(copy.WaitBoth(kCopyLimit));
    EXPECT_TRUE(copy.receiver->Summary().cancelled);
    EXPECT_TRUE(copy.sender->Summary().cancelled);
    EXPECT_EQ(ListTree(destination), std::vector<std::string>{});
}

// The cached file is swapped for a link to a device that is always full,
// so the engine's write of the first chunk fails.
TEST_F(CopyEndpoints, AWriteFailureIsReportedOnceWithThePathAndLeavesNoFinalFile)
{
    MakeDirectory(scratch.Join("src"));
    MakeDirectory(scratch.Join("src/dir"));
    WriteFile(scratch.Join("src/dir/1-ok.bin"), PatternBytes(5000, 1));
    WriteFile(scratch.Join("src/dir/2-doomed.bin"), PatternBytes(2 * 1024 * 1024, 2));
    WriteFile(scratch.Join("src/dir/3-later.bin"), PatternBytes(5000, 3));
    const std::string destination = scratch.Join("dest");
    MakeDirectory(destination);
    CopySession copy(destination);
    copy.observer.onFileStarted = [&copy](const std::string& name) {
        if (name == "dir/2-doomed.bin") {
            const std::string cached = copy.receiver->CacheDirectory() + "/" + name;
            unlink(cached.c_str());
            ASSERT_EQ(symlink("/dev/full", cached.c_str()), 0);
        }
    };
    std::string error;
    ASSERT_TRUE(copy.Begin({scratch.Join("src/dir")}, error)) << error;
    ASSERT_TRUE(copy.WaitBoth(kCopyLimit));

    const TransferSummary summary = copy.receiver->Summary();
    EXPECT_FALSE(summary.completed);
    EXPECT_FALSE(summary.cancelled);
    const auto failures = copy.observer.EventsOf("failure");
    ASSERT_EQ(failures.size(), 1u);
    EXPECT_EQ(failures[0].name, destination + "/dir/2-doomed.bin");
    EXPECT_NE(failures[0].text.find(destination + "/dir/2-doomed.bin"), std::string::npos) << failures[0].text;
    EXPECT_NE(summary.error.find("doomed.bin"), std::string::npos);
    EXPECT_NE(copy.sender->Summary().error.find("doomed.bin"), std::string::npos) << copy.sender->Summary().error;
    EXPECT_EQ(ListTree(destination), (std::vector<std::string>{"dir/", "dir/1-ok.bin"}));
}

// A small file fails only when its stream is closed; the size check
// catches what the engine does not report.
TEST_F(CopyEndpoints, AFailureSeenOnlyAtCloseIsCaughtBeforeTheMove)
{
    MakeDirectory(scratch.Join("src"));
    WriteFile(scratch.Join("src/small.txt"), PatternBytes(300, 1));
    const std::string destination = scratch.Join("dest");
    MakeDirectory(destination);
    CopySession copy(destination);
    copy.observer.onFileStarted = [&copy](const std::string& name) {
        const std::string cached = copy.receiver->CacheDirectory() + "/" + name;
        unlink(cached.c_str());
        ASSERT_EQ(symlink("/dev/full", cached.c_str()), 0);
    };
    std::string error;
    ASSERT_TRUE(copy.Begin({scratch.Join("src/small.txt")}, error)) << error;
    ASSERT_TRUE(copy.WaitBoth(kCopyLimit));
    const auto failures = copy.observer.EventsOf("failure");
    ASSERT_EQ(failures.size(), 1u);
    EXPECT_EQ(failures[0].name, destination + "/small.txt");
    EXPECT_NE(failures[0].text.find("writing failed"), std::string::npos) << failures[0].text;
    EXPECT_EQ(ListTree(destination), std::vector<std::string>{});
}

TEST_F(CopyEndpoints, AMoveThatFailsIsReportedWithThePath)
{
    MakeDirectory(scratch.Join("src"));
    MakeDirectory(scratch.Join("src/box"));
    WriteFile(scratch.Join("src/box/item.bin"), PatternBytes(4000, 1));
    const std::string destination = scratch.Join("dest");
    MakeDirectory(destination);
    CopySession copy(destination);
    copy.observer.onFileStarted = [&](const std::string& name) {
        if (name == "box/item.bin") {
            // The directory the file was heading for turns into a file.
            rmdir((destination + "/box").c_str());
            WriteFile(destination + "/box", PatternBytes(3, 3));
        }
    };
    std::string error;
    ASSERT_TRUE(copy.Begin({scratch.Join("src/box")}, error)) << error;
    ASSERT_TRUE(copy.WaitBoth(kCopyLimit));
    const auto failures = copy.observer.EventsOf("failure");
    ASSERT_EQ(failures.size(), 1u);
    EXPECT_EQ(failures[0].name, destination + "/box/item.bin");
    EXPECT_NE(failures[0].text.find("cannot be moved into place"), std::string::npos) << failures[0].text;
    EXPECT_EQ(ListTree(destination), std::vector<std::string>{"box"});
}

TEST_F(CopyEndpoints, ASourceThatVanishedIsReportedWithItsPath)
{
    MakeDirectory(scratch.Join("src"));
    WriteFile(scratch.Join("src/a.txt"), PatternBytes(10, 1));
    WriteFile(scratch.Join("src/b.txt"), PatternBytes(10, 2));
    const std::string destination = scratch.Join("dest");
    MakeDirectory(destination);
    CopySession copy(destination);
    std::string error;
    ASSERT_TRUE(copy.sender->Offer({scratch.Join("src/a.txt"), scratch.Join("src/b.txt")}, error)) << error;
    unlink(scratch.Join("src/b.txt").c_str());
    ASSERT_TRUE(copy.receiver->Start(error)) << error;
    ASSERT_TRUE(copy.WaitBoth(kCopyLimit));
    EXPECT_FALSE(copy.receiver->Summary().completed);
    EXPECT_NE(copy.receiver->Summary().error.find(scratch.Join("src/b.txt")), std::string::npos)
        << copy.receiver->Summary().error;
    EXPECT_NE(copy.sender->Summary().error.find(scratch.Join("src/b.txt")), std::string::npos)
        << copy.sender->Summary().error;
    EXPECT_EQ(ListTree(destination), std::vector<std::string>{"a.txt"});
}

TEST_F(CopyEndpoints, LosingTheSenderMidFileFailsTheReceiverCleanly)
{
    MakeDirectory(scratch.Join("src"));
    WriteFile(scratch.Join("src/huge.bin"), PatternBytes(24 * 1024 * 1024, 2));
    const std::string destination = scratch.Join("dest");
    MakeDirectory(destination);
    CopySessionOptions options;
    options.sender.ackWindow = 4;
    CopySession copy(destination, options);
    std::atomic<bool> cut{false};
    copy.observer.onProgress = [&cut](const std::string&, uint64_t done) {
        if (done >= 4 * 65536) {
            cut = true;
        }
    };
    std::string error;
    ASSERT_TRUE(copy.Begin({scratch.Join("src/huge.bin")}, error)) << error;
    ASSERT_TRUE(waitUntil([&] { return cut.load(); }, kCopyLimit));
    copy.sender.reset();
    ASSERT_TRUE(copy.receiver->WaitFinished(kCopyLimit));
    const TransferSummary summary = copy.receiver->Summary();
    EXPECT_FALSE(summary.completed);
    EXPECT_FALSE(summary.error.empty());
    EXPECT_EQ(copy.observer.Count("failure"), 1u);
    EXPECT_EQ(ListTree(destination), std::vector<std::string>{});
}

TEST_F(CopyEndpoints, DestroyingTheReceiverMidFileEndsTheSenderAndLeavesNothing)
{
    MakeDirectory(scratch.Join("src"));
    WriteFile(scratch.Join("src/huge.bin"), PatternBytes(24 * 1024 * 1024, 2));
    const std::string destination = scratch.Join("dest");
    MakeDirectory(destination);
    const size_t threadsBefore = test::ThreadCount();
    {
        CopySessionOptions options;
        options.sender.ackWindow = 4;
        CopySession copy(destination, options);
        std::atomic<bool> underway{false};
        copy.observer.onProgress = [&underway](const std::string&, uint64_t done) {
            if (done >= 4 * 65536) {
                underway = true;
            }
        };
        std::string error;
        ASSERT_TRUE(copy.Begin({scratch.Join("src/huge.bin")}, error)) << error;
        ASSERT_TRUE(waitUntil([&] { return underway.load(); }, kCopyLimit));
        copy.receiver.reset();
        ASSERT_TRUE(copy.sender->WaitFinished(kCopyLimit));
        EXPECT_FALSE(copy.sender->Summary().completed);
        EXPECT_EQ(ListTree(destination), std::vector<std::string>{});
    }
    EXPECT_TRUE(test::WaitForThreadCount(threadsBefore));
}

}  // namespace
}  // namespace orin::xfer::host
