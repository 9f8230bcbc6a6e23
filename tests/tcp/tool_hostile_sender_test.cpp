// `xferfm serve` against senders played by hand that send more than they
// announce: each test is one promise that the excess never reaches the
// cache, the file fails at once with a message naming it, and nothing
// lands in DEST_DIR.
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>

#include "ServeProcess.h"

namespace xferfm::tcptest {
namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

template <typename Kind>
bool LastIs(const std::vector<Message>& heard)
{
    return !heard.empty() && std::holds_alternative<Kind>(heard.back());
}

// Bytes of the cache files under `dest` now (the cache is removed at the end).
uint64_t CacheBytes(const std::string& dest)
{
    uint64_t bytes = 0;
    std::error_code ignored;
    for (auto it = fs::recursive_directory_iterator(dest, ignored); it != fs::recursive_directory_iterator();
         it.increment(ignored)) {
        std::error_code vanished;  // the cache goes away at the end of the session
        const uintmax_t size = it->is_regular_file(ignored) ? it->file_size(vanished) : 0;
        if (it->path().string().find("/.xferfm-cache-") != std::string::npos && !vanished) {
            bytes += size;
        }
    }
    return bytes;
}

TEST(ToolHostileSenderTest, DataBeyondTheAnnouncedSizeFailsThatFileAtOnceAndNeverReachesTheCache)
{
    TempDir scratch;
    const std::string dest = scratch / "dest";
    fs::create_directories(dest);
    ServeProcess serve(scratch, dest, {"--once"});
    ASSERT_TRUE(serve.Listening()) << serve.Process().Describe();

    RawClient sender(serve.Port());
    std::vector<Message> heard;
    ASSERT_TRUE(sender.SendHello());
    ASSERT_TRUE(sender.ReadMessagesUntil(LastIs<FileListRequest>, heard, 10s));
    ASSERT_TRUE(sender.SendMessage(FileListMessage{
        R"({"root":"/remote","fileList":[{"filePath":"","fileName":"small.txt","attribute":128,"mode":420,)"
        R"("fileSize":10}]})"}));
    ASSERT_TRUE(sender.ReadMessagesUntil(LastIs<NextFileRequest>, heard, 10s));
    const NextFileRequest request = std::get<NextFileRequest>(heard.back());
    ASSERT_TRUE(sender.SendMessage(FileStart{request.taskId, 3, request.name, false, 10, 10, 100000}));
    ASSERT_TRUE(sender.ReadMessagesUntil(LastIs<FileAccept>, heard, 10s));

    // 64 MiB announced as 10 bytes, for as long as the server takes it.
    const auto started = Clock::now();
    uint64_t largestCache = 0;
    const std::vector<uint8_t> chunk(64u << 10, 'x');
    for (int index = 0; index < 1024 && sender.SendMessage(FileData{3, chunk}); ++index) {
        largestCache = std::max(largestCache, CacheBytes(dest));
    }
    ASSERT_TRUE(serve.Process().WaitExit(10s)) << serve.Process().Describe();
    EXPECT_EQ(serve.Process().ExitCode(), 1) << serve.Process().Describe();
    EXPECT_EQ(LinesWith(serve.Process().Stdout(), "'small.txt' was announced as 10 bytes, and the sender sent more")
                  .size(),
              1u)
        << serve.Process().Describe();
    EXPECT_LE(largestCache, 10u);
    EXPECT_LT(Clock::now() - started, 5s);
    EXPECT_EQ(NamesIn(dest), std::vector<std::string>{});
}

}  // namespace
}  // namespace xferfm::tcptest
