#include "HostileSender.h"

#include <cstdio>
#include <utility>
#include <variant>

namespace orin::xfer::test {

using namespace orin::xfer::host;

namespace {

std::string jsonString(const std::string& text)
{
    std::string out = "\"";
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (c == '"' || c == '\\') {
            out += '\\';
            out += c;
        } else if (byte < 0x20) {
            char escaped[8];
            std::snprintf(escaped, sizeof escaped, "\\u%04x", byte);
            out += escaped;
        } else {
            out += c;
        }
    }
    return out + "\"";
}

}  // namespace

std::string CraftedListJson(const std::vector<CraftedEntry>& entries)
{
    std::string json = "{\"fileList\":[";
    for (size_t index = 0; index < entries.size(); ++index) {
        const auto& entry = entries[index];
        json += index == 0 ? "" : ",";
        json += "{\"filePath\":" + jsonString(entry.filePath) + ",\"fileName\":" + jsonString(entry.fileName) +
                ",\"attribute\":" + (entry.isDirectory ? "16" : "128") + ",\"mode\":420,\"fileSize\":" +
                std::to_string(entry.isDirectory ? 0 : HostileSender::kFileBytes) + "}";
    }
    return json + "],\"root\":\"/hostile\"}";
}

HostileSender::HostileSender(std::vector<CraftedEntry> entries, std::string announceInstead)
    : mEntries(std::move(entries)), mAnnounceInstead(std::move(announceInstead))
{
}

void HostileSender::OnMessage(Message message)
{
    if (std::holds_alternative<FileListRequest>(message)) {
        mLink->Send(FileListMessage{CraftedListJson(mEntries)});
    } else if (const auto* request = std::get_if<NextFileRequest>(&message)) {
        if (request->index >= mEntries.size()) {
            mLink->Send(EndOfList{});
            return;
        }
        const CraftedEntry& entry = mEntries[request->index];
        FileStart start;
        start.taskId = request->taskId;
        start.transferId = 3 + 2 * static_cast<uint32_t>(request->index);
        start.name = mAnnounceInstead.empty() ? request->name : mAnnounceInstead;
        start.isDirectory = entry.isDirectory;
        start.fileSize = entry.isDirectory ? 0 : kFileBytes;
        start.totalSize = request->totalSize;
        start.ackWindow = 50;
        mLink->Send(start);
    } else if (const auto* accept = std::get_if<FileAccept>(&message)) {
        mLink->Send(FileData{accept->transferId, std::vector<uint8_t>(kFileBytes, 'x')});
    }
}

void HostileSender::OnTransportClosed(const std::string&)
{
    mClosed = true;
}

}  // namespace orin::xfer::test
