// `xferfm serve` against clients that break the rules, over raw sockets:
// malformed frames are each rejected and the server goes on serving; a
// client that speaks the protocol but names hostile paths gets nothing of
// them written, inside DEST_DIR or outside it, while the good entries of
// the same list arrive; a hostile announcement ends the session.
#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>

#include "ToolExitCodes.h"
#include "ServeProcess.h"

namespace orin::xfer::test {
namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;

std::vector<uint8_t> Join(std::initializer_list<std::vector<uint8_t>> parts)
{
    std::vector<uint8_t> all;
    for (const auto& part : parts) {
        all.insert(all.end(), part.begin(), part.end());
    }
    return all;
}

std::vector<uint8_t> Text(const std::string& text) { return std::vector<uint8_t>(text.begin(), text.end()); }

std::vector<uint8_t> ReadFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// Names are written into the JSON as they are: escape them in the source.
std::string Entry(const std::string& filePath, const std::string& fileName, bool directory, uint64_t size = 3)
{
    return R"({"filePath":")" + filePath + R"(","fileName":")" + fileName + R"(","attribute":)" +
           (directory ? "16" : "128") + R"(,"mode":420,"fileSize":)" + std::to_string(directory ? 0 : size) + "}";
}

std::string List(const std::vector<std::string>& entries)
{
    std::string json = R"({"root":"/remote","fileList":[)";
    for (size_t index = 0; index < entries.size(); ++index) {
        json += (index ? "," : "") + entries[index];
    }
    return json + "]}";
}

bool Closed(const std::vector<Message>& messages)
{
    for (const Message& message : messages) {
        if (const auto* goodbye = std::get_if<Disconnect>(&message); goodbye && !goodbye->completed) {
            return true;
        }
    }
    return false;
}

// Everything the server said that names a reason, joined.
std::string Reasons(const std::vector<Message>& messages)
{
    std::string reasons;
    for (const Message& message : messages) {
        if (const auto* error = std::get_if<TransferError>(&message)) {
            reasons += error->message + "\n";
        } else if (const auto* goodbye = std::get_if<Disconnect>(&message)) {
            reasons += goodbye->reason + "\n";
        }
    }
    return reasons;
}

// A sender played by hand over a raw socket: offers `json`, answers every
// request with an announcement of the requested name, and sends the bytes
// of each accepted file (`files`, by request name; a name missing from it
// is announced as a directory). Returns everything the server said, up to
// its goodbye; `requested` gets the names asked for.
std::vector<Message> PlaySender(RawClient& client, const std::string& json,
                                const std::map<std::string, std::vector<uint8_t>>& files,
                                std::vector<std::string>& requested)
{
    std::vector<Message> heard;
    if (!client.SendHello() ||
        !client.ReadMessagesUntil(
            [](const std::vector<Message>& got) {
                return !got.empty() && std::holds_alternative<FileListRequest>(got.front());
            },
            heard, 10s) ||
        !client.SendMessage(FileListMessage{json})) {
        ADD_FAILURE() << "the server did not ask for the list";
        return heard;
    }
    std::map<uint32_t, std::string> nameOf;
    uint32_t nextId = 3;
    size_t handled = heard.size();
    while (client.ReadMessagesUntil([&](const std::vector<Message>& got) { return got.size() > handled; }, heard,
                                    20s)) {
        for (; handled < heard.size(); ++handled) {
            const Message& message = heard[handled];
            if (const auto* request = std::get_if<NextFileRequest>(&message)) {
                requested.push_back(request->name);
                const auto file = files.find(request->name);
                const bool directory = file == files.end();
                const uint64_t size = directory ? 0 : file->second.size();
                nameOf[nextId] = request->name;
                client.SendMessage(FileStart{request->taskId, nextId, request->name, directory, size,
                                             request->totalSize, 50});
                nextId += 2;
            } else if (const auto* accept = std::get_if<FileAccept>(&message)) {
                const std::vector<uint8_t>& bytes = files.at(nameOf.at(accept->transferId));
                for (size_t at = 0; at == 0 || at < bytes.size(); at += 65536) {
                    const size_t end = std::min(bytes.size(), at + 65536);
                    client.SendMessage(FileData{accept->transferId, std::vector<uint8_t>(bytes.begin() + at,
                                                                                         bytes.begin() + end)});
                }
            } else if (std::holds_alternative<Disconnect>(message)) {
                return heard;
            }
        }
    }
    return heard;
}

std::vector<EntryRefused> RefusalsIn(const std::vector<Message>& messages)
{
    std::vector<EntryRefused> refused;
    for (const Message& message : messages) {
        if (const auto* entry = std::get_if<EntryRefused>(&message)) {
            refused.push_back(*entry);
        }
    }
    return refused;
}

class HostileClientTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        dest = scratch / "dest";
        canary = scratch / "canary";
        fs::create_directories(dest);
        WriteText(canary + "/keep.txt", "must never change");
        WriteText(canary + "/inner/also.txt", "nor this");
        serve = std::make_unique<ServeProcess>(scratch, dest);
        ASSERT_TRUE(serve->Listening()) << serve->Process().Describe();
    }

    // The next session line, once the server has printed it.
    std::string NextSessionLine()
    {
        const auto sessions = serve->WaitForSessions(++sessionCount, 15s);
        return sessions.size() >= sessionCount ? sessions[sessionCount - 1] : "(no session line)";
    }

    // A real sender still gets through.
    void ExpectStillServing()
    {
        WriteText(scratch / "good/g.txt", "good");
        const auto send = RunSend(scratch, "good-send", {serve->Address(), scratch / "good"});
        EXPECT_EQ(send->ExitCode(), toInt(cli::ExitCode::kOk)) << send->Describe() << serve->Process().Describe();
        EXPECT_NE(NextSessionLine().find(": ok: received 1 files"), std::string::npos);
        EXPECT_EQ(TreeDifference(scratch / "good", dest + "/good", TreeCompare::kBytes), "");
    }

    TempDir scratch;
    std::string dest;
    std::string canary;
    std::unique_ptr<ServeProcess> serve;
    size_t sessionCount = 0;
};

