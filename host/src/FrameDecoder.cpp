#include <algorithm>
#include <cstdio>
#include <cstring>

#include "WireFields.h"
#include "xferfm/host/FrameCodec.h"

namespace orin::xfer::host {
namespace {

using namespace wire;

constexpr size_t kHelloPayloadBytes = sizeof(kWireMagic) + 4;

std::string Hex(uint8_t value)
{
    char text[8];
    std::snprintf(text, sizeof text, "0x%02x", value);
    return text;
}

// Exact payload size of the fixed-size frame types, or -1 for the others.
long FixedPayloadBytes(FrameType type)
{
    switch (type) {
    case FrameType::kHello: return static_cast<long>(kHelloPayloadBytes);
    case FrameType::kKeepalive: return 0;
    case FrameType::kFileListRequest: return 4;
    case FrameType::kFileAccept: return 4;
    case FrameType::kDataAck: return 12;
    case FrameType::kEndOfList: return 0;
    case FrameType::kOfferOptions: return 2;
    default: return -1;
    }
}

bool IsKnownType(uint8_t type) { return std::strcmp(FrameTypeName(type), "unknown") != 0; }

}  // namespace

bool FrameDecoder::Fail(std::string error)
{
    if (mError.empty()) {
        mError = std::move(error);
    }
    mPayload.clear();
    mPayload.shrink_to_fit();
    return false;
}

bool FrameDecoder::Feed(const uint8_t* data, size_t size, std::vector<Message>& out)
{
    if (Failed()) {
        return false;
    }
    while (size > 0) {
        if (mHeaderFill < kFrameHeaderBytes) {
            const size_t take = std::min(size, kFrameHeaderBytes - mHeaderFill);
            std::memcpy(mHeader + mHeaderFill, data, take);
            mHeaderFill += take;
            data += take;
            size -= take;
            if (mHeaderFill < kFrameHeaderBytes) {
                break;
            }
            if (!AcceptHeader()) {
                return false;
            }
            if (mPayloadLength == 0 && !CompleteFrame(out)) {
                return false;
            }
            continue;
        }
        const size_t take = std::min(size, mPayloadLength - mPayload.size());
        if (mPayload.size() + take > mPayload.capacity()) {
            // Geometric growth, but never past the announced length (and so
            // never past the type's limit): at most twice what has arrived.
            mPayload.reserve(std::min(mPayloadLength, std::max(mPayload.size() * 2, mPayload.size() + take)));
        }
        mPayload.append(reinterpret_cast<const char*>(data), take);
        data += take;
        size -= take;
        if (mPayload.size() == mPayloadLength && !CompleteFrame(out)) {
            return false;
        }
    }
    return true;
}

bool FrameDecoder::Finish()
{
    if (Failed()) {
        return false;
    }
    if (mHeaderFill > 0) {
        if (mHeaderFill < kFrameHeaderBytes) {
            return Fail("the stream ended inside a frame header (" + std::to_string(mHeaderFill) + " of " +
                        std::to_string(kFrameHeaderBytes) + " bytes)");
        }
        return Fail(std::string("the stream ended inside a ") + FrameTypeName(mType) + " frame (" +
                    std::to_string(mPayload.size()) + " of " + std::to_string(mPayloadLength) +
                    " payload bytes arrived)");
    }
    if (!mHelloReceived) {
        return Fail("the stream ended before the hello frame");
    }
    return true;
}

bool FrameDecoder::AcceptHeader()
{
    mType = mHeader[0];
    const size_t announced = GetU32At(mHeader + 1);
    if (!mHelloReceived && mType != static_cast<uint8_t>(FrameType::kHello)) {
        return Fail("the peer did not open with a hello frame (first byte " + Hex(mType) +
                    "): not an xferfm link");
    }
    if (mHelloReceived && mType == static_cast<uint8_t>(FrameType::kHello)) {
        return Fail("a second hello frame");
    }
    if (!IsKnownType(mType)) {
        return Fail("unknown frame type " + Hex(mType));
    }

    const auto type = static_cast<FrameType>(mType);
    const long fixed = FixedPayloadBytes(type);
    size_t limit = mLimits.maxControlPayloadBytes;
    if (type == FrameType::kFileList) {
        limit = 4 + mLimits.maxFileListJsonBytes;
    } else if (type == FrameType::kFileData) {
        limit = 8 + mLimits.maxDataBytes;
    }
    if (fixed >= 0 && announced != static_cast<size_t>(fixed)) {
        return Fail(std::string("a ") + FrameTypeName(mType) + " frame must carry " + std::to_string(fixed) +
                    " payload bytes, not " + std::to_string(announced));
    }
    if (announced > limit) {
        return Fail(std::string("a ") + FrameTypeName(mType) + " frame announces " + std::to_string(announced) +
                    " payload bytes, more than the limit of " + std::to_string(limit));
    }
    mPayloadLength = announced;
    mPayload.clear();
    return true;
}

bool FrameDecoder::CompleteFrame(std::vector<Message>& out)
{
    const auto type = static_cast<FrameType>(mType);
    PayloadReader reader(mPayload, FrameTypeName(mType));
    Message message;
    bool deliver = true;

    switch (type) {
    case FrameType::kHello: {
        if (std::memcmp(mPayload.data(), kWireMagic, sizeof(kWireMagic)) != 0) {
            return Fail("bad magic in the hello frame: not an xferfm link");
        }
        reader.Skip(sizeof(kWireMagic));
        uint32_t version = 0;
        reader.U32(version, "version");
        if (version != kWireVersion) {
            return Fail("the peer speaks link protocol version " + std::to_string(version) + ", this end speaks " +
                        std::to_string(kWireVersion));
        }
        mHelloReceived = true;
        mPeerVersion = version;
        deliver = false;
        break;
    }
    case FrameType::kKeepalive:
        deliver = false;
        break;
    case FrameType::kFileListRequest: {
        FileListRequest body;
        reader.U32(body.protocolVersion, "protocolVersion");
        message = body;
        break;
    }
    case FrameType::kFileList: {
        size_t length = 0;
        if (reader.RunLength(length, "json") && reader.Position() + length == mPayload.size()) {
            FileListMessage body;
            mPayload.erase(0, reader.Position());  // the JSON moves out without a second buffer
            body.json = std::move(mPayload);
            mPayload = std::string();
            message = std::move(body);
            ++mFramesDecoded;
            mHeaderFill = 0;
            out.push_back(std::move(message));
            return true;
        }
        reader.Skip(length);
        break;
    }
    case FrameType::kNextFileRequest: {
        NextFileRequest body;
        reader.U32(body.taskId, "taskId");
        reader.U64(body.index, "index");
        reader.String(body.name, "name");
        reader.U64(body.totalSize, "totalSize");
        message = std::move(body);
        break;
    }
    case FrameType::kFileStart: {
        FileStart body;
        reader.U32(body.taskId, "taskId");
        reader.U32(body.transferId, "transferId");
        reader.String(body.name, "name");
        reader.Bool(body.isDirectory, "isDirectory");
        reader.U64(body.fileSize, "fileSize");
        reader.U64(body.totalSize, "totalSize");
        reader.U32(body.ackWindow, "ackWindow");
        message = std::move(body);
        break;
    }
    case FrameType::kFileAccept: {
        FileAccept body;
        reader.U32(body.transferId, "transferId");
        message = body;
        break;
    }
    case FrameType::kFileData: {
        FileData body;
        reader.U32(body.transferId, "transferId");
        reader.Bytes(body.bytes, "bytes");
        message = std::move(body);
        break;
    }
    case FrameType::kDataAck: {
        DataAck body;
        reader.U32(body.transferId, "transferId");
        reader.U64(body.chunksWritten, "chunksWritten");
        message = body;
        break;
    }
    case FrameType::kTransferError: {
        TransferError body;
        reader.U32(body.taskId, "taskId");
        reader.U32(body.transferId, "transferId");
        reader.String(body.message, "message");
        message = std::move(body);
        break;
    }
    case FrameType::kEndOfList:
        message = EndOfList{};
        break;
    case FrameType::kEntryRefused: {
        EntryRefused body;
        reader.U64(body.index, "index");
        reader.String(body.reason, "reason");
        message = std::move(body);
        break;
    }
    case FrameType::kOfferOptions: {
        OfferOptions body;
        reader.Bool(body.dryRun, "dryRun");
        reader.Bool(body.resume, "resume");
        message = body;
        break;
    }
    case FrameType::kEntryLanding: {
        EntryLanding body;
        reader.String(body.name, "name");
        reader.String(body.landedAs, "landedAs");
        reader.Bool(body.resumed, "resumed");
        message = std::move(body);
        break;
    }
    case FrameType::kEntryComplete: {
        EntryComplete body;
        reader.String(body.name, "name");
        message = std::move(body);
        break;
    }
    case FrameType::kDisconnect: {
        Disconnect body;
        reader.Bool(body.completed, "completed");
        reader.String(body.reason, "reason");
        message = std::move(body);
        break;
    }
    }

    if (!reader.ExpectEnd()) {
        return Fail(reader.Error());
    }
    ++mFramesDecoded;
    mHeaderFill = 0;
    mPayload.clear();
    if (deliver) {
        out.push_back(std::move(message));
    }
    return true;
}

}  // namespace orin::xfer::host
