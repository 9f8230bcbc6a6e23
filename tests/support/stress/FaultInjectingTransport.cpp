#include "FaultInjectingTransport.h"

#include <utility>
#include <variant>

namespace orin::xfer::test {

using namespace orin::xfer::host;

const char* InjectedFaultName(InjectedFault fault)
{
    switch (fault) {
    case InjectedFault::kNone: return "none";
    case InjectedFault::kCutLink: return "cut-link";
    case InjectedFault::kErrorForOddId: return "error-odd-id";
    case InjectedFault::kErrorForEvenId: return "error-even-id";
    case InjectedFault::kErrorWithoutId: return "error-no-id";
    }
    return "?";
}

FaultInjectingTransport::FaultInjectingTransport(std::unique_ptr<ITransport> inner, FaultPlan plan)
    : ForwardingTransport(std::move(inner)), mPlan(plan)
{
}

// Once closed from this thread, the inner end calls into this object no more.
FaultInjectingTransport::~FaultInjectingTransport()
{
    Inner().Close();
}

bool FaultInjectingTransport::Send(Message message)
{
    noteTransfer(message);
    return ForwardingTransport::Send(std::move(message));
}

// Both directions carry the sender's ids: FileStart from the sender,
// FileAccept and DataAck from the receiver.
void FaultInjectingTransport::noteTransfer(const Message& message)
{
    std::lock_guard<std::mutex> lock(mIdsMutex);
    if (const auto* start = std::get_if<FileStart>(&message)) {
        mTaskId = start->taskId;
        mSenderTransferId = start->transferId;
    } else if (const auto* accept = std::get_if<FileAccept>(&message)) {
        mSenderTransferId = accept->transferId;
    }
}

void FaultInjectingTransport::OnMessage(Message message)
{
    if (mClosedToHandler) {
        return;
    }
    noteTransfer(message);
    const uint64_t count = ++mDelivered;
    Handler().OnMessage(std::move(message));
    if (mPlan.fault != InjectedFault::kNone && count == mPlan.afterMessages && !mFired.exchange(true)) {
        fire();
    }
}

void FaultInjectingTransport::OnTransportClosed(const std::string& reason)
{
    if (mClosedToHandler) {
        return;
    }
    mClosedToHandler = true;
    Handler().OnTransportClosed(reason);
}

// On the delivery thread, right after the triggering message was handled.
void FaultInjectingTransport::fire()
{
    uint32_t taskId = 0;
    uint32_t senderId = 0;
    {
        std::lock_guard<std::mutex> lock(mIdsMutex);
        taskId = mTaskId;
        senderId = mSenderTransferId;
    }
    uint32_t transferId = 0;
    switch (mPlan.fault) {
    case InjectedFault::kErrorForOddId: transferId = senderId; break;
    case InjectedFault::kErrorForEvenId: transferId = senderId == 0 ? 2 : senderId + 1; break;
    default: break;
    }
    if (mPlan.fault != InjectedFault::kCutLink) {
        Inner().Send(TransferError{taskId, transferId, "injected failure of transfer " + std::to_string(transferId)});
        Inner().Send(Disconnect{false, "injected failure"});
    }
    Inner().Close();
    mClosedToHandler = true;
    Handler().OnTransportClosed("the link was cut by the test");
}

}  // namespace orin::xfer::test
