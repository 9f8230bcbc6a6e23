#include <limits>
#include <type_traits>

#include "WireFields.h"
#include "xferfm/host/FrameCodec.h"

namespace orin::xfer::host {
namespace {

using namespace wire;

// Fixed bytes of the control frames that carry free text, so the text can
// be shortened to what is left of the control payload limit.
constexpr size_t kTransferErrorFixedBytes = 4 + 4 + 4;
constexpr size_t kDisconnectFixedBytes = 1 + 4;
constexpr size_t kEntryRefusedFixedBytes = 8 + 4;

// Cuts `text` to at most `maxBytes`, never inside a UTF-8 sequence.
std::string ShortenText(const std::string& text, size_t maxBytes)
{
    if (text.size() <= maxBytes) {
        return text;
    }
    size_t cut = maxBytes;
    while (cut > 0 && (static_cast<uint8_t>(text[cut]) & 0xC0) == 0x80) {
        --cut;
    }
    return text.substr(0, cut);
}

size_t RoomFor(size_t limit, size_t fixedBytes) { return limit > fixedBytes ? limit - fixedBytes : 0; }

void BeginFrame(std::vector<uint8_t>& out, FrameType type)
{
    PutU8(out, static_cast<uint8_t>(type));
    PutU32(out, 0);  // patched by EndFrame
}

void EndFrame(std::vector<uint8_t>& out, size_t frameStart)
{
    const size_t payload = out.size() - frameStart - kFrameHeaderBytes;
    for (int index = 0; index < 4; ++index) {
        out[frameStart + 1 + index] = static_cast<uint8_t>(payload >> (8 * index));
    }
}

}  // namespace

const char* FrameTypeName(uint8_t type)
{
    switch (static_cast<FrameType>(type)) {
    case FrameType::kHello: return "hello";
    case FrameType::kKeepalive: return "keepalive";
    case FrameType::kFileListRequest: return "file-list-request";
    case FrameType::kFileList: return "file-list";
    case FrameType::kNextFileRequest: return "next-file-request";
    case FrameType::kFileStart: return "file-start";
    case FrameType::kFileAccept: return "file-accept";
    case FrameType::kFileData: return "file-data";
    case FrameType::kDataAck: return "data-ack";
    case FrameType::kTransferError: return "transfer-error";
    case FrameType::kEndOfList: return "end-of-list";
    case FrameType::kDisconnect: return "disconnect";
    case FrameType::kEntryRefused: return "entry-refused";
    case FrameType::kOfferOptions: return "offer-options";
    case FrameType::kEntryLanding: return "entry-landing";
    case FrameType::kEntryComplete: return "entry-complete";
    }
    return "unknown";
}

void FrameEncoder::AppendHello(std::vector<uint8_t>& out) const
{
    const size_t start = out.size();
    BeginFrame(out, FrameType::kHello);
    out.insert(out.end(), std::begin(kWireMagic), std::end(kWireMagic));
    PutU32(out, kWireVersion);
    EndFrame(out, start);
}

void FrameEncoder::AppendKeepalive(std::vector<uint8_t>& out) const
{
    const size_t start = out.size();
    BeginFrame(out, FrameType::kKeepalive);
    EndFrame(out, start);
}

bool FrameEncoder::Append(const Message& message, std::vector<uint8_t>& out, std::string& error) const
{
    const size_t start = out.size();
    const size_t controlLimit = mLimits.maxControlPayloadBytes;
    auto refuse = [&](std::string why) {
        out.resize(start);
        error = std::move(why);
        return false;
    };

    const bool encoded = std::visit(
        [&](const auto& body) -> bool {
            using T = std::decay_t<decltype(body)>;
            if constexpr (std::is_same_v<T, FileListRequest>) {
                BeginFrame(out, FrameType::kFileListRequest);
                PutU32(out, body.protocolVersion);
            } else if constexpr (std::is_same_v<T, FileListMessage>) {
                if (body.json.size() > mLimits.maxFileListJsonBytes ||
                    body.json.size() > std::numeric_limits<uint32_t>::max() - 4) {
                    return refuse("the file list is " + std::to_string(body.json.size()) +
                                  " bytes of JSON, more than the " + std::to_string(mLimits.maxFileListJsonBytes) +
                                  " a file-list frame may carry");
                }
                BeginFrame(out, FrameType::kFileList);
                PutString(out, body.json);
            } else if constexpr (std::is_same_v<T, NextFileRequest>) {
                BeginFrame(out, FrameType::kNextFileRequest);
                PutU32(out, body.taskId);
                PutU64(out, body.index);
                PutString(out, body.name);
                PutU64(out, body.totalSize);
            } else if constexpr (std::is_same_v<T, FileStart>) {
                BeginFrame(out, FrameType::kFileStart);
                PutU32(out, body.taskId);
                PutU32(out, body.transferId);
                PutString(out, body.name);
                PutU8(out, body.isDirectory ? 1 : 0);
                PutU64(out, body.fileSize);
                PutU64(out, body.totalSize);
                PutU32(out, body.ackWindow);
            } else if constexpr (std::is_same_v<T, FileAccept>) {
                BeginFrame(out, FrameType::kFileAccept);
                PutU32(out, body.transferId);
            } else if constexpr (std::is_same_v<T, FileData>) {
                if (body.bytes.size() > mLimits.maxDataBytes) {
                    return refuse("a data piece of " + std::to_string(body.bytes.size()) + " bytes is more than the " +
                                  std::to_string(mLimits.maxDataBytes) + " a file-data frame may carry");
                }
                BeginFrame(out, FrameType::kFileData);
                PutU32(out, body.transferId);
                PutBytes(out, body.bytes.data(), body.bytes.size());
            } else if constexpr (std::is_same_v<T, DataAck>) {
                BeginFrame(out, FrameType::kDataAck);
                PutU32(out, body.transferId);
                PutU64(out, body.chunksWritten);
            } else if constexpr (std::is_same_v<T, TransferError>) {
                BeginFrame(out, FrameType::kTransferError);
                PutU32(out, body.taskId);
                PutU32(out, body.transferId);
                PutString(out, ShortenText(body.message, RoomFor(controlLimit, kTransferErrorFixedBytes)));
            } else if constexpr (std::is_same_v<T, EndOfList>) {
                BeginFrame(out, FrameType::kEndOfList);
            } else if constexpr (std::is_same_v<T, EntryRefused>) {
                BeginFrame(out, FrameType::kEntryRefused);
                PutU64(out, body.index);
                PutString(out, ShortenText(body.reason, RoomFor(controlLimit, kEntryRefusedFixedBytes)));
            } else if constexpr (std::is_same_v<T, OfferOptions>) {
                BeginFrame(out, FrameType::kOfferOptions);
                PutU8(out, body.dryRun ? 1 : 0);
                PutU8(out, body.resume ? 1 : 0);
            } else if constexpr (std::is_same_v<T, EntryLanding>) {
                if (body.name.size() + body.landedAs.size() + 9 > controlLimit) {
                    return refuse("an entry-landing frame for names of " + std::to_string(body.name.size()) +
                                  " and " + std::to_string(body.landedAs.size()) + " bytes is beyond the limit");
                }
                BeginFrame(out, FrameType::kEntryLanding);
                PutString(out, body.name);
                PutString(out, body.landedAs);
                PutU8(out, body.resumed ? 1 : 0);
            } else if constexpr (std::is_same_v<T, EntryComplete>) {
                if (body.name.size() + 4 > controlLimit) {
                    return refuse("an entry-complete frame for a name of " + std::to_string(body.name.size()) +
                                  " bytes is beyond the limit");
                }
                BeginFrame(out, FrameType::kEntryComplete);
                PutString(out, body.name);
            } else if constexpr (std::is_same_v<T, Disconnect>) {
                BeginFrame(out, FrameType::kDisconnect);
                PutU8(out, body.completed ? 1 : 0);
                PutString(out, ShortenText(body.reason, RoomFor(controlLimit, kDisconnectFixedBytes)));
            }
            return true;
        },
        message);
    if (!encoded) {
        return false;
    }

    const uint8_t type = out[start];
    const size_t payload = out.size() - start - kFrameHeaderBytes;
    const bool bulk = type == static_cast<uint8_t>(FrameType::kFileList) ||
                      type == static_cast<uint8_t>(FrameType::kFileData);
    if (!bulk && payload > controlLimit) {
        return refuse(std::string("a ") + FrameTypeName(type) + " frame of " + std::to_string(payload) +
                      " bytes is more than the " + std::to_string(controlLimit) + " a control frame may carry");
    }
    EndFrame(out, start);
    return true;
}

}  // namespace orin::xfer::host
