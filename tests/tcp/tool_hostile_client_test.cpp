// `xferfm serve` against clients that break the rules, over raw sockets:
// malformed frames are each rejected and the server goes on serving; a
// client that speaks the protocol but names hostile paths gets nothing
// written, inside DEST_DIR or outside it.
#include <gtest/gtest.h>
#include <signal.h>

#include <filesystem>

#include "ServeProcess.h"

namespace xferfm::tcptest {
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
        EXPECT_EQ(send->ExitCode(), 0) << send->Describe() << serve->Process().Describe();
        EXPECT_NE(NextSessionLine().find(": ok: received 1 files"), std::string::npos);
        EXPECT_EQ(TreeDifference(scratch / "good", dest + "/good"), "");
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

TEST_F(HostileClientTest, HostileNamesWriteNothingAnywhere)
{
    fs::create_directory_symlink(canary, dest + "/link");
    const std::string canaryBefore = TreeFingerprint(canary);
    struct Case {
        const char* what;
        std::string json;
        std::string expected;  // in the session line
    };
    const std::vector<Case> cases = {
        {"backslashes", List({Entry("", R"(..\\..\\evil.txt)", false)}), "contains a backslash"},
        {"control character", List({Entry("", R"(bell\u0007.txt)", false)}), "control character"},
        {"through a symbolic link", List({Entry("", "link", true), Entry("link", "pwned.txt", false)}),
         dest + "/link is a symbolic link"},
        {"dot-dot", List({Entry("", "..", true), Entry("..", "escape.txt", false)}), "\"..\""},
        {"absolute", List({Entry("", "/tmp", true), Entry("/tmp", "abs.txt", false)}), "file list"},
        {"over-long component", List({Entry("", std::string(300, 'n'), false)}), "255"},
        {"invalid UTF-8", List({Entry("", "bad\xFF\xFEname", false)}), "failed"},
    };
    for (const Case& test : cases) {
        SCOPED_TRACE(test.what);
        RawClient client(serve->Port());
        ASSERT_TRUE(client.Connected());
        ASSERT_TRUE(client.SendHello());
        std::vector<Message> heard;
        ASSERT_TRUE(client.ReadMessagesUntil(
            [](const std::vector<Message>& got) {
                return !got.empty() && std::holds_alternative<FileListRequest>(got.front());
            },
            heard, 10s));
        ASSERT_TRUE(client.SendMessage(FileListMessage{test.json}));
        client.ReadMessagesUntil(Closed, heard, 10s);
        EXPECT_TRUE(Closed(heard)) << "the server says why it leaves";
        client.Close();
        const std::string line = NextSessionLine();
        EXPECT_NE(line.find(": failed: "), std::string::npos) << line;
        EXPECT_NE(line.find(test.expected), std::string::npos) << line << "\nserver said: " << Reasons(heard);
        EXPECT_EQ(NamesIn(dest), std::vector<std::string>{"link"});
        EXPECT_EQ(TreeFingerprint(canary), canaryBefore);
        EXPECT_FALSE(fs::exists(scratch / "evil.txt"));
        EXPECT_FALSE(fs::exists(scratch / "escape.txt"));
    }
    ExpectStillServing();
    EXPECT_EQ(TreeFingerprint(canary), canaryBefore);
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

}  // namespace
}  // namespace xferfm::tcptest
