// A paste of many 1 KiB files, end to end: `xferfm copy` in one process,
// and `xferfm send` to `xferfm serve --once` over TCP. Each process must
// stay under 256 MiB of peak resident memory, and the copy must be whole
// and byte-equal.
//
// The count is XFERFM_SCALE_FILES (default 100,000, about a minute here);
// set it to 1000000 for the full-size trial. Labelled slow: it measures
// memory and time, which mean something only in an uninstrumented build.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <string>
#include <vector>

#include "ServeProcess.h"
#include "ToolExitCodes.h"
#include "ToolRunner.h"
#include "TreeCompare.h"

namespace orin::xfer::test {
namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

constexpr uint64_t kCeilingKiB = 256 * 1024;
constexpr size_t kFilesPerDirectory = 1000;
constexpr size_t kFileBytes = 1024;

size_t FileCount()
{
    const char* text = std::getenv("XFERFM_SCALE_FILES");
    const long long count = text != nullptr ? std::atoll(text) : 0;
    return count > 0 ? static_cast<size_t>(count) : 100000;
}

// File `index`'s bytes: its number repeated, so every file differs.
void ContentOf(size_t index, char (&bytes)[kFileBytes])
{
    char number[32];
    std::snprintf(number, sizeof(number), "%07zu\n", index);
    for (size_t at = 0; at < kFileBytes; ++at) {
        bytes[at] = number[at % 8];  // seven digits and a newline below ten million files
    }
}

std::string FileName(const std::string& root, size_t index)
{
    char name[64];
    std::snprintf(name, sizeof(name), "/d%04zu/f%07zu.bin", index / kFilesPerDirectory, index);
    return root + name;
}

bool MakeTree(const std::string& root, size_t count)
{
    char bytes[kFileBytes];
    for (size_t index = 0; index < count; ++index) {
        if (index % kFilesPerDirectory == 0) {
            fs::create_directories(fs::path(FileName(root, index)).parent_path());
        }
        ContentOf(index, bytes);
        const int fd = ::open(FileName(root, index).c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        const bool written = fd >= 0 && ::write(fd, bytes, kFileBytes) == static_cast<ssize_t>(kFileBytes);
        if (fd >= 0) {
            ::close(fd);
        }
        if (!written) {
            return false;
        }
    }
    return true;
}

// Every file there with its size; the contents of every 97th file. Empty
// when the copy is whole, else the first problem.
std::string CopyProblem(const std::string& root, size_t count)
{
    const size_t files = FilesUnder(root);
    if (files != count) {
        return std::to_string(files) + " files arrived of " + std::to_string(count);
    }
    char expected[kFileBytes];
    char actual[kFileBytes];
    for (size_t index = 0; index < count; ++index) {
        const std::string path = FileName(root, index);
        std::error_code error;
        if (fs::file_size(path, error) != kFileBytes || error) {
            return path + " is missing or not " + std::to_string(kFileBytes) + " bytes";
        }
        if (index % 97 != 0) {
            continue;
        }
        ContentOf(index, expected);
        const int fd = ::open(path.c_str(), O_RDONLY);
        const bool read = fd >= 0 && ::read(fd, actual, kFileBytes) == static_cast<ssize_t>(kFileBytes);
        if (fd >= 0) {
            ::close(fd);
        }
        if (!read || std::char_traits<char>::compare(expected, actual, kFileBytes) != 0) {
            return path + " differs from its source";
        }
    }
    return {};
}

double SecondsSince(Clock::time_point start)
{
    return std::chrono::duration<double>(Clock::now() - start).count();
}

TEST(ToolScaleTest, ManySmallFilesArriveWholeInProcessAndOverTcpWithEachSideUnder256MiB)
{
    const size_t count = FileCount();
    const auto timeout = std::chrono::milliseconds(60000 + count * 2);
    TempDir scratch;
    const std::string source = scratch / "source";
    ASSERT_TRUE(MakeTree(source + "/tree", count));

    // In one process.
    const std::string local = scratch / "local";
    fs::create_directories(local);
    auto started = Clock::now();
    ChildProcess copy(ToolPath(), {"copy", "--no-progress", source + "/tree", local}, scratch / "copy");
    ASSERT_TRUE(copy.WaitExit(timeout)) << copy.Describe();
    const double copySeconds = SecondsSince(started);
    EXPECT_EQ(copy.ExitCode(), toInt(cli::ExitCode::kOk)) << copy.Describe();
    EXPECT_LT(copy.PeakKiB(), kCeilingKiB);
    EXPECT_EQ(CopyProblem(local + "/tree", count), "");
    std::cout << "[ FIGURE   ] copy of " << count << " files of 1 KiB: " << copySeconds << " s, peak "
              << copy.PeakKiB() << " KiB\n";
    fs::remove_all(local);

    // Over TCP.
    const std::string remote = scratch / "remote";
    fs::create_directories(remote);
    ServeProcess serve(scratch, remote, {"--once"});
    ASSERT_TRUE(serve.Listening()) << serve.Process().Describe();
    started = Clock::now();
    const auto send = RunSend(scratch, "send", {serve.Address(), source + "/tree"}, timeout);
    ASSERT_TRUE(send->Exited()) << send->Describe();
    ASSERT_TRUE(serve.Process().WaitExit(60s)) << serve.Process().Describe();
    const double sendSeconds = SecondsSince(started);
    EXPECT_EQ(send->ExitCode(), toInt(cli::ExitCode::kOk)) << send->Describe();
    EXPECT_EQ(serve.Process().ExitCode(), toInt(cli::ExitCode::kOk)) << serve.Process().Describe();
    EXPECT_LT(send->PeakKiB(), kCeilingKiB);
    EXPECT_LT(serve.Process().PeakKiB(), kCeilingKiB);
    EXPECT_EQ(CopyProblem(remote + "/tree", count), "");
    std::cout << "[ FIGURE   ] send -> serve of " << count << " files of 1 KiB: " << sendSeconds
              << " s, peak send " << send->PeakKiB() << " KiB, serve " << serve.Process().PeakKiB() << " KiB\n";
}

}  // namespace
}  // namespace orin::xfer::test
