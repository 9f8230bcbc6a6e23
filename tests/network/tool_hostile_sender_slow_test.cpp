// `xferfm serve` against senders played by hand that send more than they
// announce: each test is one promise that the excess never reaches the
// cache, the file fails at once with a message naming it, and nothing
// lands in DEST_DIR.
//
// Labelled slow: several tests measure the server's peak memory and how
// soon it cuts a peer, which only mean something in an uninstrumented
// build, so the sanitizer passes leave them out.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iostream>

#include "ServeProcess.h"
#include "ToolExitCodes.h"

namespace orin::xfer::test {
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

// Peak resident memory of process `pid` in KiB, from its own VmHWM.
uint64_t PeakKiB(pid_t pid)
{
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.rfind("VmHWM:", 0) == 0) {
            return std::stoull(line.substr(6));
        }
    }
    return 0;
}

// Hello, a one-file list of `size` bytes, its announcement (window 1: an
// acknowledgement for every chunk) and the accept.
void PlayUpToTheAccept(RawClient& sender, uint64_t size)
{
    std::vector<Message> heard;
    ASSERT_TRUE(sender.SendHello());
    ASSERT_TRUE(sender.ReadMessagesUntil(LastIs<FileListRequest>, heard, 10s));
    ASSERT_TRUE(sender.SendMessage(FileListMessage{
        R"({"root":"/remote","fileList":[{"filePath":"","fileName":"big.bin","attribute":128,"mode":420,)"
        R"("fileSize":)" + std::to_string(size) + "}]}"}));
    ASSERT_TRUE(sender.ReadMessagesUntil(LastIs<NextFileRequest>, heard, 10s));
    const NextFileRequest request = std::get<NextFileRequest>(heard.back());
    ASSERT_TRUE(sender.SendMessage(FileStart{request.taskId, 3, request.name, false, size, size, 1}));
    ASSERT_TRUE(sender.ReadMessagesUntil(LastIs<FileAccept>, heard, 10s));
}

// Sends `count` copies of `message`, encoded in batches; false once the
// server has cut the link. `peakKiB` gets the largest VmHWM of `pid` seen
// between batches.
bool Flood(RawClient& sender, const Message& message, size_t count, pid_t pid, uint64_t& peakKiB)
{
    std::vector<uint8_t> batch;
    std::string error;
    const FrameEncoder encoder;
    for (size_t sent = 0; sent < count;) {
        batch.clear();
        for (size_t index = 0; index < 4096 && sent < count; ++index, ++sent) {
            encoder.Append(message, batch, error);
        }
        peakKiB = std::max(peakKiB, PeakKiB(pid));
        if (!sender.SendBytes(batch)) {
            return false;
        }
    }
    return true;
}

// Each test plays one sender by hand against a `serve --once` of its own,
// receiving into an empty DEST_DIR.
class ToolHostileSenderTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(serve.Listening()) << serve.Process().Describe(); }

    static std::string MadeDirectory(const std::string& path)
    {
        fs::create_directories(path);
        return path;
    }

    TempDir scratch;
    const std::string dest = MadeDirectory(scratch / "dest");
    ServeProcess serve{scratch, dest, {"--once"}};
};

TEST_F(ToolHostileSenderTest, EmptyDataFramesFromASenderThatDoesNotReadAreNeitherAcknowledgedNorQueued)
{
    RawClient sender(serve.Port());
    PlayUpToTheAccept(sender, 1u << 20);
    const uint64_t before = PeakKiB(serve.Process().Pid());
    uint64_t peak = before;
    // Two million empty chunks, nothing read meanwhile.
    EXPECT_TRUE(Flood(sender, FileData{3, {}}, 2'000'000, serve.Process().Pid(), peak));
    peak = std::max(peak, PeakKiB(serve.Process().Pid()));
    EXPECT_LT(peak, before + 16 * 1024) << "peak went from " << before << " KiB to " << peak << " KiB";
    std::cout << "[ FIGURE   ] serve peak " << before << " KiB -> " << peak << " KiB after 2,000,000 empty chunks\n";
}

