// The receiving side's name check as a transport wrapper: the list is read
// here once and handed on read (its text dropped); announcements pass
// through untouched; an entry with a hostile name (and
// everything inside a hostile directory) is taken out of the list, the
// sender hears an EntryRefused for it, and the endpoint's requests are
// mapped back to the list as offered; a hostile announcement ends the
// session.
#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <mutex>

#include "LinkTestSupport.h"
#include "TempDir.h"
#include "xferfm/host/FileList.h"
#include "xferfm/host/FileListDigests.h"
#include "xferfm/host/InProcessTransport.h"
#include "xferfm/host/RemoteNameGuardTransport.h"

namespace orin::xfer::test {
namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;
using orin::xfer::test::TempDir;

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
        root = scratch.Path();
        auto ends = InProcessTransport::CreatePair();
        senderEnd = std::move(ends.first);
        guard = std::make_unique<RemoteNameGuardTransport>(
            std::move(ends.second), root, FileListLimits{},
            [this](const std::string& refusal) {
                std::lock_guard<std::mutex> lock(mutex);
                refusals.push_back(refusal);
            },
            [this](const RefusedEntry& entry) {
                std::lock_guard<std::mutex> lock(mutex);
                refusedEntries.push_back(entry);
            });
        senderEnd->Start(senderHandler);
        guard->Start(receiverHandler);
    }
    void TearDown() override
    {
        guard.reset();
        senderEnd.reset();
    }

    // Sends `json` and waits until the endpoint's side has the screened
    // list; returns its request names.
    std::vector<std::string> Screen(const std::string& json)
    {
        EXPECT_TRUE(senderEnd->Send(FileListMessage{json}));
        EXPECT_TRUE(receiverHandler.WaitForMessages(1));
        const std::shared_ptr<const ParsedFileList> parsed = ListHeard();
        std::vector<std::string> names;
        for (const FileListEntry& entry : parsed ? parsed->entries : std::vector<FileListEntry>{}) {
            names.push_back(entry.RequestName());
        }
        return names;
    }

    // The list as the endpoint's side got it: read, with its text dropped.
    std::shared_ptr<const ParsedFileList> ListHeard()
    {
        const auto got = receiverHandler.Messages();
        const auto* list = got.empty() ? nullptr : std::get_if<FileListMessage>(&got[0]);
        if (list == nullptr || list->parsed == nullptr) {
            ADD_FAILURE() << "the endpoint did not get a read list";
            return nullptr;
        }
        EXPECT_TRUE(list->json.empty()) << "the text goes once the list is read";
        return list->parsed;
    }

    // The EntryRefused messages the sender heard, once `count` have come.
    std::vector<EntryRefused> RefusalsHeard(size_t count)
    {
        std::vector<EntryRefused> heard;
        waitUntil([&] {
            heard.clear();
            for (const Message& message : senderHandler.Messages()) {
                if (const auto* refused = std::get_if<EntryRefused>(&message)) {
                    heard.push_back(*refused);
                }
            }
            return heard.size() >= count;
        });
        return heard;
    }

    std::vector<std::string> Refusals()
    {
        std::lock_guard<std::mutex> lock(mutex);
        return refusals;
    }

    std::vector<RefusedEntry> RefusedEntries()
    {
        std::lock_guard<std::mutex> lock(mutex);
        return refusedEntries;
    }

    TempDir scratch;
    std::string root;
    std::unique_ptr<InProcessTransport> senderEnd;
    std::unique_ptr<RemoteNameGuardTransport> guard;
    RecordingHandler senderHandler;
    RecordingHandler receiverHandler;
    std::mutex mutex;  // the two below are filled on the delivery thread
    std::vector<std::string> refusals;
    std::vector<RefusedEntry> refusedEntries;
};

