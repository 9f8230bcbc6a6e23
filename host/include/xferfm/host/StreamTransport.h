// One end of a transport link over a byte stream given as two descriptors,
// speaking the frame format of FrameCodec.h (docs/protocol.md): a connected
// socket (TcpTransport hands it its socket), a socketpair, or two pipes
// (standard input and output of a process started over a remote shell).
//
// Usage: fill a StreamEnds (the read end, the write end, a label naming
// the other end in messages), construct, Start with a handler, Send.
//
// Blocking I/O on threads: a reader thread (the delivery thread) decodes
// frames and hands each message to the handler, a writer thread drains an
// ordered outgoing queue. Both ends send a hello first, a keepalive frame
// whenever they have sent nothing for `keepaliveInterval`, and close the
// link when nothing at all has arrived for `silenceTimeout` (a hung peer).
// A process that dies is noticed at once: its kernel closes its ends.
//
// Backpressure: a data message (FileData) waits in Send while
// `maxQueuedDataBytes` or more of data are queued and not yet written (a
// single larger message still goes when no data is queued); the writer
// itself waits on the stream's bounded kernel buffer, so a slow peer slows
// its sender down. Control messages are queued at once and never wait, and
// keep their place in the order; a peer that lets more than
// `maxQueuedControlBytes` of them pile up unread has the link closed (a
// single larger one, a big file list, still goes when none are queued),
// and one that takes nothing at all for `silenceTimeout` likewise.
//
// End of the stream: once everything queued before Close is written, the
// write side is ended: shutdown(SHUT_WR) for a socket, close() for a pipe,
// which is all a pipe's reader can see. A peer that ends its side, a frame
// the decoder rejects, a stream cut inside a frame, or a silent peer closes
// the link; the handler hears OnTransportClosed with the reason, and the
// peer, where possible, a Disconnect naming it.
//
// Descriptors:
// 1. The transport owns both ends and closes them when destroyed.
// 2. The write end is switched to non-blocking mode (the writer waits in
//    poll so that it can give up on a peer that takes nothing), and back
//    when the write side ends or the transport goes. That flag belongs to
//    the open file, so it is shared with every duplicate of the descriptor
//    meanwhile: hand over an end no one else writes to.
// 3. A write to a pipe whose reader has gone raises SIGPIPE, which would
//    kill the process. The writer thread blocks SIGPIPE for itself (the
//    signal is directed at the thread that wrote), so the write fails with
//    EPIPE and the link closes with a reason; the rest of the process keeps
//    its own disposition.
//
// THREADING CONTRACT: as ITransport (Transport.h):
// - messages and the one OnTransportClosed are delivered on the reader
//   thread, in arrival order, never on a Send caller's thread;
// - Send from any thread; false once either end has closed;
// - Close from any thread, also from inside the handler; idempotent. From
//   another thread it returns once the handler is no longer running.
//   Messages queued before Close are still written (for at most
//   `closeFlushTimeout`), then the peer sees the end of the stream;
// - destroy from any thread except the delivery thread. The destructor
//   closes and joins both threads; over a socket it also lets a cleanly
//   closed stream drain (bounded by `closeFlushTimeout`) so the last frames
//   are not lost to a reset.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

#include "xferfm/host/FrameCodec.h"
#include "xferfm/host/OwnedFd.h"
#include "xferfm/host/Transport.h"

namespace orin::xfer::host {

// The two ends of a byte stream to the peer.
struct StreamEnds {
    OwnedFd readEnd;
    // Left invalid when `readEnd` is a socket that carries both directions.
    OwnedFd writeEnd;
    // Names the other end in every message: "HOST:PORT", "standard input/output".
    std::string peer;
};

struct StreamTransportOptions {
    std::string threadName = "xfer-stream";  // threads are "<name>-rd" and "<name>-wr", cut to 15 chars
    uint64_t maxQueuedDataBytes = 1u << 20;
    uint64_t maxQueuedControlBytes = 1u << 20;
    std::chrono::milliseconds keepaliveInterval{1000};
    std::chrono::milliseconds silenceTimeout{10000};
    std::chrono::milliseconds closeFlushTimeout{2000};
    FrameLimits limits;
};

class StreamTransport final : public ITransport {
public:
    explicit StreamTransport(StreamEnds ends, StreamTransportOptions options = {});
    ~StreamTransport() override;
    StreamTransport(const StreamTransport&) = delete;
    StreamTransport& operator=(const StreamTransport&) = delete;

    void Start(ITransportHandler& handler) override;
    bool Send(Message message) override;
    void Close() override;

    // The label of the other end, as given in StreamEnds.
    const std::string& Peer() const;
    // True when the link was closed because the peer ended or broke the
    // stream (its process exited, a reset, a write to a pipe no one reads),
    // not by a rule of this end (a protocol error, silence, unread
    // replies). Set before OnTransportClosed is called, so a handler may
    // ask from inside it.
    bool PeerWentAway() const;

    // Data bytes queued and not yet written now, and the most ever queued.
    uint64_t QueuedDataBytes() const;
    uint64_t PeakQueuedDataBytes() const;

    class Link;  // the state both threads share

private:
    std::unique_ptr<Link> mLink;
};

}  // namespace orin::xfer::host
