// The typed form of a goodbye: every Disconnect has one DisconnectReason,
// the goodbyes with a fixed meaning are built by the kit and read back as
// that meaning (also after a trip through the frame codec), and any other
// text is a plain failure.
#include <gtest/gtest.h>

#include <vector>

#include "xferfm/host/FrameCodec.h"
#include "xferfm/host/TransportMessages.h"

namespace orin::xfer::host {
namespace {

// The message as the peer's decoder hands it over.
Message OverTheWire(const Message& message)
{
    std::vector<uint8_t> bytes;
    std::string error;
    const FrameEncoder encoder;
    encoder.AppendHello(bytes);
    EXPECT_TRUE(encoder.Append(message, bytes, error)) << error;
    FrameDecoder decoder;
    std::vector<Message> out;
    EXPECT_TRUE(decoder.Feed(bytes.data(), bytes.size(), out)) << decoder.Error();
    EXPECT_EQ(out.size(), 1u);
    return out.empty() ? Message{} : out.front();
}

DisconnectReason ReasonAfterTheWire(const Disconnect& goodbye)
{
    return ReasonOf(std::get<Disconnect>(OverTheWire(goodbye)));
}

TEST(DisconnectReasonTest, APlainCompletedGoodbyeMeansCompleted)
{
    EXPECT_EQ(ReasonAfterTheWire(Disconnect{true, ""}), DisconnectReason::kCompleted);
}

TEST(DisconnectReasonTest, ACancelTravelsAsCancelled)
{
    EXPECT_EQ(ReasonAfterTheWire(CancelledDisconnect()), DisconnectReason::kCancelled);
    EXPECT_EQ(ReasonOf(Disconnect{false, "cancelled by the user"}), DisconnectReason::kFailed);
}

TEST(DisconnectReasonTest, ABusyReceiverSaysSoInWordsItsUserKnows)
{
    const Disconnect busy = BusyDisconnect("xferfm serve", 3);
    EXPECT_EQ(busy.reason, "xferfm serve is busy with another sender (session 3); try again when it is done");
    EXPECT_FALSE(busy.completed);
    EXPECT_EQ(ReasonAfterTheWire(busy), DisconnectReason::kBusy);
}

TEST(DisconnectReasonTest, AMatchingVerdictTravelsTyped)
{
    VerifyVerdict verdict;
    verdict.matched = true;
    verdict.filesCompared = 3;
    const Disconnect goodbye = VerdictDisconnect(verdict);
    EXPECT_TRUE(goodbye.completed);
    EXPECT_EQ(goodbye.reason, "verified 3 files: SHA-256 of every copy matches its source");
    const Disconnect heard = std::get<Disconnect>(OverTheWire(goodbye));
    EXPECT_EQ(ReasonOf(heard), DisconnectReason::kVerified);
    const std::optional<VerifyVerdict> read = VerdictOf(heard);
    ASSERT_TRUE(read.has_value());
    EXPECT_TRUE(read->matched);
    EXPECT_EQ(read->filesCompared, 3u);
}

TEST(DisconnectReasonTest, AFailedVerdictTravelsTypedInTheErrorAndTheGoodbye)
{
    VerifyVerdict verdict;
    verdict.filesCompared = 4;
    verdict.filesDiffering = 1;
    verdict.details = "'d/f.txt' has sha256 00, its source 11";
    EXPECT_EQ(verdict.Text(),
              "verify failed: 1 of 4 files differ from their source: 'd/f.txt' has sha256 00, its source 11");

    const Disconnect goodbye = std::get<Disconnect>(OverTheWire(VerdictDisconnect(verdict)));
    EXPECT_FALSE(goodbye.completed);
    EXPECT_EQ(ReasonOf(goodbye), DisconnectReason::kVerifyFailed);
    const TransferError error = std::get<TransferError>(OverTheWire(VerdictError(verdict)));
    for (const std::optional<VerifyVerdict>& read : {VerdictOf(goodbye), VerdictOf(error)}) {
        ASSERT_TRUE(read.has_value());
        EXPECT_FALSE(read->matched);
        EXPECT_EQ(read->filesCompared, 4u);
        EXPECT_EQ(read->filesDiffering, 1u);
        EXPECT_EQ(read->details, verdict.details);
    }
}

TEST(DisconnectReasonTest, OnlyTheWholeFixedFormCounts)
{
    EXPECT_EQ(ReasonOf(Disconnect{true, "verified many files"}), DisconnectReason::kCompleted);
    EXPECT_EQ(ReasonOf(Disconnect{false, "verified 3 files: SHA-256 of every copy matches its source"}),
              DisconnectReason::kFailed)
        << "a match is a completed copy";
    EXPECT_EQ(ReasonOf(Disconnect{false, "verify failed: some files differ"}), DisconnectReason::kFailed);
    EXPECT_EQ(ReasonOf(Disconnect{false, "is busy with another sender (session 1); try again when it is done"}),
              DisconnectReason::kFailed);
    EXPECT_EQ(ReasonOf(Disconnect{false, "x is busy with another sender (session one); try again when it is done"}),
              DisconnectReason::kFailed);
    EXPECT_FALSE(VerdictOf(TransferError{1, 3, "cannot write 'f.txt'"}).has_value());
}

}  // namespace
}  // namespace orin::xfer::host
