// What a receiver does with the modification times a sender's list carries
// and with its landing options: every file and directory keeps its source's
// time, a permission mask clears mode bits, and resume names continue an
// earlier copy under its existing name, replacing what the sender resends.
#include <fcntl.h>
#include <sys/stat.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "HostTestSupport.h"
#include "TestSupport.h"
#include "xferfm/host/InProcessTransport.h"
#include "xferfm/host/ReceiverEndpoint.h"
#include "xferfm/host/SenderEndpoint.h"

namespace orin::xfer::host {
namespace {

using orin::xfer::test::PatternBytes;
using orin::xfer::test::ReadBytes;
using orin::xfer::test::TempDir;
using namespace std::chrono_literals;
using test::MakeDirectory;
using test::ModeOf;
using test::WriteFile;

void SetTime(const std::string& path, time_t seconds, long nanoseconds)
{
    const timespec times[2] = {{0, UTIME_OMIT}, {seconds, nanoseconds}};
    ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, 0), 0) << path;
}

timespec TimeOf(const std::string& path)
{
    struct stat status {};
    EXPECT_EQ(stat(path.c_str(), &status), 0) << path;
    return status.st_mtim;
}

// One copy of `paths` into the options' destination; the receiver's summary.
TransferSummary Copy(const std::vector<std::string>& paths, ReceiverOptions options)
{
    auto link = InProcessTransport::CreatePair();
    SenderEndpoint sender(std::move(link.first));
    ReceiverEndpoint receiver(std::move(link.second), options);
    std::string error;
    EXPECT_TRUE(sender.Offer(paths, error)) << error;
    EXPECT_TRUE(receiver.Start(error)) << error;
    EXPECT_TRUE(receiver.WaitFinished(20s));
    EXPECT_TRUE(sender.WaitFinished(5s));
    return receiver.Summary();
}

class ReceiverLandingOptions : public ::testing::Test {
protected:
    void SetUp() override
    {
        root = scratch.Join("src/top");
        destination = scratch.Join("dest");
        MakeDirectory(scratch.Join("src"));
        MakeDirectory(root, 0777);
        MakeDirectory(root + "/sub", 0755);
        WriteFile(root + "/sub/file.bin", PatternBytes(70000, 1), 0666);
        SetTime(root + "/sub/file.bin", 1111111111, 222222222);
        SetTime(root + "/sub", 1222222222, 5);
        SetTime(root, 1333333333, 0);
        MakeDirectory(destination);
    }

    test::QuietEngineLog quiet;
    TempDir scratch;
    std::string root;
    std::string destination;
};

TEST_F(ReceiverLandingOptions, FilesAndDirectoriesKeepTheSourcesModificationTimes)
{
    ReceiverOptions options;
    options.destinationDir = destination;

    EXPECT_TRUE(Copy({root}, options).completed);

    for (const char* relative : {"", "/sub", "/sub/file.bin"}) {
        const timespec source = TimeOf(root + relative);
        const timespec copied = TimeOf(destination + "/top" + relative);
        EXPECT_EQ(copied.tv_sec, source.tv_sec) << relative;
        EXPECT_EQ(copied.tv_nsec, source.tv_nsec) << relative;
    }
}

TEST_F(ReceiverLandingOptions, APermissionMaskClearsModeBits)
{
    ReceiverOptions options;
    options.destinationDir = destination;
    options.permissionMask = 027;

    EXPECT_TRUE(Copy({root}, options).completed);

    EXPECT_EQ(ModeOf(destination + "/top"), 0750u);
    EXPECT_EQ(ModeOf(destination + "/top/sub"), 0750u);
    EXPECT_EQ(ModeOf(destination + "/top/sub/file.bin"), 0640u);
}

TEST_F(ReceiverLandingOptions, ResumeNamesContinueUnderTheExistingName)
{
    MakeDirectory(destination + "/top");            // someone else's: not touched
    MakeDirectory(destination + "/top(1)");         // the interrupted copy's
    MakeDirectory(destination + "/top(1)/sub");
    WriteFile(destination + "/top(1)/sub/file.bin", PatternBytes(10, 9));  // stale: replaced
    WriteFile(destination + "/top(1)/kept.txt", PatternBytes(3, 4));
    ReceiverOptions options;
    options.destinationDir = destination;
    options.resumeNames = {{"top", "top(1)"}};

    EXPECT_TRUE(Copy({root}, options).completed);

    EXPECT_EQ(ReadBytes(destination + "/top(1)/sub/file.bin"), ReadBytes(root + "/sub/file.bin"));
    EXPECT_EQ(ReadBytes(destination + "/top(1)/kept.txt"), PatternBytes(3, 4));
    EXPECT_EQ(test::ListTree(destination + "/top"), std::vector<std::string>{});
    EXPECT_EQ(test::ListTree(destination),
              (std::vector<std::string>{"top(1)/", "top(1)/kept.txt", "top(1)/sub/", "top(1)/sub/file.bin", "top/"}));
}

}  // namespace
}  // namespace orin::xfer::host
