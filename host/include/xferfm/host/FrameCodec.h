// The byte format of a transport link between two processes: a hello frame,
// then one typed frame per message. docs/protocol.md describes every field.
//
//   frame   = type (u8) | payload length (u32 LE) | payload
//   hello   = type 0x01, payload "XFFM" | version (u32 LE), first on the wire
//   strings and byte runs = length (u32 LE) | bytes
//
// The decoder is the only code that reads bytes from the network, so it
// trusts nothing: every length is checked against the frame type's limit
// before anything is kept, a payload buffer grows only with bytes that have
// actually arrived, and a bad frame ends decoding with an error message
// (never an exception, never an allocation beyond the limit).
//
// THREADING CONTRACT: FrameEncoder is immutable and safe from any thread.
// A FrameDecoder is used by one thread at a time (the link's reader).
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "xferfm/host/FileList.h"
#include "xferfm/host/TransportMessages.h"

namespace orin::xfer::host {

// The hello carries the message protocol's version: the frames are its
// byte form, so a new message or a changed meaning changes both.
constexpr uint32_t kWireVersion = kProtocolVersion;
constexpr uint8_t kWireMagic[4] = {'X', 'F', 'F', 'M'};
constexpr size_t kFrameHeaderBytes = 5;

enum class FrameType : uint8_t {
    kHello = 0x01,
    kKeepalive = 0x02,  // link liveness only; never handed to the endpoint
    kFileListRequest = 0x10,
    kFileList = 0x11,
    kNextFileRequest = 0x12,
    kFileStart = 0x13,
    kFileAccept = 0x14,
    kFileData = 0x15,
    kDataAck = 0x16,
    kTransferError = 0x17,
    kEndOfList = 0x18,
    kDisconnect = 0x19,
    kEntryRefused = 0x1A,
    kOfferOptions = 0x1B,
    kEntryLanding = 0x1C,
    kEntryComplete = 0x1D,
};

// A printable name of a frame type byte ("unknown" for others).
const char* FrameTypeName(uint8_t type);

struct FrameLimits {
    size_t maxFileListJsonBytes = FileListLimits{}.maxJsonBytes;  // 256 MiB
    size_t maxDataBytes = 64u << 10;                                // one engine chunk
    size_t maxControlPayloadBytes = 64u << 10;                      // every other frame
};

class FrameEncoder {
public:
    explicit FrameEncoder(FrameLimits limits = {}) : mLimits(limits) {}

    void AppendHello(std::vector<uint8_t>& out) const;
    void AppendKeepalive(std::vector<uint8_t>& out) const;

    // Appends the frame of `message`. False with `error` set (and `out`
    // unchanged) when a field is beyond the limits the peer accepts. Free
    // text (error messages, disconnect reasons) is shortened instead.
    bool Append(const Message& message, std::vector<uint8_t>& out, std::string& error) const;

private:
    FrameLimits mLimits;
};

class FrameDecoder {
public:
    explicit FrameDecoder(FrameLimits limits = {}) : mLimits(limits) {}

    // Consumes `size` bytes and appends every message they complete to
    // `out`. False once the stream is bad: Error() says why, and every
    // later call fails too. Messages completed before the bad frame are
    // still appended.
    bool Feed(const uint8_t* data, size_t size, std::vector<Message>& out);

    // The stream ended. False when it ended inside a frame or before the
    // hello.
    bool Finish();

    bool Failed() const { return !mError.empty(); }
    const std::string& Error() const { return mError; }
    bool HelloReceived() const { return mHelloReceived; }
    uint32_t PeerVersion() const { return mPeerVersion; }
    // Frames of any type completed so far (keepalives included).
    uint64_t FramesDecoded() const { return mFramesDecoded; }

private:
    bool AcceptHeader();
    bool CompleteFrame(std::vector<Message>& out);
    bool Fail(std::string error);

    FrameLimits mLimits;
    uint8_t mHeader[kFrameHeaderBytes] = {};
    size_t mHeaderFill = 0;
    uint8_t mType = 0;
    size_t mPayloadLength = 0;
    std::string mPayload;  // grows as payload bytes arrive
    bool mHelloReceived = false;
    uint32_t mPeerVersion = 0;
    uint64_t mFramesDecoded = 0;
    std::string mError;
};

}  // namespace orin::xfer::host