TEST_F(RemoteNameGuardTransportTest, CleanListArrivesReadAndMessagesPassThroughUntouched)
{
    const std::string json = List({Entry("", "dir", true), Entry("dir", "a.txt", false)});
    const std::vector<Message> sent = {FileListMessage{json}, FileStart{1, 3, "dir/a.txt", false, 3, 3, 50},
                                       FileData{3, {1, 2, 3}}, EndOfList{}};
    for (const Message& message : sent) {
        ASSERT_TRUE(senderEnd->Send(message));
    }
    ASSERT_TRUE(receiverHandler.WaitForMessages(sent.size()));
    const std::shared_ptr<const ParsedFileList> parsed = ListHeard();
    ASSERT_NE(parsed, nullptr);
    ParsedFileList expected;
    std::string error;
    ASSERT_TRUE(ParseFileList(json, expected, error)) << error;
    ASSERT_EQ(parsed->entries.size(), expected.entries.size());
    for (size_t index = 0; index < expected.entries.size(); ++index) {
        EXPECT_EQ(parsed->entries[index].RequestName(), expected.entries[index].RequestName());
        EXPECT_EQ(parsed->entries[index].isDirectory, expected.entries[index].isDirectory);
        EXPECT_EQ(parsed->entries[index].fileSize, expected.entries[index].fileSize);
    }
    EXPECT_EQ(parsed->totalFileBytes, expected.totalFileBytes);
    const auto got = receiverHandler.Messages();
    EXPECT_EQ(std::vector<Message>(got.begin() + 1, got.end()), std::vector<Message>(sent.begin() + 1, sent.end()));
    EXPECT_TRUE(Refusals().empty());
    EXPECT_TRUE(RefusedEntries().empty());

    const std::vector<Message> answers = {FileListRequest{}, NextFileRequest{2, 1, "dir/a.txt", 3}};
    for (const Message& message : answers) {
        ASSERT_TRUE(guard->Send(message));
    }
    ASSERT_TRUE(senderHandler.WaitForMessages(answers.size()));
    EXPECT_EQ(senderHandler.Messages(), answers);
}

TEST_F(RemoteNameGuardTransportTest, BackslashNameIsTakenOutAndTheRestGoesOn)
{
    const auto kept = Screen(List({Entry("", "ok.txt", false), Entry("", R"(..\\..\\evil)", false)}));
    EXPECT_EQ(kept, std::vector<std::string>{"ok.txt"});
    const std::string expected = R"(refused remote name "..\\..\\evil": it contains a backslash)";
    const auto heard = RefusalsHeard(1);
    ASSERT_EQ(heard.size(), 1u);
    EXPECT_EQ(heard[0], (EntryRefused{1, expected}));
    const auto entries = RefusedEntries();
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_EQ(entries[0].index, 1u);
    EXPECT_EQ(entries[0].name, R"(..\..\evil)");
    EXPECT_EQ(entries[0].reason, expected);
    EXPECT_EQ(receiverHandler.ClosedCount(), 0) << "the session goes on";
    EXPECT_TRUE(Refusals().empty());
}

TEST_F(RemoteNameGuardTransportTest, ControlCharacterNameIsTakenOut)
{
    const auto kept = Screen(List({Entry("", "a.txt", false), Entry("", R"(bell\u0007)", false),
                                   Entry("", "c.txt", false)}));
    EXPECT_EQ(kept, (std::vector<std::string>{"a.txt", "c.txt"}));
    const auto heard = RefusalsHeard(1);
    ASSERT_EQ(heard.size(), 1u);
    EXPECT_EQ(heard[0].index, 1u);
    EXPECT_NE(heard[0].reason.find("it contains a control character"), std::string::npos) << heard[0].reason;
}

TEST_F(RemoteNameGuardTransportTest, EntryThroughASymbolicLinkIsTakenOut)
{
    fs::create_directory(root + "/outside");
    fs::create_directory_symlink(root + "/outside", root + "/dir");
    const auto kept =
        Screen(List({Entry("", "dir", true), Entry("dir", "a.txt", false), Entry("", "b.txt", false)}));
    // The directory entry itself lands under a new name ("dir(1)") beside
    // the link; what would be reached through the link is refused.
    EXPECT_EQ(kept, (std::vector<std::string>{"dir", "b.txt"}));
    const auto heard = RefusalsHeard(1);
    ASSERT_EQ(heard.size(), 1u);
    EXPECT_EQ(heard[0], (EntryRefused{1, "refused remote name \"dir/a.txt\": " + root + "/dir is a symbolic link"}));
}

TEST_F(RemoteNameGuardTransportTest, EntriesInsideARefusedDirectoryAreRefusedToo)
{
    const auto kept = Screen(List({Entry("", "good", true), Entry("good", "x.txt", false),
                                   Entry("", R"(bad\u0007dir)", true), Entry(R"(bad\u0007dir)", "a.txt", false),
                                   Entry(R"(bad\u0007dir)", "sub", true), Entry(R"(bad\u0007dir/sub)", "b.txt", false),
                                   Entry("", "z.txt", false)}));
    EXPECT_EQ(kept, (std::vector<std::string>{"good", "good/x.txt", "z.txt"}));
    const auto heard = RefusalsHeard(4);
    ASSERT_EQ(heard.size(), 4u);
    EXPECT_EQ(heard[0].index, 2u);
    EXPECT_NE(heard[0].reason.find("it contains a control character"), std::string::npos) << heard[0].reason;
    EXPECT_EQ(heard[1], (EntryRefused{3, R"(refused remote name "bad\x07dir/a.txt": it lies inside the refused )"
                                         R"(directory "bad\x07dir")"}));
    EXPECT_EQ(heard[2], (EntryRefused{4, R"(refused remote name "bad\x07dir/sub": it lies inside the refused )"
                                         R"(directory "bad\x07dir")"}));
    EXPECT_EQ(heard[3], (EntryRefused{5, R"(refused remote name "bad\x07dir/sub/b.txt": it lies inside the )"
                                         R"(refused directory "bad\x07dir/sub")"}));
}