TEST_F(HostileClientTest, MalformedFramesAreRejectedOneByOne)
{
    struct Case {
        const char* what;
        std::vector<uint8_t> bytes;
        bool cutShort;  // end our side of the stream after the bytes
        std::string expected;
    };
    std::vector<uint8_t> badLength = FrameHeader(0x11, 4 + 10);
    AppendU32(badLength, 11);
    badLength.resize(badLength.size() + 10, '{');
    std::vector<uint8_t> badBool = FrameHeader(0x19, 5);
    badBool.push_back(9);
    AppendU32(badBool, 0);
    const std::vector<Case> cases = {
        {"plain text", Text("GET / HTTP/1.1\r\nHost: x\r\n\r\n"), false, "did not open with a hello frame"},
        {"bad magic", HelloFrame(kWireVersion, "NOPE"), false, "bad magic"},
        {"other version", HelloFrame(kWireVersion + 6), false,
         "link protocol version " + std::to_string(kWireVersion + 6)},
        {"unknown type", Join({HelloFrame(), FrameHeader(0xEE, 0)}), false, "unknown frame type 0xee"},
        {"oversized data", Join({HelloFrame(), FrameHeader(0x15, 0x7FFFFFFF)}), false, "more than the limit"},
        {"oversized list", Join({HelloFrame(), FrameHeader(0x11, (256u << 20) + 5)}), false, "more than the limit"},
        {"string past its frame", Join({HelloFrame(), badLength}), false, "but only 10 are left"},
        {"bool not 0 or 1", Join({HelloFrame(), badBool}), false, "expected 0 or 1"},
        {"cut inside a frame", Join({HelloFrame(), FrameHeader(0x15, 5000), std::vector<uint8_t>(100, 1)}), true,
         "ended inside a file-data frame"},
    };
    for (const Case& test : cases) {
        SCOPED_TRACE(test.what);
        RawClient client(serve->Port());
        ASSERT_TRUE(client.Connected());
        client.SendBytes(test.bytes);  // the server may hang up before it has read them all
        if (test.cutShort) {
            client.FinishSending();
        }
        std::vector<uint8_t> reply;
        EXPECT_TRUE(client.ReadUntilClosed(reply, 10s)) << "the server must close the connection";
        client.Close();
        const std::string line = NextSessionLine();
        EXPECT_NE(line.find(": failed: "), std::string::npos) << line;
        EXPECT_NE(line.find(test.expected), std::string::npos) << line;
    }
    EXPECT_EQ(NamesIn(dest), std::vector<std::string>{});
    ExpectStillServing();
}

