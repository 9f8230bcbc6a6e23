#include "HandPlayedReceiver.h"

#include <utility>
#include <variant>

namespace orin::xfer::test {

using namespace orin::xfer::host;

HandPlayedReceiver::HandPlayedReceiver(ITransport& link, std::string firstName)
    : mLink(link), mFirstName(std::move(firstName))
{
}

void HandPlayedReceiver::OnMessage(Message message)
{
    std::lock_guard<std::mutex> lock(mMutex);
    if (std::holds_alternative<FileListMessage>(message)) {
        NextFileRequest request;
        request.taskId = 1;
        request.index = 0;
        request.name = mFirstName;
        mLink.Send(request);
    } else if (auto* start = std::get_if<FileStart>(&message)) {
        mTransferId = start->transferId;
        mLink.Send(FileAccept{start->transferId});
    } else if (std::holds_alternative<FileData>(message)) {
        ++mChunks;
    }
}

uint64_t HandPlayedReceiver::Chunks() const
{
    std::lock_guard<std::mutex> lock(mMutex);
    return mChunks;
}

uint32_t HandPlayedReceiver::TransferId() const
{
    std::lock_guard<std::mutex> lock(mMutex);
    return mTransferId;
}

}  // namespace orin::xfer::test