TEST_F(RemoteNameGuardTransportTest, RequestsAreMappedBackToTheListAsOffered)
{
    const auto kept = Screen(List({Entry("", "a", false), Entry("", R"(b\\)", false), Entry("", "c", false),
                                   Entry("", R"(d\\)", false), Entry("", "e", false)}));
    ASSERT_EQ(kept, (std::vector<std::string>{"a", "c", "e"}));
    ASSERT_EQ(RefusalsHeard(2).size(), 2u);
    const size_t before = senderHandler.MessageCount();
    // The endpoint counts in its own list of three; the sender in its five.
    for (uint64_t index = 0; index < 4; ++index) {
        ASSERT_TRUE(guard->Send(NextFileRequest{static_cast<uint32_t>(index + 1), index, "n", 3}));
    }
    ASSERT_TRUE(senderHandler.WaitForMessages(before + 4));
    const auto told = senderHandler.Messages();
    std::vector<uint64_t> indices;
    for (size_t at = before; at < told.size(); ++at) {
        indices.push_back(std::get<NextFileRequest>(told[at]).index);
    }
    EXPECT_EQ(indices, (std::vector<uint64_t>{0, 2, 4, 5})) << "a request beyond the list stays beyond it";
}

TEST_F(RemoteNameGuardTransportTest, DigestsSurviveTheScreening)
{
    const std::string digest(64, 'a');
    const std::string json = R"({"root":"/src","fileList":[)" + Entry("", R"(x\\y)", false) + "," +
                             R"({"filePath":"","fileName":"kept.txt","attribute":128,"mode":420,"fileSize":3,)"
                             R"("sha256":")" + digest + R"("}]})";
    EXPECT_EQ(Screen(json), std::vector<std::string>{"kept.txt"});
    const std::shared_ptr<const ParsedFileList> parsed = ListHeard();
    ASSERT_NE(parsed, nullptr);
    EXPECT_EQ(FileDigestsOf(*parsed), (FileDigests{{"kept.txt", digest}}));
}

TEST_F(RemoteNameGuardTransportTest, AListOfRefusedNamesLeavesAnEmptyList)
{
    EXPECT_EQ(Screen(List({Entry("", R"(a\\b)", false), Entry("", R"(c\u0001)", false)})),
              std::vector<std::string>{});
    EXPECT_EQ(RefusalsHeard(2).size(), 2u);
    EXPECT_EQ(RefusedEntries().size(), 2u);
}

TEST_F(RemoteNameGuardTransportTest, ASecondListIsDropped)
{
    EXPECT_EQ(Screen(List({Entry("", "a", false)})), std::vector<std::string>{"a"});
    ASSERT_TRUE(senderEnd->Send(FileListMessage{List({Entry("", R"(b\\)", false)})}));
    ASSERT_TRUE(senderEnd->Send(EndOfList{}));
    ASSERT_TRUE(receiverHandler.WaitForMessages(2));
    const auto got = receiverHandler.Messages();
    EXPECT_TRUE(std::holds_alternative<EndOfList>(got[1])) << "the second list never reaches the endpoint";
    EXPECT_TRUE(RefusedEntries().empty());
}

TEST_F(RemoteNameGuardTransportTest, HostileAnnouncementIsRefused)
{
    ASSERT_TRUE(senderEnd->Send(FileStart{1, 3, "a/../../x", false, 3, 3, 50}));
    ASSERT_TRUE(receiverHandler.WaitForClose(5s));
    const std::string reason = receiverHandler.CloseReason();
    EXPECT_NE(reason.find("\"..\" component"), std::string::npos) << reason;
    EXPECT_EQ(receiverHandler.MessageCount(), 0u);
    EXPECT_EQ(Refusals(), std::vector<std::string>{reason});

    // The sender hears why, and the link is closed.
    ASSERT_TRUE(senderHandler.WaitForMessages(2));
    const auto told = senderHandler.Messages();
    EXPECT_EQ(told[0], Message(TransferError{0, 0, reason}));
    EXPECT_EQ(told[1], Message(Disconnect{false, reason}));
    EXPECT_FALSE(guard->Send(EndOfList{}));
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
    EXPECT_TRUE(Refusals().empty());
}

}  // namespace
}  // namespace orin::xfer::test