// Each hostile name next to a good file, one session each: the hostile
// entry (and whatever lies inside it) is refused with a line naming it and
// the rule, the good file arrives, and nothing is written anywhere else.
TEST_F(HostileClientTest, HostileNamesAreRefusedOneByOneAndTheRestArrives)
{
    fs::create_directory_symlink(canary, dest + "/link");
    const std::string canaryBefore = TreeFingerprint(canary);
    struct Case {
        const char* what;
        std::vector<std::string> hostile;  // entries, JSON-escaped
        size_t refusedCount;
        uint64_t firstRefused;  // index in the list, the good file going first
        std::string expected;   // in the session line and the server's refusal
    };
    const std::vector<Case> cases = {
        {"backslashes", {Entry("", R"(..\\..\\evil.txt)", false)}, 1, 1, "contains a backslash"},
        {"control character", {Entry("", R"(bell\u0007.txt)", false)}, 1, 1, "control character"},
        // The directory itself lands beside the link, as "link(1)".
        {"through a symbolic link", {Entry("", "link", true), Entry("link", "pwned.txt", false)}, 1, 2,
         dest + "/link is a symbolic link"},
        {"dot-dot", {Entry("", "..", true), Entry("..", "escape.txt", false)}, 2, 1, "\"..\""},
        {"absolute", {Entry("", "/tmp", true), Entry("/tmp", "abs.txt", false)}, 2, 1, "it is an absolute path"},
        {"over-long component", {Entry("", std::string(300, 'n'), false)}, 1, 1, "more than 255"},
        {"invalid UTF-8", {Entry("", "bad\xFF\xFEname", false)}, 1, 1, "it is not valid UTF-8"},
    };
    size_t round = 0;
    for (const Case& test : cases) {
        SCOPED_TRACE(test.what);
        const std::string good = "good-" + std::to_string(++round) + ".bin";
        const std::vector<uint8_t> bytes = PatternBytes(70000 + round, static_cast<uint32_t>(round));
        std::vector<std::string> entries = test.hostile;
        entries.insert(entries.begin(), Entry("", good, false, bytes.size()));
        RawClient client(serve->Port());
        ASSERT_TRUE(client.Connected());
        std::vector<std::string> requested;
        const auto heard = PlaySender(client, List(entries), {{good, bytes}}, requested);
        client.Close();

        const auto refused = RefusalsIn(heard);
        ASSERT_EQ(refused.size(), test.refusedCount) << Reasons(heard);
        EXPECT_EQ(refused[0].index, test.firstRefused);
        EXPECT_NE(refused[0].reason.find(test.expected), std::string::npos) << refused[0].reason;
        const std::string line = NextSessionLine();
        EXPECT_NE(line.find(": failed: refused " + std::to_string(test.refusedCount) + " of " +
                            std::to_string(entries.size()) + " entries ("),
                  std::string::npos)
            << line;
        EXPECT_NE(line.find(test.expected), std::string::npos) << line;
        EXPECT_NE(line.find("received 1 files"), std::string::npos) << line;
        EXPECT_EQ(ReadFile(dest + "/" + good), bytes);
        EXPECT_EQ(TreeFingerprint(canary), canaryBefore);
        EXPECT_FALSE(fs::exists(scratch / "evil.txt"));
        EXPECT_FALSE(fs::exists(scratch / "escape.txt"));
        EXPECT_FALSE(fs::exists("/tmp/abs.txt"));
    }
    // Only the good files, and the link as it was planted (with the empty
    // directory that came in its name beside it).
    std::vector<std::string> expected{"link", "link(1)"};
    for (size_t index = 1; index <= cases.size(); ++index) {
        expected.push_back("good-" + std::to_string(index) + ".bin");
    }
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(NamesIn(dest), expected);
    EXPECT_TRUE(fs::is_symlink(dest + "/link"));
    // One line on stderr for each refused entry, naming it and the rule.
    const auto notCopied = LinesWith(serve->Process().Stderr(), ": not copied: refused remote name ");
    EXPECT_EQ(notCopied.size(), 9u) << serve->Process().Stderr();
    ExpectStillServing();
    EXPECT_EQ(TreeFingerprint(canary), canaryBefore);
}