TEST_F(ToolHostileSenderTest, ASenderThatDoesNotReadItsAcknowledgementsIsCutWithBoundedMemory)
{
    RawClient sender(serve.Port());
    const uint64_t size = 1u << 20;
    PlayUpToTheAccept(sender, size);
    const uint64_t before = PeakKiB(serve.Process().Pid());
    uint64_t peak = before;
    // One byte per chunk with a window of one: a reply for every few bytes
    // sent, none of them read.
    const auto started = Clock::now();
    Flood(sender, FileData{3, {'x'}}, size, serve.Process().Pid(), peak);  // kernel buffers may take it all
    ASSERT_TRUE(serve.Process().WaitExit(20s)) << serve.Process().Describe();
    EXPECT_EQ(serve.Process().ExitCode(), toInt(cli::ExitCode::kTransferFailed)) << serve.Process().Describe();
    EXPECT_EQ(LinesWith(serve.Process().Stdout(), "does not read what it is sent").size(), 1u)
        << serve.Process().Describe();
    EXPECT_LT(Clock::now() - started, 15s);
    EXPECT_LT(peak, before + 32 * 1024) << "peak went from " << before << " KiB to " << peak << " KiB";
    std::cout << "[ FIGURE   ] serve peak " << before << " KiB -> " << peak << " KiB until cut\n";
    // Nothing partial lands: the file stays only if all of it arrived before the cut.
    const std::vector<std::string> landed = NamesIn(dest);
    if (!landed.empty()) {
        EXPECT_EQ(landed, std::vector<std::string>{"big.bin"});
        EXPECT_TRUE(ReadBytes(dest + "/big.bin") == std::vector<uint8_t>(size, 'x')) << "big.bin is not what was sent";
    }
}

TEST_F(ToolHostileSenderTest, DataBeyondTheAnnouncedSizeFailsThatFileAtOnceAndNeverReachesTheCache)
{

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
    EXPECT_EQ(serve.Process().ExitCode(), toInt(cli::ExitCode::kTransferFailed)) << serve.Process().Describe();
    EXPECT_EQ(LinesWith(serve.Process().Stdout(), "'small.txt' was announced as 10 bytes, and the sender sent more")
                  .size(),
              1u)
        << serve.Process().Describe();
    EXPECT_LE(largestCache, 10u);
    EXPECT_LT(Clock::now() - started, 5s);
    EXPECT_EQ(NamesIn(dest), std::vector<std::string>{});
}

}  // namespace
}  // namespace orin::xfer::test

namespace orin::xfer::test {
namespace {

TEST_F(ToolHostileSenderTest, AC1ControlInANameIsRefusedAndNeverReachesTheTerminalRaw)
{
    RawClient sender(serve.Port());
    std::vector<Message> heard;
    ASSERT_TRUE(sender.SendHello());
    ASSERT_TRUE(sender.ReadMessagesUntil(LastIs<FileListRequest>, heard, 10s));
    // U+009B, which some terminals read as the start of an escape sequence.
    ASSERT_TRUE(sender.SendMessage(FileListMessage{
        "{\"root\":\"/remote\",\"fileList\":[{\"filePath\":\"\",\"fileName\":\"csi\xC2\x9B" "31m.txt\","
        "\"attribute\":128,\"mode\":420,\"fileSize\":3}]}"}));
    sender.ReadMessagesUntil([](const std::vector<Message>&) { return false; }, heard, 2s);
    sender.Close();
    ASSERT_TRUE(serve.Process().WaitExit(10s)) << serve.Process().Describe();
    const std::string printed = serve.Process().Stdout() + serve.Process().Stderr();
    EXPECT_EQ(printed.find("\xC2\x9B"), std::string::npos) << printed;
    EXPECT_EQ(LinesWith(printed, "csi\\xC2\\x9B31m.txt").size(), 2u) << printed;
    EXPECT_EQ(LinesWith(printed, "it contains a control character").size(), 2u) << printed;
    EXPECT_EQ(NamesIn(dest), std::vector<std::string>{});
}

TEST_F(ToolHostileSenderTest, AFileListWithCommentsIsRefusedAsNotStrictJson)
{
    RawClient sender(serve.Port());
    std::vector<Message> heard;
    ASSERT_TRUE(sender.SendHello());
    ASSERT_TRUE(sender.ReadMessagesUntil(LastIs<FileListRequest>, heard, 10s));
    ASSERT_TRUE(sender.SendMessage(FileListMessage{
        "{\"root\":\"/remote\", /* a comment */ \"fileList\":[{\"filePath\":\"\",\"fileName\":\"a.txt\","
        "\"attribute\":128,\"mode\":420,\"fileSize\":3} // another\n]}"}));
    sender.ReadMessagesUntil(LastIs<Disconnect>, heard, 10s);
    sender.Close();
    ASSERT_TRUE(serve.Process().WaitExit(10s)) << serve.Process().Describe();
    EXPECT_EQ(serve.Process().ExitCode(), toInt(cli::ExitCode::kTransferFailed)) << serve.Process().Describe();
    EXPECT_EQ(LinesWith(serve.Process().Stdout(), "(the list is strict JSON)").size(), 1u)
        << serve.Process().Describe();
    EXPECT_EQ(NamesIn(dest), std::vector<std::string>{});
}

// Offers `json` to a running serve and returns its session line.
std::string OfferList(ServeProcess& serve, const std::string& json, size_t sessions)
{
    RawClient sender(serve.Port());
    std::vector<Message> heard;
    EXPECT_TRUE(sender.SendHello());
    EXPECT_TRUE(sender.ReadMessagesUntil(LastIs<FileListRequest>, heard, 10s));
    EXPECT_TRUE(sender.SendMessage(FileListMessage{json}));
    sender.ReadMessagesUntil(LastIs<Disconnect>, heard, 20s);
    const std::vector<std::string> lines = serve.WaitForSessions(sessions, 20s);
    return lines.size() >= sessions ? lines[sessions - 1] : std::string();
}

TEST(ToolHostileListShapeTest, ListsOfTheWrongShapeAreRefusedBeforeTheyAreParsed)
{
    TempDir scratch;
    const std::string dest = scratch / "dest";
    fs::create_directories(dest);
    ServeProcess serve(scratch, dest);
    ASSERT_TRUE(serve.Listening()) << serve.Process().Describe();
    const pid_t pid = serve.Process().Pid();

    std::string zeros = R"({"root":"/remote","fileList":[0)";
    for (int index = 1; index < 4'000'000; ++index) {
        zeros += ",0";
    }
    zeros += "]}";
    std::string keys = R"({"root":"/remote","fileList":[{"filePath":"","fileName":"a","attribute":128,"mode":420,)"
                       R"("fileSize":3)";
    for (int index = 0; index < 1'000'000; ++index) {
        keys += ",\"k" + std::to_string(index) + "\":0";
    }
    keys += "}]}";

    const uint64_t before = PeakKiB(pid);
    EXPECT_NE(OfferList(serve, zeros, 1).find("entry 0 is not an object"), std::string::npos)
        << serve.Process().Describe();
    EXPECT_NE(OfferList(serve, keys, 2).find("has more than 32 keys"), std::string::npos)
        << serve.Process().Describe();
    const uint64_t peak = PeakKiB(pid);
    // The texts are 8 and 16 MiB; each is held a few times over, never parsed.
    EXPECT_LT(peak, before + 64 * 1024) << "peak went from " << before << " KiB to " << peak << " KiB";
    std::cout << "[ FIGURE   ] serve peak " << before << " KiB -> " << peak
              << " KiB after lists of 4,000,000 zeros (8 MiB) and 1,000,000 keys (16 MiB)\n";
    EXPECT_EQ(NamesIn(dest), std::vector<std::string>{});
}

}  // namespace
}  // namespace orin::xfer::test

