#include "CopySession.h"

namespace orin::xfer::test {

using namespace orin::xfer::host;

CopySession::CopySession(const std::string& destination, CopySessionOptions options)
{
    auto [senderEnd, receiverEnd] = InProcessTransport::CreatePair(options.link);
    sender = std::make_unique<SenderEndpoint>(std::move(senderEnd), options.sender);
    ReceiverOptions receiverOptions;
    receiverOptions.destinationDir = destination;
    receiverOptions.stallTimeout = options.stallTimeout;
    receiverOptions.observer = &observer;
    receiver = std::make_unique<ReceiverEndpoint>(std::move(receiverEnd), receiverOptions);
}

bool CopySession::Begin(const std::vector<std::string>& paths, std::string& error)
{
    return sender->Offer(paths, error) && receiver->Start(error);
}

bool CopySession::WaitBoth(std::chrono::milliseconds timeout)
{
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    if (!receiver->WaitFinished(timeout)) {
        return false;
    }
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    return sender->WaitFinished(std::max(left, std::chrono::milliseconds(1)));
}

}  // namespace orin::xfer::test
