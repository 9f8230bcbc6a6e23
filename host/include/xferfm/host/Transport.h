// A link between the two endpoints of a copy, carrying typed messages.
//
// THREADING CONTRACT
// - Start is called once, by the endpoint that owns the transport. From
//   then on received messages are handed to the handler in arrival order,
//   one at a time, on the transport's own delivery thread (never on the
//   sender's thread), followed by one OnTransportClosed when the peer has
//   closed and everything it sent before has been delivered.
// - Send may be called from any thread. Data messages (FileData) may block
//   while the peer has too many data bytes queued (backpressure); control
//   messages never block. Send returns false once either end is closed.
// - Close may be called from any thread, also from inside the handler. It
//   is idempotent. When it returns (called from another thread) the handler
//   is no longer running and is never called again; called from inside the
//   handler, the current call finishes and no further one is made. The
//   peer is told the link is closed.
// - The handler must outlive the transport's deliveries: close the
//   transport before destroying the handler.
#pragma once

#include <string>

#include "xferfm/host/TransportMessages.h"

namespace orin::xfer::host {

class ITransportHandler {
public:
    virtual ~ITransportHandler() = default;
    virtual void OnMessage(Message message) = 0;
    virtual void OnTransportClosed(const std::string& reason) = 0;
};

class ITransport {
public:
    virtual ~ITransport() = default;
    virtual void Start(ITransportHandler& handler) = 0;
    virtual bool Send(Message message) = 0;
    virtual void Close() = 0;
};

}  // namespace orin::xfer::host
