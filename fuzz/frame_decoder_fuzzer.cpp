// The TCP frame decoder on arbitrary bytes (the only code that reads what
// the network sends). The first input byte picks whether a valid hello
// goes first (so the fuzzer reaches the frames behind it) and how the rest
// is cut into reads. Properties checked besides not crashing:
// - the cut does not matter: fed whole or in pieces, the same messages
//   come out and the stream fails or not alike;
// - a refusal always says why;
// - every decoded message encodes again, and decoding that gives back a
//   message with the same encoding.
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "FuzzSupport.h"
#include "xferfm/host/FrameCodec.h"

namespace {

using namespace orin::xfer::host;
using xferfm::fuzz::Violation;

// Small limits, so that every limit check is reachable by short inputs.
FrameLimits fuzzLimits()
{
    FrameLimits limits;
    limits.maxFileListJsonBytes = 4096;
    limits.maxDataBytes = 1024;
    limits.maxControlPayloadBytes = 512;
    return limits;
}

std::vector<uint8_t> helloBytes()
{
    std::vector<uint8_t> hello;
    FrameEncoder(fuzzLimits()).AppendHello(hello);
    return hello;
}

std::vector<uint8_t> encode(const Message& message)
{
    std::vector<uint8_t> bytes;
    std::string error;
    if (!FrameEncoder(fuzzLimits()).Append(message, bytes, error)) {
        Violation("a decoded message does not encode", std::string(MessageName(message)) + ": " + error);
    }
    return bytes;
}

struct Decoded {
    std::vector<Message> messages;
    bool failed = false;
    std::string error;
};

Decoded decode(const std::vector<uint8_t>& stream, uint8_t cutSeed)
{
    FrameDecoder decoder(fuzzLimits());
    Decoded result;
    size_t offset = 0;
    uint32_t state = cutSeed | 1u;
    while (offset < stream.size()) {
        size_t piece = stream.size() - offset;
        if (cutSeed != 0) {
            state = state * 1103515245u + 12345u;  // a fixed cut pattern per seed
            piece = std::min<size_t>(piece, 1 + (state >> 16) % 17);
        }
        const bool fed = decoder.Feed(stream.data() + offset, piece, result.messages);
        if (fed == decoder.Failed()) {
            Violation("Feed's answer disagrees with Failed()", decoder.Error());
        }
        offset += piece;
    }
    decoder.Finish();
    result.failed = decoder.Failed();
    result.error = decoder.Error();
    return result;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size == 0) {
        return 0;
    }
    const uint8_t mode = data[0];
    std::vector<uint8_t> stream;
    if ((mode & 1u) != 0) {
        stream = helloBytes();
    }
    stream.insert(stream.end(), data + 1, data + size);

    const Decoded whole = decode(stream, 0);
    const Decoded pieces = decode(stream, static_cast<uint8_t>(mode >> 1));
    if (whole.failed && whole.error.empty()) {
        Violation("a failed stream has no error message", "");
    }
    if (whole.failed != pieces.failed) {
        Violation("the cut of the stream changed whether it failed", whole.error + " / " + pieces.error);
    }
    if (whole.messages.size() != pieces.messages.size()) {
        Violation("the cut of the stream changed what was decoded",
                  std::to_string(whole.messages.size()) + " vs " + std::to_string(pieces.messages.size()));
    }
    for (size_t index = 0; index < whole.messages.size(); ++index) {
        const std::vector<uint8_t> first = encode(whole.messages[index]);
        if (encode(pieces.messages[index]) != first) {
            Violation("the cut of the stream changed a message", MessageName(whole.messages[index]));
        }
        std::vector<uint8_t> again = helloBytes();
        again.insert(again.end(), first.begin(), first.end());
        const Decoded round = decode(again, 0);
        if (round.failed || round.messages.size() != 1 || encode(round.messages[0]) != first) {
            Violation("a message does not survive a round trip", MessageName(whole.messages[index]) + round.error);
        }
    }
    return 0;
}
