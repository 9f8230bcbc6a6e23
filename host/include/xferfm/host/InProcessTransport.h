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
// THREADING CONTRACT: as ITransport (Transport.h). Destroying an end closes
// it. The two ends may be destroyed in any order and on any thread except
// their own delivery thread.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <utility>

#include "xferfm/host/Transport.h"

namespace orin::xfer::host {

struct InProcessTransportOptions {
    uint64_t maxQueuedDataBytes = 8u << 20;
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
    void Close() override;

    // Data bytes queued towards this end now, and the most ever queued.
    uint64_t QueuedDataBytes() const;
    uint64_t PeakQueuedDataBytes() const;

    struct Link;  // shared by the two ends

private:
    InProcessTransport(std::shared_ptr<Link> link, int side);

    std::shared_ptr<Link> mLink;
    int mSide;
};

}  // namespace orin::xfer::host