// One list mixing hostile and good names, good trees included: every good
// entry arrives byte for byte, no hostile one is written, the canary
// beside DEST_DIR is untouched and the server goes on serving.
TEST_F(HostileClientTest, AMixedListCopiesTheGoodEntriesOnly)
{
    fs::create_directory_symlink(canary, dest + "/evil");
    const std::string canaryBefore = TreeFingerprint(canary);
    const auto big = PatternBytes(300000, 11);
    const auto small = PatternBytes(10, 12);
    const auto deep = PatternBytes(65536, 13);
    const std::map<std::string, std::vector<uint8_t>> files = {
        {"first.bin", big}, {"docs/small.txt", small}, {"docs/inner/deep.bin", deep}, {"last.bin", small}};
    const std::vector<std::string> entries = {
        Entry("", "first.bin", false, big.size()),
        Entry("", R"(..\\up.txt)", false),
        Entry("", "docs", true),
        Entry("docs", "small.txt", false, small.size()),
        Entry("docs", "..", true),
        Entry("docs/..", "escape.txt", false),
        Entry("", "evil", true),  // a symbolic link in DEST_DIR: the directory lands as evil(1)
        Entry("evil", "pwned.txt", false),
        Entry("docs", "inner", true),
        Entry("docs/inner", "deep.bin", false, deep.size()),
        Entry("docs/inner", R"(ctl\u001b[2J)", false),
        Entry("", "last.bin", false, small.size()),
    };
    RawClient client(serve->Port());
    ASSERT_TRUE(client.Connected());
    std::vector<std::string> requested;
    const auto heard = PlaySender(client, List(entries), files, requested);
    client.Close();

    std::vector<uint64_t> refusedIndices;
    for (const EntryRefused& refused : RefusalsIn(heard)) {
        refusedIndices.push_back(refused.index);
    }
    EXPECT_EQ(refusedIndices, (std::vector<uint64_t>{1, 4, 5, 7, 10})) << Reasons(heard);
    EXPECT_EQ(requested, (std::vector<std::string>{"first.bin", "docs", "docs/small.txt", "evil", "docs/inner",
                                                   "docs/inner/deep.bin", "last.bin"}));
    const std::string line = NextSessionLine();
    EXPECT_NE(line.find(": failed: refused 5 of 12 entries ("), std::string::npos) << line;
    EXPECT_NE(line.find("received 4 files and 3 directories"), std::string::npos) << line;

    EXPECT_EQ(ReadFile(dest + "/first.bin"), big);
    EXPECT_EQ(ReadFile(dest + "/docs/small.txt"), small);
    EXPECT_EQ(ReadFile(dest + "/docs/inner/deep.bin"), deep);
    EXPECT_EQ(ReadFile(dest + "/last.bin"), small);
    EXPECT_EQ(NamesIn(dest), (std::vector<std::string>{"docs", "evil", "evil(1)", "first.bin", "last.bin"}));
    EXPECT_EQ(NamesIn(dest + "/docs"), (std::vector<std::string>{"inner", "small.txt"}));
    EXPECT_EQ(NamesIn(dest + "/docs/inner"), std::vector<std::string>{"deep.bin"});
    EXPECT_EQ(NamesIn(dest + "/evil(1)"), std::vector<std::string>{});
    EXPECT_FALSE(fs::exists(scratch / "up.txt"));
    EXPECT_FALSE(fs::exists(scratch / "escape.txt"));
    EXPECT_FALSE(fs::exists(dest + "/escape.txt"));
    EXPECT_EQ(TreeFingerprint(canary), canaryBefore);
    ExpectStillServing();
    EXPECT_EQ(TreeFingerprint(canary), canaryBefore);
}

