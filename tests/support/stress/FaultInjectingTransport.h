// A transport end that passes everything through to an inner end and, once,
// injects a fault when the Nth message arrives from the peer: the link cut
// abruptly, or an error report from this side (a TransferError naming the
// transfer under way, then a Disconnect) followed by the cut. Faults fire
// only on the delivery thread, where the endpoint behind expects its
// OnTransportClosed.
//
// THREADING CONTRACT: as ITransport (Transport.h). The trigger counts
// messages on the inner end's delivery thread; Fired() and the counters
// may be read from any thread.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include "xferfm/host/ForwardingTransport.h"

namespace orin::xfer::test {

using namespace orin::xfer::host;

enum class InjectedFault {
    kNone,
    kCutLink,            // both ends lose the link at once
    kErrorForOddId,      // TransferError carrying the sender's (odd) transfer id
    kErrorForEvenId,     // TransferError carrying the receiver's (even) transfer id
    kErrorWithoutId,     // TransferError for no transfer (id 0), as an endpoint's own failure
};

const char* InjectedFaultName(InjectedFault fault);

struct FaultPlan {
    InjectedFault fault = InjectedFault::kNone;
    uint64_t afterMessages = 0;  // fires on arrival of this message from the peer (1 = the first)
};

class FaultInjectingTransport final : public ForwardingTransport {
public:
    FaultInjectingTransport(std::unique_ptr<ITransport> inner, FaultPlan plan);
    ~FaultInjectingTransport() override;
    FaultInjectingTransport(const FaultInjectingTransport&) = delete;
    FaultInjectingTransport& operator=(const FaultInjectingTransport&) = delete;

    bool Send(Message message) override;

    bool Fired() const { return mFired.load(); }
    uint64_t MessagesDelivered() const { return mDelivered.load(); }

private:
    void OnMessage(Message message) override;
    void OnTransportClosed(const std::string& reason) override;
    void fire();
    void noteTransfer(const Message& message);

    const FaultPlan mPlan;
    std::atomic<bool> mFired{false};
    std::atomic<uint64_t> mDelivered{0};
    bool mClosedToHandler = false;  // delivery thread only
    std::mutex mIdsMutex;           // the ids seen, from either direction
    uint32_t mTaskId = 0;
    uint32_t mSenderTransferId = 0;
};

}  // namespace orin::xfer::test
