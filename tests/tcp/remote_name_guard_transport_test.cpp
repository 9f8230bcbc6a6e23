// The receiving side's name check as a transport wrapper: clean lists and
// announcements pass through untouched, a list with a hostile name never
// reaches the handler behind it, and the sender hears why.
#include <gtest/gtest.h>

#include <filesystem>

#include "LinkTestSupport.h"
#include "xferfm/host/InProcessTransport.h"
#include "xferfm/host/RemoteNameGuardTransport.h"

namespace xferfm::tcptest {
namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;

std::string Entry(const std::string& filePath, const std::string& fileName, bool directory)
{
    return R"({"filePath":")" + filePath + R"(","fileName":")" + fileName + R"(","attribute":)" +
           (directory ? "16" : "128") + R"(,"mode":420,"fileSize":)" + (directory ? "0" : "3") + "}";
}

std::string List(const std::vector<std::string>& entries)
{
    std::string json = R"({"root":"/src","fileList":[)";
    for (size_t index = 0; index < entries.size(); ++index) {
        json += (index ? "," : "") + entries[index];
    }
    return json + "]}";
}

class RemoteNameGuardTransportTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        char pattern[] = "/tmp/xferfm-guard-link-XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        root = pattern;
        auto ends = InProcessTransport::CreatePair();
        senderEnd = std::move(ends.first);
        guard = std::make_unique<RemoteNameGuardTransport>(std::move(ends.second), root, FileListLimits{},
                                                           [this](const std::string& refusal) {
                                                               refusals.push_back(refusal);
                                                           });
        senderEnd->Start(senderHandler);
        guard->Start(receiverHandler);
    }
    void TearDown() override
    {
        guard.reset();
        senderEnd.reset();
        fs::remove_all(root);
    }

    // Sends a list with `entries`; true when it reached the receiver side.
    void ExpectRefused(const std::string& json, const std::string& expected)
    {
        ASSERT_TRUE(senderEnd->Send(FileListMessage{json}));
        ASSERT_TRUE(receiverHandler.WaitForClose(5s));
        EXPECT_EQ(receiverHandler.MessageCount(), 0u) << "the list must not reach the endpoint";
        EXPECT_NE(receiverHandler.CloseReason().find(expected), std::string::npos) << receiverHandler.CloseReason();
        ASSERT_EQ(refusals.size(), 1u);
        EXPECT_EQ(refusals[0], receiverHandler.CloseReason());

        ASSERT_TRUE(senderHandler.WaitForMessages(2));
        const auto told = senderHandler.Messages();
        const auto* error = std::get_if<TransferError>(&told[0]);
        ASSERT_NE(error, nullptr);
        EXPECT_NE(error->message.find(expected), std::string::npos) << error->message;
        const auto* goodbye = std::get_if<Disconnect>(&told[1]);
        ASSERT_NE(goodbye, nullptr);
        EXPECT_FALSE(goodbye->completed);
        EXPECT_FALSE(guard->Send(EndOfList{}));
    }

    std::string root;
    std::unique_ptr<InProcessTransport> senderEnd;
    std::unique_ptr<RemoteNameGuardTransport> guard;
    RecordingHandler senderHandler;
    RecordingHandler receiverHandler;
    std::vector<std::string> refusals;  // delivery thread; read after WaitForClose
};

TEST_F(RemoteNameGuardTransportTest, CleanListAndMessagesPassThroughUntouched)
{
    const std::string json = List({Entry("", "dir", true), Entry("dir", "a.txt", false)});
    const std::vector<Message> sent = {FileListMessage{json}, FileStart{1, 3, "dir/a.txt", false, 3, 3, 50},
                                       FileData{3, {1, 2, 3}}, EndOfList{}};
    for (const Message& message : sent) {
        ASSERT_TRUE(senderEnd->Send(message));
    }
    ASSERT_TRUE(receiverHandler.WaitForMessages(sent.size()));
    EXPECT_EQ(receiverHandler.Messages(), sent);
    EXPECT_TRUE(refusals.empty());

    ASSERT_TRUE(guard->Send(FileListRequest{}));
    ASSERT_TRUE(senderHandler.WaitForMessages(1));
    EXPECT_EQ(senderHandler.Messages(), std::vector<Message>{FileListRequest{}});
}

TEST_F(RemoteNameGuardTransportTest, BackslashNameRefusesTheList)
{
    ExpectRefused(List({Entry("", "ok.txt", false), Entry("", R"(..\\..\\evil)", false)}),
                  R"(refused remote name "..\\..\\evil": it contains a backslash)");
}

TEST_F(RemoteNameGuardTransportTest, ControlCharacterRefusesTheList)
{
    ExpectRefused(List({Entry("", R"(bell\u0007)", false)}), "it contains a control character");
}

TEST_F(RemoteNameGuardTransportTest, SymbolicLinkParentRefusesTheList)
{
    fs::create_directory(root + "/outside");
    fs::create_directory_symlink(root + "/outside", root + "/dir");
    ExpectRefused(List({Entry("", "dir", true), Entry("dir", "a.txt", false)}), root + "/dir is a symbolic link");
}

TEST_F(RemoteNameGuardTransportTest, HostileAnnouncementIsRefused)
{
    ASSERT_TRUE(senderEnd->Send(FileStart{1, 3, "a/../../x", false, 3, 3, 50}));
    ASSERT_TRUE(receiverHandler.WaitForClose(5s));
    EXPECT_NE(receiverHandler.CloseReason().find("\"..\" component"), std::string::npos);
    EXPECT_EQ(receiverHandler.MessageCount(), 0u);
}

TEST_F(RemoteNameGuardTransportTest, UnparsableListIsLeftToTheEndpoint)
{
    const std::vector<Message> sent = {FileListMessage{"{not json"}};
    ASSERT_TRUE(senderEnd->Send(sent[0]));
    ASSERT_TRUE(receiverHandler.WaitForMessages(1));
    EXPECT_EQ(receiverHandler.Messages(), sent);
    EXPECT_EQ(receiverHandler.ClosedCount(), 0);
}

TEST_F(RemoteNameGuardTransportTest, PeerCloseIsPassedOnOnce)
{
    senderEnd->Close();
    ASSERT_TRUE(receiverHandler.WaitForClose(5s));
    std::this_thread::sleep_for(100ms);  // room for a wrong second report
    EXPECT_EQ(receiverHandler.ClosedCount(), 1);
    EXPECT_TRUE(refusals.empty());
}

}  // namespace
}  // namespace xferfm::tcptest