namespace orin::xfer::test {
namespace {

TEST_F(ToolHostileSenderTest, ThousandsOfRefusedEntriesPrintTwentyLinesAndACount)
{
    std::string json = R"({"root":"/remote","fileList":[)";
    for (int index = 0; index < 5000; ++index) {
        json += std::string(index ? "," : "") + R"({"filePath":"","fileName":"bad\\x)" + std::to_string(index) +
                R"(","attribute":128,"mode":420,"fileSize":3})";
    }
    json += "]}";
    RawClient sender(serve.Port());
    std::vector<Message> heard;
    ASSERT_TRUE(sender.SendHello());
    ASSERT_TRUE(sender.ReadMessagesUntil(LastIs<FileListRequest>, heard, 10s));
    ASSERT_TRUE(sender.SendMessage(FileListMessage{json}));
    sender.ReadMessagesUntil(LastIs<Disconnect>, heard, 20s);
    sender.Close();
    ASSERT_TRUE(serve.Process().WaitExit(20s)) << serve.Process().Describe();
    EXPECT_EQ(LinesWith(serve.Process().Stderr(), "not copied: ").size(), 20u);
    EXPECT_EQ(LinesWith(serve.Process().Stderr(), "more entries not copied; the session line counts them").size(), 1u);
    EXPECT_EQ(LinesWith(serve.Process().Stdout(), "refused 5000 of 5000 entries").size(), 1u)
        << serve.Process().Stdout();
}

}  // namespace
}  // namespace orin::xfer::test

