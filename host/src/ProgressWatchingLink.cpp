#include "ProgressWatchingLink.h"

namespace orin::xfer::host {

ProgressWatchingLink::ProgressWatchingLink(std::unique_ptr<ITransport> inner, std::function<void()> onProgress)
    : ForwardingTransport(std::move(inner)), mOnProgress(std::move(onProgress))
{
}

// The inner transport goes first: its deliveries use this object's members.
ProgressWatchingLink::~ProgressWatchingLink() { ReleaseInner(); }

bool ProgressWatchingLink::Send(Message message)
{
    if (const auto* start = std::get_if<FileStart>(&message)) {
        std::lock_guard<std::mutex> lock(mMutex);
        mSending = start->transferId;
        mChunksWritten = 0;
    }
    return Inner().Send(std::move(message));
}

bool ProgressWatchingLink::MovesOn(const Message& message)
{
    if (const auto* ack = std::get_if<DataAck>(&message)) {
        std::lock_guard<std::mutex> lock(mMutex);
        if (ack->transferId != mSending || ack->chunksWritten <= mChunksWritten) {
            return false;  // nothing written since the last one
        }
        mChunksWritten = ack->chunksWritten;
        return true;
    }
    return std::holds_alternative<FileListRequest>(message) || std::holds_alternative<NextFileRequest>(message) ||
           std::holds_alternative<FileAccept>(message) || std::holds_alternative<EntryRefused>(message);
}

void ProgressWatchingLink::OnMessage(Message message)
{
    if (MovesOn(message) && mOnProgress) {
        mOnProgress();
    }
    Handler().OnMessage(std::move(message));
}

}  // namespace orin::xfer::host
