// A link between the two endpoints of a copy, carrying typed messages.
//
// THREADING CONTRACT
// - Start is called once, by the endpoint that owns the transport. From
//   then on received messages are handed to the handler in arrival order,
//   one at a time, on the transport's own delivery thread (never on the
//   sender's thread, unless a transport says otherwise for data, as the
//   in-process one does on request), followed by one OnTransportClosed
//   when the peer has closed and everything it sent before has been
//   delivered.
// - Send and SendData may be called from any thread. Data messages
//   (FileData) may block while the peer has too many data bytes queued
//   (backpressure); control messages never block. Both return false once
//   either end is closed.
// - Close may be called from any thread, also from inside the handler. It
//   is idempotent. When it returns (called from another thread) the handler
//   is no longer running and is never called again; called from inside the
//   handler, the current call finishes and no further one is made. The
//   peer is told the link is closed.
// - The handler must outlive the transport's deliveries: close the
//   transport before destroying the handler.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>

#include "xferfm/host/TransportMessages.h"

namespace orin::xfer::host {

class ITransportHandler {
public:
    virtual ~ITransportHandler() = default;
    virtual void OnMessage(Message message) = 0;
    virtual void OnTransportClosed(const std::string& reason) = 0;
    // A data message whose bytes stay the sender's: valid only during the
    // call. Transports that can hand data over without a copy use this
    // (see SendData); by default it is an ordinary FileData message.
    virtual void OnData(uint32_t transferId, const uint8_t* bytes, size_t size)
    {
        FileData data;
        data.transferId = transferId;
        data.bytes.assign(bytes, bytes + size);
        OnMessage(std::move(data));
    }
};

class ITransport {
public:
    virtual ~ITransport() = default;
    virtual void Start(ITransportHandler& handler) = 0;
    virtual bool Send(Message message) = 0;
    virtual void Close() = 0;
    // Sends a FileData whose bytes the caller keeps (they need only stay
    // valid during the call). By default the bytes are copied into the
    // message; a transport that delivers during the call (OnData) skips
    // the copy. Same order and backpressure as Send.
    virtual bool SendData(uint32_t transferId, const uint8_t* bytes, size_t size)
    {
        FileData data;
        data.transferId = transferId;
        data.bytes.assign(bytes, bytes + size);
        return Send(std::move(data));
    }
};

}  // namespace orin::xfer::host