// A refused directory takes everything inside it along, at any depth.
TEST_F(HostileClientTest, AHostileDirectoryRefusesItsChildrenToo)
{
    const std::string canaryBefore = TreeFingerprint(canary);
    const auto bytes = PatternBytes(1000, 21);
    const std::vector<std::string> entries = {
        Entry("", R"(bad\\dir)", true),
        Entry(R"(bad\\dir)", "a.txt", false),
        Entry(R"(bad\\dir)", "sub", true),
        Entry(R"(bad\\dir/sub)", "b.txt", false),
        Entry("", "ok.txt", false, bytes.size()),
    };
    RawClient client(serve->Port());
    ASSERT_TRUE(client.Connected());
    std::vector<std::string> requested;
    const auto heard = PlaySender(client, List(entries), {{"ok.txt", bytes}}, requested);
    client.Close();

    const auto refused = RefusalsIn(heard);
    ASSERT_EQ(refused.size(), 4u) << Reasons(heard);
    EXPECT_NE(refused[0].reason.find(R"(refused remote name "bad\\dir": it contains a backslash)"),
              std::string::npos)
        << refused[0].reason;
    EXPECT_EQ(refused[1].reason,
              R"(refused remote name "bad\\dir/a.txt": it lies inside the refused directory "bad\\dir")");
    EXPECT_EQ(refused[2].reason,
              R"(refused remote name "bad\\dir/sub": it lies inside the refused directory "bad\\dir")");
    EXPECT_EQ(refused[3].reason,
              R"(refused remote name "bad\\dir/sub/b.txt": it lies inside the refused directory "bad\\dir/sub")");
    EXPECT_EQ(requested, std::vector<std::string>{"ok.txt"});
    const std::string line = NextSessionLine();
    EXPECT_NE(line.find(": failed: refused 4 of 5 entries ("), std::string::npos) << line;
    EXPECT_EQ(NamesIn(dest), std::vector<std::string>{"ok.txt"});
    EXPECT_EQ(ReadFile(dest + "/ok.txt"), bytes);
    const auto notCopied = LinesWith(serve->Process().Stderr(), ": not copied: ");
    EXPECT_EQ(notCopied.size(), 4u) << serve->Process().Stderr();
    EXPECT_EQ(TreeFingerprint(canary), canaryBefore);
    ExpectStillServing();
}

TEST_F(HostileClientTest, HostileAnnouncementAfterACleanListWritesNothing)
{
    const std::string canaryBefore = TreeFingerprint(canary);
    RawClient client(serve->Port());
    ASSERT_TRUE(client.Connected());
    ASSERT_TRUE(client.SendHello());
    std::vector<Message> heard;
    ASSERT_TRUE(client.ReadMessagesUntil(
        [](const std::vector<Message>& got) { return !got.empty(); }, heard, 10s));
    ASSERT_TRUE(client.SendMessage(FileListMessage{List({Entry("", "ok.txt", false)})}));
    const auto asked = [](const std::vector<Message>& got) {
        for (const Message& message : got) {
            if (std::holds_alternative<NextFileRequest>(message)) {
                return true;
            }
        }
        return false;
    };
    ASSERT_TRUE(client.ReadMessagesUntil(asked, heard, 10s)) << Reasons(heard);
    uint32_t taskId = 0;
    for (const Message& message : heard) {
        if (const auto* request = std::get_if<NextFileRequest>(&message)) {
            taskId = request->taskId;
        }
    }
    ASSERT_TRUE(client.SendMessage(FileStart{taskId, 3, "../canary/keep.txt", false, 3, 3, 50}));
    client.SendMessage(FileData{3, {'b', 'a', 'd'}});
    client.ReadMessagesUntil(Closed, heard, 10s);
    client.Close();
    const std::string line = NextSessionLine();
    EXPECT_NE(line.find(": failed: "), std::string::npos) << line;
    EXPECT_NE(line.find("\"..\" component"), std::string::npos) << line;
    EXPECT_EQ(NamesIn(dest), std::vector<std::string>{});
    EXPECT_EQ(TreeFingerprint(canary), canaryBefore);
    ExpectStillServing();
}

