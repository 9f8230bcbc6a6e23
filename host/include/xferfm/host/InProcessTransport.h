// Two connected transport ends inside one process, for joining a sender
// engine and a receiver engine directly.
//
// Each end has its own inbox and its own delivery thread (named after the
// end), so neither side's engine ever runs on the other side's thread.
// Messages move through without copying. Memory is bounded: a Send of a
// data message blocks while the receiving end already holds
// `maxQueuedDataBytes` or more of data (a single message larger than the
// bound still goes through when the inbox is empty of data); control
// messages are never held back, so a handler that sends only control
// messages can never deadlock against the other end.
//
// Inline data (option `inlineData`, off by default): a data message sent
// while the receiving end is idle (nothing queued, no handler running) is
// handed to the receiving handler directly on the sending thread, inside
// Send or SendData, which returns when the handler does. That saves a
// thread switch per chunk, and with SendData the copy as well: the handler
// reads the sender's own bytes (OnData). Order and
// one-at-a-time delivery still hold (a busy end queues the message as
// usual), but such a handler runs on the sender's thread: it must not wait
// for anything that thread does. Inline data is not queued, so the bound
// below does not see it: memory is then bounded by the endpoints (the
// acknowledgement window).
//
// THREADING CONTRACT: as ITransport (Transport.h), except the thread of
// inline data deliveries (above). Destroying an end closes it. The two
// ends may be destroyed in any order and on any thread except their own
// delivery thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

#include "xferfm/host/Transport.h"

namespace orin::xfer::host {

struct InProcessTransportOptions {
    uint64_t maxQueuedDataBytes = 8u << 20;
    bool inlineData = false;  // deliver data to an idle end on the sending thread
    std::string firstEndName = "xfer-link-a";
    std::string secondEndName = "xfer-link-b";
};

class InProcessTransport final : public ITransport {
public:
    static std::pair<std::unique_ptr<InProcessTransport>, std::unique_ptr<InProcessTransport>> CreatePair(
        InProcessTransportOptions options = {});

    ~InProcessTransport() override;
    InProcessTransport(const InProcessTransport&) = delete;
    InProcessTransport& operator=(const InProcessTransport&) = delete;

    void Start(ITransportHandler& handler) override;
    bool Send(Message message) override;
    bool SendData(uint32_t transferId, const uint8_t* bytes, size_t size) override;
    void Close() override;

    // Data bytes queued towards this end now, and the most ever queued.
    uint64_t QueuedDataBytes() const;
    uint64_t PeakQueuedDataBytes() const;

    struct Link;  // shared by the two ends

private:
    InProcessTransport(std::shared_ptr<Link> link, int side);
    template <typename Deliver>
    bool deliverInline(std::unique_lock<std::mutex>& lock, Deliver&& deliver);

    std::shared_ptr<Link> mLink;
    int mSide;
};

}  // namespace orin::xfer::host
