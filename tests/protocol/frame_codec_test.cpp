// The frame encoder and decoder: every message survives a round trip, fed
// whole or one byte at a time, and every kind of bad input is rejected
// with a clear error, without allocating what a hostile length announces.
#include <gtest/gtest.h>

#include <malloc.h>

#include <random>

#include "LinkTestSupport.h"

namespace orin::xfer::test {
namespace {

std::vector<uint8_t> Encode(const Message& message, const FrameLimits& limits = {})
{
    std::vector<uint8_t> frame;
    std::string error;
    EXPECT_TRUE(FrameEncoder(limits).Append(message, frame, error)) << error;
    return frame;
}

// A stream: the hello, then `frames` as they are.
std::vector<uint8_t> Stream(const std::vector<std::vector<uint8_t>>& frames)
{
    std::vector<uint8_t> stream = HelloFrame();
    for (const auto& frame : frames) {
        stream.insert(stream.end(), frame.begin(), frame.end());
    }
    return stream;
}

// Feeds `bytes` to a fresh decoder; the error is empty when it accepted them.
std::string DecodeError(const std::vector<uint8_t>& bytes, const FrameLimits& limits = {})
{
    FrameDecoder decoder(limits);
    std::vector<Message> messages;
    const bool fed = decoder.Feed(bytes.data(), bytes.size(), messages);
    EXPECT_EQ(fed, !decoder.Failed());
    return decoder.Error();
}

std::vector<Message> SampleMessages()
{
    std::vector<uint8_t> chunk(65536);
    for (size_t index = 0; index < chunk.size(); ++index) {
        chunk[index] = static_cast<uint8_t>(index * 7 + 3);
    }
    return {
        FileListRequest{},
        FileListRequest{42},
        FileListMessage{R"({"fileList":[{"fileName":"a.txt"}],"root":"/r"})"},
        FileListMessage{""},
        NextFileRequest{7, 0xFFFFFFFFFFFFFFFFull, "dir/sub/\xC3\xA9t\xC3\xA9.txt", 123456789012ull},
        NextFileRequest{},
        FileStart{9, 3, "dir/b.bin", false, 1ull << 40, 1ull << 41, 50},
        FileStart{1, 5, "dir", true, 0, 0, 0},
        FileAccept{3},
        FileData{3, chunk},
        FileData{5, {}},
        DataAck{3, 0xFFFFFFFFFFFFFFFFull},
        TransferError{4, 3, "cannot read /src/a: Permission denied"},
        TransferError{},
        EndOfList{},
        EntryRefused{2, "refused remote name \"a\\\\b\": it contains a backslash"},
        EntryRefused{},
        Disconnect{true, ""},
        Disconnect{false, "cancelled by the user"},
        OfferOptions{true, false},
        OfferOptions{false, true},
        EntryLanding{"photos", "photos(1)", false},
        EntryLanding{"tree", "tree(1)", true},
        EntryComplete{"tree/sub/b.bin"},
    };
}

TEST(FrameCodecTest, EveryMessageSurvivesARoundTrip)
{
    const std::vector<Message> sent = SampleMessages();
    std::vector<std::vector<uint8_t>> frames;
    for (const Message& message : sent) {
        frames.push_back(Encode(message));
    }
    const std::vector<uint8_t> stream = Stream(frames);

    FrameDecoder decoder;
    std::vector<Message> received;
    ASSERT_TRUE(decoder.Feed(stream.data(), stream.size(), received)) << decoder.Error();
    EXPECT_TRUE(decoder.Finish()) << decoder.Error();
    EXPECT_TRUE(decoder.HelloReceived());
    EXPECT_EQ(decoder.PeerVersion(), kWireVersion);
    EXPECT_EQ(received, sent);
}

TEST(FrameCodecTest, BytesFedOneAtATimeGiveTheSameMessages)
{
    const std::vector<Message> sent = SampleMessages();
    std::vector<std::vector<uint8_t>> frames;
    for (const Message& message : sent) {
        frames.push_back(Encode(message));
    }
    const std::vector<uint8_t> stream = Stream(frames);

    FrameDecoder decoder;
    std::vector<Message> received;
    for (const uint8_t byte : stream) {
        ASSERT_TRUE(decoder.Feed(&byte, 1, received)) << decoder.Error();
    }
    EXPECT_TRUE(decoder.Finish());
    EXPECT_EQ(received, sent);
}

TEST(FrameCodecTest, FieldsAreLittleEndianWithLengthPrefixedStrings)
{
    const std::vector<uint8_t> frame = Encode(NextFileRequest{0x01020304, 0x1122334455667788ull, "ab", 5});
    const std::vector<uint8_t> expected = {
        0x12, 26, 0, 0, 0,                                // type, payload length
        0x04, 0x03, 0x02, 0x01,                           // taskId
        0x88, 0x77, 0x66, 0x55, 0x44, 0x33, 0x22, 0x11,   // index
        2, 0, 0, 0, 'a', 'b',                             // name
        5, 0, 0, 0, 0, 0, 0, 0,                           // totalSize
    };
    EXPECT_EQ(frame, expected);
}

TEST(FrameCodecTest, HelloCarriesMagicAndVersion)
{
    std::vector<uint8_t> hello;
    FrameEncoder().AppendHello(hello);
    EXPECT_EQ(hello, (std::vector<uint8_t>{0x01, 8, 0, 0, 0, 'X', 'F', 'F', 'M', 3, 0, 0, 0}));
    EXPECT_EQ(kWireVersion, kProtocolVersion) << "the hello carries the message protocol's version";
}

TEST(FrameCodecTest, EntryRefusedCarriesTheIndexAndTheReason)
{
    const std::vector<uint8_t> frame = Encode(EntryRefused{0x0102030405060708ull, "no"});
    const std::vector<uint8_t> expected = {
        0x1A, 14, 0, 0, 0,                                // type, payload length
        0x08, 0x07, 0x06, 0x05, 0x04, 0x03, 0x02, 0x01,   // index
        2, 0, 0, 0, 'n', 'o',                             // reason
    };
    EXPECT_EQ(frame, expected);
}

TEST(FrameCodecTest, OfferOptionsAreTwoBoolsAndNothingElse)
{
    EXPECT_EQ(Encode(OfferOptions{true, true}), (std::vector<uint8_t>{0x1B, 2, 0, 0, 0, 1, 1}));
    const std::vector<uint8_t> tooLong = {0x1B, 3, 0, 0, 0, 1, 1, 0};
    EXPECT_FALSE(DecodeError(Stream({tooLong})).empty());
    const std::vector<uint8_t> notABool = {0x1B, 2, 0, 0, 0, 2, 0};
    EXPECT_FALSE(DecodeError(Stream({notABool})).empty());
}

TEST(FrameCodecTest, KeepalivesAreConsumedSilently)
{
    std::vector<uint8_t> keepalive;
    FrameEncoder().AppendKeepalive(keepalive);
    const std::vector<uint8_t> stream = Stream({keepalive, Encode(EndOfList{}), keepalive});
    FrameDecoder decoder;
    std::vector<Message> received;
    ASSERT_TRUE(decoder.Feed(stream.data(), stream.size(), received));
    EXPECT_EQ(received, std::vector<Message>{EndOfList{}});
    EXPECT_EQ(decoder.FramesDecoded(), 4u);
}

TEST(FrameCodecTest, AStreamMustOpenWithAHello)
{
    const std::vector<uint8_t> bytes = Encode(EndOfList{});
    EXPECT_NE(DecodeError(bytes).find("did not open with a hello frame (first byte 0x18)"), std::string::npos)
        << DecodeError(bytes);

    const std::string text = "GET / HTTP/1.1\r\n\r\n";
    EXPECT_NE(DecodeError(std::vector<uint8_t>(text.begin(), text.end())).find("not an xferfm link"),
              std::string::npos);
}

TEST(FrameCodecTest, BadMagicIsRejected)
{
    EXPECT_NE(DecodeError(HelloFrame(kWireVersion, "HTTP")).find("bad magic"), std::string::npos);
}

TEST(FrameCodecTest, OtherVersionIsRejected)
{
    const std::string error = DecodeError(HelloFrame(1));
    EXPECT_NE(error.find("version 1, this end speaks 3"), std::string::npos) << error;
}

TEST(FrameCodecTest, SecondHelloIsRejected)
{
    EXPECT_NE(DecodeError(Stream({HelloFrame()})).find("second hello"), std::string::npos);
}

TEST(FrameCodecTest, UnknownTypeIsRejected)
{
    const std::string error = DecodeError(Stream({FrameHeader(0x7F, 0)}));
    EXPECT_NE(error.find("unknown frame type 0x7f"), std::string::npos) << error;
    EXPECT_NE(DecodeError(Stream({FrameHeader(0x00, 0)})).find("unknown frame type 0x00"), std::string::npos);
}

TEST(FrameCodecTest, DataFrameOverTheLimitIsRejectedFromItsHeader)
{
    // 8 bytes of fields + 64 KiB is the most a data frame may carry.
    EXPECT_EQ(DecodeError(Stream({FrameHeader(0x15, 8 + 65536)})), "");
    const std::string error = DecodeError(Stream({FrameHeader(0x15, 8 + 65537)}));
    EXPECT_NE(error.find("file-data frame announces 65545 payload bytes, more than the limit of 65544"),
              std::string::npos)
        << error;
}

TEST(FrameCodecTest, DataPieceAnnouncingMoreThanItsFrameIsRejected)
{
    std::vector<uint8_t> frame = FrameHeader(0x15, 8 + 10);
    AppendU32(frame, 3);
    AppendU32(frame, 11);  // one more byte than the frame holds
    frame.resize(frame.size() + 10, 0xAB);
    const std::string error = DecodeError(Stream({frame}));
    EXPECT_NE(error.find("field bytes of a file-data frame announces 11 bytes but only 10 are left"),
              std::string::npos)
        << error;
}

TEST(FrameCodecTest, FileListOverItsCapIsRejected)
{
    FrameLimits limits;
    limits.maxFileListJsonBytes = 1000;
    EXPECT_EQ(DecodeError(Stream({FrameHeader(0x11, 4 + 1000)}), limits), "");
    const std::string error = DecodeError(Stream({FrameHeader(0x11, 4 + 1001)}), limits);
    EXPECT_NE(error.find("file-list frame announces 1005 payload bytes, more than the limit of 1004"),
              std::string::npos)
        << error;

    std::vector<uint8_t> frame;
    std::string encodeError;
    EXPECT_FALSE(FrameEncoder(limits).Append(FileListMessage{std::string(1001, ' ')}, frame, encodeError));
    EXPECT_TRUE(frame.empty());
    EXPECT_NE(encodeError.find("1001 bytes of JSON"), std::string::npos) << encodeError;
}

TEST(FrameCodecTest, DefaultFileListCapMatchesTheListParser)
{
    EXPECT_EQ(FrameLimits{}.maxFileListJsonBytes, FileListLimits{}.maxJsonBytes);
    EXPECT_EQ(FrameLimits{}.maxFileListJsonBytes, 256u << 20);
}

TEST(FrameCodecTest, AnnouncedLengthIsNotAllocatedBeforeTheBytesArrive)
{
    // A file list announcing the full 256 MiB, of which 1 MiB arrives.
    std::vector<uint8_t> start = Stream({FrameHeader(0x11, 4 + (256u << 20))});
    AppendU32(start, 256u << 20);
    const std::vector<uint8_t> piece(64u << 10, ' ');

    FrameDecoder decoder;
    std::vector<Message> messages;
    // Heap in use, counting the blocks malloc maps on their own.
    const auto heapInUse = [] {
        const struct mallinfo2 info = mallinfo2();
        return info.uordblks + info.hblkhd;
    };
    const size_t inUseBefore = heapInUse();
    bool fed = decoder.Feed(start.data(), start.size(), messages);
    for (int index = 0; index < 16 && fed; ++index) {
        fed = decoder.Feed(piece.data(), piece.size(), messages);
    }
    const size_t inUseAfter = heapInUse();
    ASSERT_TRUE(fed) << decoder.Error();
    // 1 MiB arrived; the buffer may have doubled past it, but no more.
    EXPECT_LT(inUseAfter - inUseBefore, 4u << 20) << "buffers must grow with the bytes, not the announcement";

    EXPECT_FALSE(decoder.Finish());
    EXPECT_NE(decoder.Error().find("ended inside a file-list frame (1048580 of 268435460 payload bytes arrived)"),
              std::string::npos)
        << decoder.Error();
}

TEST(FrameCodecTest, ControlFrameOverTheLimitIsRejected)
{
    const std::string error = DecodeError(Stream({FrameHeader(0x12, (64u << 10) + 1)}));
    EXPECT_NE(error.find("next-file-request frame announces 65537 payload bytes"), std::string::npos) << error;

    std::vector<uint8_t> frame;
    std::string encodeError;
    EXPECT_FALSE(FrameEncoder().Append(NextFileRequest{1, 0, std::string(70000, 'a'), 0}, frame, encodeError));
    EXPECT_TRUE(frame.empty());
    EXPECT_NE(encodeError.find("control frame"), std::string::npos) << encodeError;
}

TEST(FrameCodecTest, FixedSizeFramesMustHaveTheirSize)
{
    EXPECT_NE(DecodeError(Stream({FrameHeader(0x14, 5)})).find("file-accept frame must carry 4 payload bytes, not 5"),
              std::string::npos);
    EXPECT_NE(DecodeError(Stream({FrameHeader(0x16, 8)})).find("data-ack frame must carry 12"), std::string::npos);
    EXPECT_NE(DecodeError(Stream({FrameHeader(0x18, 1)})).find("end-of-list frame must carry 0"), std::string::npos);
    EXPECT_NE(DecodeError({0x01, 9, 0, 0, 0}).find("hello frame must carry 8"), std::string::npos);
}

TEST(FrameCodecTest, FieldThatDoesNotFitItsFrameIsRejected)
{
    std::vector<uint8_t> frame = FrameHeader(0x13, 6);  // file-start: taskId, then half a transferId
    AppendU32(frame, 1);
    frame.push_back(0);
    frame.push_back(0);
    const std::string error = DecodeError(Stream({frame}));
    EXPECT_NE(error.find("field transferId does not fit in its file-start frame (2 bytes left, 4 needed)"),
              std::string::npos)
        << error;
}

TEST(FrameCodecTest, StringLongerThanItsFrameIsRejected)
{
    std::vector<uint8_t> frame = FrameHeader(0x17, 4 + 4 + 4 + 3);
    AppendU32(frame, 1);
    AppendU32(frame, 3);
    AppendU32(frame, 0xFFFFFFFF);  // a hostile length
    frame.insert(frame.end(), {'a', 'b', 'c'});
    const std::string error = DecodeError(Stream({frame}));
    EXPECT_NE(error.find("field message of a transfer-error frame announces 4294967295 bytes but only 3"),
              std::string::npos)
        << error;
}

TEST(FrameCodecTest, TrailingBytesAfterTheLastFieldAreRejected)
{
    std::vector<uint8_t> frame = FrameHeader(0x19, 1 + 4 + 2);
    frame.push_back(1);
    AppendU32(frame, 0);
    frame.insert(frame.end(), {'x', 'y'});
    const std::string error = DecodeError(Stream({frame}));
    EXPECT_NE(error.find("2 unexpected bytes after the last field of a disconnect frame"), std::string::npos)
        << error;
}

TEST(FrameCodecTest, BooleanMustBeZeroOrOne)
{
    std::vector<uint8_t> frame = FrameHeader(0x19, 5);
    frame.push_back(2);
    AppendU32(frame, 0);
    const std::string error = DecodeError(Stream({frame}));
    EXPECT_NE(error.find("field completed of a disconnect frame holds 2, expected 0 or 1"), std::string::npos)
        << error;
}

TEST(FrameCodecTest, StreamCutInsideAFrameIsReportedAtTheEnd)
{
    std::vector<uint8_t> data = Encode(FileData{3, std::vector<uint8_t>(100, 1)});
    data.resize(50);
    FrameDecoder decoder;
    std::vector<Message> messages;
    const std::vector<uint8_t> stream = Stream({data});
    ASSERT_TRUE(decoder.Feed(stream.data(), stream.size(), messages));
    EXPECT_FALSE(decoder.Finish());
    EXPECT_NE(decoder.Error().find("ended inside a file-data frame (45 of 108 payload bytes arrived)"),
              std::string::npos)
        << decoder.Error();

    FrameDecoder headerCut;
    const std::vector<uint8_t> partialHeader = {0x01, 8};
    ASSERT_TRUE(headerCut.Feed(partialHeader.data(), partialHeader.size(), messages));
    EXPECT_FALSE(headerCut.Finish());
    EXPECT_NE(headerCut.Error().find("inside a frame header (2 of 5 bytes)"), std::string::npos);
}

TEST(FrameCodecTest, StreamEndingBeforeTheHelloIsAnError)
{
    FrameDecoder decoder;
    EXPECT_FALSE(decoder.Finish());
    EXPECT_NE(decoder.Error().find("before the hello"), std::string::npos);
}

TEST(FrameCodecTest, MessagesBeforeABadFrameAreKeptAndLaterFeedsFail)
{
    const std::vector<uint8_t> stream = Stream({Encode(FileAccept{3}), FrameHeader(0x99, 0)});
    FrameDecoder decoder;
    std::vector<Message> messages;
    EXPECT_FALSE(decoder.Feed(stream.data(), stream.size(), messages));
    EXPECT_EQ(messages, std::vector<Message>{FileAccept{3}});

    const std::vector<uint8_t> good = Encode(EndOfList{});
    EXPECT_FALSE(decoder.Feed(good.data(), good.size(), messages));
    EXPECT_EQ(messages.size(), 1u);
    EXPECT_FALSE(decoder.Finish());
}

TEST(FrameCodecTest, DataPieceOverAChunkIsRefusedByTheEncoder)
{
    std::vector<uint8_t> frame;
    std::string error;
    EXPECT_FALSE(FrameEncoder().Append(FileData{3, std::vector<uint8_t>(65537)}, frame, error));
    EXPECT_NE(error.find("65537 bytes"), std::string::npos) << error;
}

TEST(FrameCodecTest, LongFreeTextIsShortenedOnAUtf8Boundary)
{
    std::string text;
    while (text.size() < 100000) {
        text += "\xE2\x82\xAC";  // a three-byte character
    }
    const std::vector<uint8_t> stream = Stream(
        {Encode(TransferError{1, 3, text}), Encode(Disconnect{false, text}), Encode(EntryRefused{4, text})});
    FrameDecoder decoder;
    std::vector<Message> messages;
    ASSERT_TRUE(decoder.Feed(stream.data(), stream.size(), messages)) << decoder.Error();
    ASSERT_EQ(messages.size(), 3u);
    const std::string& shortened = std::get<TransferError>(messages[0]).message;
    EXPECT_LT(shortened.size(), text.size());
    EXPECT_EQ(shortened.size() % 3, 0u);
    EXPECT_EQ(shortened, text.substr(0, shortened.size()));
    EXPECT_EQ(std::get<Disconnect>(messages[1]).reason.size() % 3, 0u);
    const std::string& refusal = std::get<EntryRefused>(messages[2]).reason;
    EXPECT_LT(refusal.size(), text.size());
    EXPECT_EQ(refusal, text.substr(0, refusal.size()));
}

TEST(FrameCodecTest, MutatedStreamsEndInMessagesOrAnErrorNeverACrash)
{
    std::vector<std::vector<uint8_t>> frames;
    for (const Message& message : SampleMessages()) {
        frames.push_back(Encode(message));
    }
    const std::vector<uint8_t> valid = Stream(frames);
    std::mt19937 random(20261121);  // fixed: a failure replays
    for (int round = 0; round < 3000; ++round) {
        std::vector<uint8_t> bytes = valid;
        const int flips = 1 + static_cast<int>(random() % 8);
        for (int flip = 0; flip < flips; ++flip) {
            bytes[random() % bytes.size()] ^= static_cast<uint8_t>(1u << (random() % 8));
        }
        bytes.resize(random() % (bytes.size() + 1));
        FrameDecoder decoder;
        std::vector<Message> messages;
        size_t at = 0;
        bool fed = true;
        while (fed && at < bytes.size()) {
            const size_t piece = std::min<size_t>(bytes.size() - at, 1 + random() % 70000);
            fed = decoder.Feed(bytes.data() + at, piece, messages);
            at += piece;
        }
        const bool finished = fed && decoder.Finish();
        ASSERT_EQ(finished, !decoder.Failed()) << "round " << round;
        if (!finished) {
            ASSERT_FALSE(decoder.Error().empty()) << "round " << round;
        }
        ASSERT_LE(messages.size(), bytes.size() / kFrameHeaderBytes) << "every message costs at least a header";
    }
}

}  // namespace
}  // namespace orin::xfer::test