// Entries whose names clash with the list itself, next to a good file,
// one session each: the clashing entry is refused alone with a reason that
// names it and what it clashes with, and the rest arrives.
TEST_F(HostileClientTest, EntriesThatClashWithTheListAreRefusedByName)
{
    struct Case {
        const char* what;
        std::vector<std::string> entries;  // after the good file
        std::map<std::string, std::vector<uint8_t>> files;
        uint64_t refusedIndex;
        std::string expected;
        size_t filesReceived;
    };
    const std::vector<Case> cases = {
        {"inside an entry the list announces as a file",
         {Entry("", "d", false), Entry("d", "x", false)},
         {{"d", {'d', 'd', 'd'}}},
         2,
         R"(refused remote name "d/x": it is inside "d", which the list announces as a file)",
         2},
        {"a directory announced again as a file",
         {Entry("", "e", true), Entry("", "e", false)},
         {},
         2,
         R"(refused remote name "e": it repeats a name listed before: the list announces "e" first as a )"
         R"(directory, then again as a file)",
         1},
    };
    size_t round = 0;
    for (const Case& test : cases) {
        SCOPED_TRACE(test.what);
        const std::string good = "clash-" + std::to_string(++round) + ".bin";
        const std::vector<uint8_t> bytes = PatternBytes(1000 + round, static_cast<uint32_t>(round));
        std::vector<std::string> entries = test.entries;
        entries.insert(entries.begin(), Entry("", good, false, bytes.size()));
        std::map<std::string, std::vector<uint8_t>> files = test.files;
        files[good] = bytes;
        RawClient client(serve->Port());
        ASSERT_TRUE(client.Connected());
        std::vector<std::string> requested;
        const auto heard = PlaySender(client, List(entries), files, requested);
        client.Close();

        const auto refused = RefusalsIn(heard);
        ASSERT_EQ(refused.size(), 1u) << Reasons(heard);
        EXPECT_EQ(refused[0].index, test.refusedIndex);
        EXPECT_NE(refused[0].reason.find(test.expected), std::string::npos) << refused[0].reason;
        const std::string line = NextSessionLine();
        EXPECT_NE(line.find(": failed: refused 1 of 3 entries ("), std::string::npos) << line;
        EXPECT_NE(line.find("received " + std::to_string(test.filesReceived) + " files"), std::string::npos)
            << line;
        EXPECT_EQ(ReadFile(dest + "/" + good), bytes);
    }
    EXPECT_EQ(ReadFile(dest + "/d"), (std::vector<uint8_t>{'d', 'd', 'd'})) << "the file stays a file";
    EXPECT_TRUE(fs::is_directory(dest + "/e")) << "the first announcement of a name stands";
    ExpectStillServing();
}

// The list has a directory; the sender announces that entry as a file and
// sends data for it: the session ends, naming the entry and both kinds,
// and nothing of it is written.
TEST_F(HostileClientTest, AFileAnnouncedForWhatTheListCallsADirectoryEndsTheSessionByName)
{
    RawClient client(serve->Port());
    ASSERT_TRUE(client.Connected());
    ASSERT_TRUE(client.SendHello());
    std::vector<Message> heard;
    ASSERT_TRUE(client.ReadMessagesUntil([](const std::vector<Message>& got) { return !got.empty(); }, heard, 10s));
    ASSERT_TRUE(client.SendMessage(FileListMessage{List({Entry("", "w", true)})}));
    const auto asked = [](const std::vector<Message>& got) {
        return std::any_of(got.begin(), got.end(),
                           [](const Message& message) { return std::holds_alternative<NextFileRequest>(message); });
    };
    ASSERT_TRUE(client.ReadMessagesUntil(asked, heard, 10s)) << Reasons(heard);
    uint32_t taskId = 0;
    for (const Message& message : heard) {
        if (const auto* request = std::get_if<NextFileRequest>(&message)) {
            taskId = request->taskId;
        }
    }
    ASSERT_TRUE(client.SendMessage(FileStart{taskId, 3, "w", false, 3, 3, 50}));
    client.SendMessage(FileData{3, {'b', 'a', 'd'}});
    client.ReadMessagesUntil(Closed, heard, 10s);
    client.Close();
    const std::string line = NextSessionLine();
    EXPECT_NE(line.find(": failed: "), std::string::npos) << line;
    EXPECT_NE(line.find(R"(the sender announced "w" as a file, which the list announces as a directory)"),
              std::string::npos)
        << line;
    EXPECT_EQ(NamesIn(dest), std::vector<std::string>{});
    ExpectStillServing();
}

}  // namespace
}  // namespace orin::xfer::test
