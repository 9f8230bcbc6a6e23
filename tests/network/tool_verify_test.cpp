// `send --verify` across the link, each side against a hand-driven peer:
// the receiver checks landed files against the digests in the list and
// says "verify failed" when one differs; the sender puts the digests in
// its list and exits 6 when the receiver says so.
#include <gtest/gtest.h>

#include <filesystem>

#include "ToolExitCodes.h"
#include "ServeProcess.h"
#include "xferfm/host/FileListDigests.h"
#include "xferfm/host/TcpListener.h"

namespace orin::xfer::test {
namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;

// SHA-256 of "abc".
const std::string kDigestOfAbc = "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad";

template <typename T>
const T* Find(const std::vector<Message>& messages)
{
    for (const Message& message : messages) {
        if (const auto* found = std::get_if<T>(&message)) {
            return found;
        }
    }
    return nullptr;
}

template <typename T>
auto Has()
{
    return [](const std::vector<Message>& messages) { return Find<T>(messages) != nullptr; };
}

std::string OneFileList(const std::string& digest)
{
    return R"({"root":"/r","fileList":[{"filePath":"","fileName":"f.txt","attribute":128,"mode":420,"fileSize":3,)"
           R"("sha256":")" + digest + R"("}]})";
}

// Plays the sending side for one 3-byte file "abc" whose list carries `digest`.
std::vector<Message> SendAbcAnnouncing(uint16_t port, const std::string& digest)
{
    RawClient sender(port);
    std::vector<Message> heard;
    EXPECT_TRUE(sender.SendHello());
    EXPECT_TRUE(sender.ReadMessagesUntil(Has<FileListRequest>(), heard, 10s));
    EXPECT_TRUE(sender.SendMessage(FileListMessage{OneFileList(digest)}));
    EXPECT_TRUE(sender.ReadMessagesUntil(Has<NextFileRequest>(), heard, 10s));
    const NextFileRequest* request = Find<NextFileRequest>(heard);
    if (request == nullptr) {
        return heard;
    }
    EXPECT_TRUE(sender.SendMessage(FileStart{request->taskId, 3, "f.txt", false, 3, 3, 50}));
    EXPECT_TRUE(sender.ReadMessagesUntil(Has<FileAccept>(), heard, 10s));
    EXPECT_TRUE(sender.SendMessage(FileData{3, {'a', 'b', 'c'}}));
    sender.ReadMessagesUntil(Has<Disconnect>(), heard, 10s);
    return heard;
}

TEST(VerifyTest, ReceiverSaysVerifiedWhenTheDigestMatches)
{
    TempDir scratch;
    fs::create_directories(scratch / "dest");
    ServeProcess serve(scratch, scratch / "dest", {"--once"});
    ASSERT_TRUE(serve.Listening()) << serve.Process().Describe();

    const auto heard = SendAbcAnnouncing(serve.Port(), kDigestOfAbc);
    const Disconnect* goodbye = Find<Disconnect>(heard);
    ASSERT_NE(goodbye, nullptr) << serve.Process().Describe();
    EXPECT_TRUE(goodbye->completed);
    EXPECT_EQ(goodbye->reason, "verified 1 files: SHA-256 of every copy matches its source");
    ASSERT_TRUE(serve.Process().WaitExit(10s));
    EXPECT_EQ(serve.Process().ExitCode(), toInt(cli::ExitCode::kOk)) << serve.Process().Describe();
}

TEST(VerifyTest, ReceiverSaysVerifyFailedWhenTheDigestDiffers)
{
    TempDir scratch;
    fs::create_directories(scratch / "dest");
    ServeProcess serve(scratch, scratch / "dest", {"--once"});
    ASSERT_TRUE(serve.Listening()) << serve.Process().Describe();

    const std::string wrong(64, 'e');
    const auto heard = SendAbcAnnouncing(serve.Port(), wrong);
    const TransferError* error = Find<TransferError>(heard);
    ASSERT_NE(error, nullptr) << serve.Process().Describe();
    EXPECT_EQ(error->message.rfind("verify failed: 1 of 1 files differ from their source: ", 0), 0u) << error->message;
    EXPECT_NE(error->message.find("f.txt' has sha256 " + kDigestOfAbc + ", its source " + wrong), std::string::npos)
        << error->message;
    const Disconnect* goodbye = Find<Disconnect>(heard);
    ASSERT_NE(goodbye, nullptr);
    EXPECT_FALSE(goodbye->completed);

    ASSERT_TRUE(serve.Process().WaitExit(10s));
    EXPECT_EQ(serve.Process().ExitCode(), toInt(cli::ExitCode::kVerifyMismatch)) << serve.Process().Describe();
    EXPECT_NE(serve.Process().Stdout().find(": failed: verify failed: 1 of 1 files differ"), std::string::npos)
        << serve.Process().Describe();
    EXPECT_TRUE(fs::exists(scratch / "dest/f.txt")) << "the copy stays for the user to look at, as with copy --verify";
}

TEST(VerifyTest, SenderOffersDigestsAndExitsSixWhenTheReceiverDisagrees)
{
    TempDir scratch;
    WriteText(scratch / "f.txt", "abc");
    std::string error;
    TcpListener listener(HostPort{"127.0.0.1", 0}, error);
    ASSERT_TRUE(listener.Valid()) << error;
    ChildProcess send(ToolPath(),
                      {"send", "--no-progress", "--verify", "127.0.0.1:" + std::to_string(listener.Port()),
                       scratch / "f.txt"},
                      scratch / "send");
    TcpSocket accepted;
    ASSERT_EQ(listener.Accept(10s, accepted, error), TcpListener::AcceptResult::kAccepted) << send.Describe();
    RawClient receiver(std::move(accepted));
    ASSERT_TRUE(receiver.SendHello());
    ASSERT_TRUE(receiver.SendMessage(FileListRequest{}));
    std::vector<Message> heard;
    ASSERT_TRUE(receiver.ReadMessagesUntil(Has<FileListMessage>(), heard, 10s)) << send.Describe();
    EXPECT_EQ(FileDigestsOf(Find<FileListMessage>(heard)->json), (FileDigests{{"f.txt", kDigestOfAbc}}));

    ASSERT_TRUE(receiver.SendMessage(NextFileRequest{1, 0, "f.txt", 3}));
    ASSERT_TRUE(receiver.ReadMessagesUntil(Has<FileStart>(), heard, 10s)) << send.Describe();
    const uint32_t transferId = Find<FileStart>(heard)->transferId;
    ASSERT_TRUE(receiver.SendMessage(FileAccept{transferId}));
    ASSERT_TRUE(receiver.ReadMessagesUntil(Has<FileData>(), heard, 10s)) << send.Describe();
    const std::string verdict = "verify failed: 1 of 1 files differ from their source: 'x/f.txt' (made up)";
    ASSERT_TRUE(receiver.SendMessage(TransferError{0, 0, verdict}));
    ASSERT_TRUE(receiver.SendMessage(Disconnect{false, verdict}));
    receiver.FinishSending();

    ASSERT_TRUE(send.WaitExit(10s)) << send.Describe();
    EXPECT_EQ(send.ExitCode(), toInt(cli::ExitCode::kVerifyMismatch)) << send.Describe();
    EXPECT_NE(send.Stderr().find("xferfm: the receiver's " + verdict), std::string::npos) << send.Describe();
}

}  // namespace
}  // namespace orin::xfer::test