namespace orin::xfer::test {
namespace {

TEST_F(ToolHostileSenderTest, AnEntryWhosePathWouldExceedTheSystemLimitIsRefusedAloneAndTheRestIsCopied)
{
    // Sixteen directories of 254-byte names: legal one by one, too long together.
    std::string json = R"({"root":"/remote","fileList":[)";
    std::string parent;
    for (int depth = 0; depth < 16; ++depth) {
        const std::string name(254, static_cast<char>('a' + depth));
        json += R"({"filePath":")" + parent + R"(","fileName":")" + name + R"(","attribute":16,"mode":493,)" +
                R"("fileSize":0},)";
        parent += (parent.empty() ? "" : "/") + name;
    }
    json += R"({"filePath":"","fileName":"ok.txt","attribute":128,"mode":420,"fileSize":3}]})";
    RawClient sender(serve.Port());
    std::vector<Message> heard;
    ASSERT_TRUE(sender.SendHello());
    ASSERT_TRUE(sender.ReadMessagesUntil(LastIs<FileListRequest>, heard, 10s));
    ASSERT_TRUE(sender.SendMessage(FileListMessage{json}));
    size_t handled = 0;
    uint32_t nextId = 3;
    while (sender.ReadMessagesUntil([&](const std::vector<Message>& m) { return m.size() > handled; }, heard, 10s)) {
        for (; handled < heard.size(); ++handled) {
            if (const auto* request = std::get_if<NextFileRequest>(&heard[handled])) {
                const bool file = request->name == "ok.txt";
                sender.SendMessage(FileStart{request->taskId, nextId, request->name, !file, file ? 3u : 0u,
                                             request->totalSize, 50});
                nextId += 2;
            } else if (const auto* accept = std::get_if<FileAccept>(&heard[handled])) {
                sender.SendMessage(FileData{accept->transferId, {'o', 'k', '\n'}});
            }
        }
        if (LastIs<Disconnect>(heard)) {
            break;
        }
    }
    sender.Close();
    ASSERT_TRUE(serve.Process().WaitExit(20s)) << serve.Process().Describe();
    EXPECT_EQ(serve.Process().ExitCode(), toInt(cli::ExitCode::kNamesRefused)) << serve.Process().Describe();
    EXPECT_GE(LinesWith(serve.Process().Stderr(), "longer than the system's limit of 4096").size(), 1u)
        << serve.Process().Describe();
    EXPECT_TRUE(fs::is_regular_file(dest + "/ok.txt")) << serve.Process().Describe();
}

}  // namespace
}  // namespace orin::xfer::test

namespace orin::xfer::test {
namespace {

// A list as a real sender writes it: `directories` directories of
// `perDirectory` files each, every entry with its modification time.
std::string MillionEntryList(size_t directories, size_t perDirectory)
{
    std::string json = R"({"root":"/remote/source","fileList":[)";
    json.reserve(directories * (perDirectory + 1) * 110);
    char entry[256];
    for (size_t d = 0; d < directories; ++d) {
        std::snprintf(entry, sizeof(entry),
                      R"(%s{"filePath":"","fileName":"d%04zu","attribute":16,"mode":493,"fileSize":%zu,)"
                      R"("mtime":[1700000000,123456789]})",
                      d ? "," : "", d, perDirectory * 1024);
        json += entry;
        for (size_t f = 0; f < perDirectory; ++f) {
            std::snprintf(entry, sizeof(entry),
                          R"(,{"filePath":"d%04zu","fileName":"f%07zu.bin","attribute":128,"mode":420,)"
                          R"("fileSize":1024,"mtime":[1700000000,123456789]})",
                          d, d * perDirectory + f);
            json += entry;
        }
    }
    return json + "]}";
}

TEST_F(ToolHostileSenderTest, AMillionEntryListIsReadOnceAndHeldWithinItsCeiling)
{
    const std::string json = MillionEntryList(1000, 999);  // 1,000,000 entries
    const uint64_t listKiB = json.size() / 1024;
    RawClient sender(serve.Port());
    std::vector<Message> heard;
    ASSERT_TRUE(sender.SendHello());
    ASSERT_TRUE(sender.ReadMessagesUntil(LastIs<FileListRequest>, heard, 10s));
    const uint64_t before = PeakKiB(serve.Process().Pid());
    const auto started = Clock::now();
    ASSERT_TRUE(sender.SendMessage(FileListMessage{json}));
    // The first request comes once the list is read and screened.
    ASSERT_TRUE(sender.ReadMessagesUntil(LastIs<NextFileRequest>, heard, 60s)) << serve.Process().Describe();
    const auto readIn = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - started);
    EXPECT_EQ(std::get<NextFileRequest>(heard.back()).name, "d0000");
    const uint64_t peak = PeakKiB(serve.Process().Pid());
    sender.Close();
    ASSERT_TRUE(serve.Process().WaitExit(20s)) << serve.Process().Describe();
    // The ceiling of ReceiverEndpoint.h and docs/reliability.md: 1.25 x the
    // list's bytes + 128 bytes an entry + 32 MiB, all told.
    const uint64_t ceilingKiB = listKiB + listKiB / 4 + 1'000'000 * 128 / 1024 + 32 * 1024;
    EXPECT_LT(peak, ceilingKiB) << "peak " << peak << " KiB for a list of " << listKiB << " KiB";
    std::cout << "[ FIGURE   ] serve peak " << before << " KiB -> " << peak << " KiB for a 1,000,000-entry list of "
              << listKiB << " KiB, read in " << readIn.count() << " ms (ceiling " << ceilingKiB << " KiB)\n";
}

}  // namespace
}  // namespace orin::xfer::test
