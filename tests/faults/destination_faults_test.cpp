// Faults on the receiving side's disk: a full device, a full file system, a
// destination directory removed while the copy runs. Each must end the copy
// with one error naming the file, leave no partial file under a final
// name, and leave the process able to copy again.
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <system_error>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "CopySession.h"
#include "FaultCopy.h"
#include "HostTestSupport.h"
#include "PrivateTmpfs.h"
#include "TestSupport.h"

namespace orin::xfer::test {

using namespace orin::xfer::host;
namespace {

using namespace std::chrono_literals;
using orin::xfer::test::PatternBytes;
using orin::xfer::test::TempDir;

constexpr auto kCopyLimit = 20s;  // copies of a few MiB take well under a second

class DestinationFaults : public ::testing::Test {
protected:
    void SetUp() override
    {
        MakeDirectory(scratch.Join("src"));
        MakeDirectory(scratch.Join("src/box"));
        destination = scratch.Join("dest");
        MakeDirectory(destination);
    }

    QuietEngineLog quiet;
    TempDir scratch;
    std::string destination;
};

class DeviceFull : public DestinationFaults, public ::testing::WithParamInterface<size_t> {};

// The file being received is swapped in the cache for a link to a device
// that is always full, so its writes (or, for a small file, the flush at
// close) fail.
TEST_P(DeviceFull, AFullDeviceFailsTheFileOnceAndTheNextCopyWorks)
{
    WriteFile(scratch.Join("src/box/1-ok.bin"), PatternBytes(5000, 1));
    WriteFile(scratch.Join("src/box/2-full.bin"), PatternBytes(GetParam(), 2));
    WriteFile(scratch.Join("src/box/3-later.bin"), PatternBytes(5000, 3));
    {
        CopySession copy(destination);
        copy.observer.onFileStarted = [&copy](const std::string& name) {
            if (name == "box/2-full.bin") {
                const std::string cached = copy.receiver->CacheDirectory() + "/" + name;
                unlink(cached.c_str());
                ASSERT_EQ(symlink("/dev/full", cached.c_str()), 0);
            }
        };
        std::string error;
        ASSERT_TRUE(copy.Begin({scratch.Join("src/box")}, error)) << error;
        ASSERT_TRUE(copy.WaitBoth(kCopyLimit));
        const auto problems =
            CheckCleanFailure(copy, scratch.Join("src"), destination, destination + "/box/2-full.bin");
        EXPECT_TRUE(problems.empty()) << Joined(problems);
        EXPECT_EQ(ListTree(destination), (std::vector<std::string>{"box/", "box/1-ok.bin"}));
    }
    EXPECT_EQ(NextCopyProblem(scratch.Path(), scratch.Join("next")), "");
}

INSTANTIATE_TEST_SUITE_P(Sizes, DeviceFull, ::testing::Values(1u, 300u, 65536u, 65537u, 5u * 65536u + 3u));

// A final name that is already a link to a full device is an existing name:
// the copy lands beside it and the link is left as it was.
TEST_F(DestinationFaults, AnExistingLinkToAFullDeviceIsLeftAlone)
{
    WriteFile(scratch.Join("src/data.bin"), PatternBytes(100000, 4));
    ASSERT_EQ(symlink("/dev/full", (destination + "/data.bin").c_str()), 0);
    CopySession copy(destination);
    std::string error;
    ASSERT_TRUE(copy.Begin({scratch.Join("src/data.bin")}, error)) << error;
    ASSERT_TRUE(copy.WaitBoth(kCopyLimit));
    ASSERT_TRUE(copy.receiver->Summary().completed) << copy.receiver->Summary().error;
    char target[64] = {};
    ASSERT_GT(readlink((destination + "/data.bin").c_str(), target, sizeof target - 1), 0);
    EXPECT_STREQ(target, "/dev/full");
    EXPECT_EQ(orin::xfer::test::ReadBytes(destination + "/data(1).bin"), PatternBytes(100000, 4));
}

// A 1 MiB file system in a mount namespace of a child process: a 3 MiB file
// cannot fit, a small one still can once the failed one is cleaned up.
TEST_F(DestinationFaults, AFullFileSystemFailsTheFileOnceAndTheNextCopyFits)
{
    WriteFile(scratch.Join("src/big.bin"), PatternBytes(3 * 1024 * 1024, 5));
    const std::string mountPoint = scratch.Join("small-fs");
    MakeDirectory(mountPoint);
    const std::string source = scratch.Join("src");
    const ChildOutcome outcome = RunWithPrivateTmpfs(
        mountPoint, "1m",
        [&]() -> std::string {
            std::vector<std::string> problems;
            {
                CopySession copy(mountPoint);
                std::string error;
                if (!copy.Begin({source + "/big.bin"}, error)) {
                    return "the copy did not start: " + error;
                }
                if (!copy.WaitBoth(kCopyLimit)) {
                    return "the copy did not finish";
                }
                problems = CheckCleanFailure(copy, source, mountPoint, mountPoint + "/big.bin");
            }
            const std::string next = NextCopyProblem(source, mountPoint + "/next");
            if (!next.empty()) {
                problems.push_back(next);
            }
            return Joined(problems);
        },
        60s);
    if (outcome.kind == ChildOutcome::kUnsupported) {
        GTEST_SKIP() << "no private tmpfs here (needs mount namespaces and CAP_SYS_ADMIN): " << outcome.text;
    }
    EXPECT_EQ(outcome.kind, ChildOutcome::kPassed) << outcome.text;
}

// The directory the files land in disappears while one of them is received.
TEST_F(DestinationFaults, ADestinationDirectoryRemovedMidCopyFailsNamingTheFile)
{
    WriteFile(scratch.Join("src/box/1-first.bin"), PatternBytes(5000, 6));
    WriteFile(scratch.Join("src/box/2-second.bin"), PatternBytes(6 * 65536, 7));
    WriteFile(scratch.Join("src/box/3-third.bin"), PatternBytes(5000, 8));
    {
        CopySessionOptions options;
        options.sender.ackWindow = 2;
        CopySession copy(destination, options);
        std::atomic<bool> removed{false};  // read by the test once the copy is over
        copy.observer.onProgress = [&](const std::string& name, uint64_t done) {
            if (name == "box/2-second.bin" && done >= 65536 && !removed.exchange(true)) {
                std::error_code ignored;
                EXPECT_GT(std::filesystem::remove_all(destination + "/box", ignored), 0u);
            }
        };
        std::string error;
        ASSERT_TRUE(copy.Begin({scratch.Join("src/box")}, error)) << error;
        ASSERT_TRUE(copy.WaitBoth(kCopyLimit));
        ASSERT_TRUE(removed);
        const auto problems =
            CheckCleanFailure(copy, scratch.Join("src"), destination, destination + "/box/2-second.bin");
        EXPECT_TRUE(problems.empty()) << Joined(problems);
        EXPECT_FALSE(orin::xfer::test::PathExists(destination + "/box/3-third.bin"));
    }
    EXPECT_EQ(NextCopyProblem(scratch.Path(), scratch.Join("next")), "");
}

// The whole destination, cache included, disappears mid-file.
TEST_F(DestinationFaults, TheDestinationRemovedMidCopyFailsNamingTheFile)
{
    WriteFile(scratch.Join("src/big.bin"), PatternBytes(8 * 65536, 9));
    {
        CopySessionOptions options;
        options.sender.ackWindow = 2;
        CopySession copy(destination, options);
        std::atomic<bool> removed{false};
        copy.observer.onProgress = [&](const std::string&, uint64_t done) {
            if (done >= 65536 && !removed.exchange(true)) {
                std::error_code ignored;
                EXPECT_GT(std::filesystem::remove_all(destination, ignored), 0u);
            }
        };
        std::string error;
        ASSERT_TRUE(copy.Begin({scratch.Join("src/big.bin")}, error)) << error;
        ASSERT_TRUE(copy.WaitBoth(kCopyLimit));
        ASSERT_TRUE(removed);
        const auto problems = CheckCleanFailure(copy, scratch.Join("src"), destination, destination + "/big.bin");
        EXPECT_TRUE(problems.empty()) << Joined(problems);
        EXPECT_FALSE(orin::xfer::test::PathExists(destination));
    }
    EXPECT_EQ(NextCopyProblem(scratch.Path(), scratch.Join("next")), "");
}

}  // namespace
}  // namespace orin::xfer::test
