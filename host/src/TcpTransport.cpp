#include "xferfm/host/TcpTransport.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <fstream>

namespace orin::xfer::host {
namespace {

// A fixed buffer size turns the kernel's autotuning off and is cut to the
// system's limit, so it is only asked for where the limit allows it whole.
void AskBufferSize(int fd, int option, const char* limitFile, int bytes)
{
    long limit = 0;
    if (bytes <= 0 || !(std::ifstream(limitFile) >> limit) || limit < bytes) {
        return;
    }
    setsockopt(fd, SOL_SOCKET, option, &bytes, sizeof bytes);
}

StreamEnds TunedSocket(TcpSocket socket, const TcpTransportOptions& options)
{
    const int fd = socket.Fd();
    const int noDelay = options.noDelay ? 1 : 0;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &noDelay, sizeof noDelay);
    AskBufferSize(fd, SO_SNDBUF, "/proc/sys/net/core/wmem_max", options.socketBufferBytes);
    AskBufferSize(fd, SO_RCVBUF, "/proc/sys/net/core/rmem_max", options.socketBufferBytes);
    StreamEnds ends;
    ends.peer = PeerAddressOf(fd);
    ends.readEnd = std::move(socket);  // one socket, both directions
    return ends;
}

}  // namespace

class TcpTransport::Link {
public:
    Link(TcpSocket socket, const TcpTransportOptions& options)
        : stream(TunedSocket(std::move(socket), options), options)
    {
    }
    StreamTransport stream;
};

TcpTransport::TcpTransport(TcpSocket socket, TcpTransportOptions options)
    : mLink(std::make_unique<Link>(std::move(socket), options))
{
}

TcpTransport::~TcpTransport() = default;

void TcpTransport::Start(ITransportHandler& handler) { mLink->stream.Start(handler); }

bool TcpTransport::Send(Message message) { return mLink->stream.Send(std::move(message)); }

void TcpTransport::Close() { mLink->stream.Close(); }

const std::string& TcpTransport::PeerAddress() const { return mLink->stream.Peer(); }

bool TcpTransport::PeerWentAway() const { return mLink->stream.PeerWentAway(); }

uint64_t TcpTransport::QueuedDataBytes() const { return mLink->stream.QueuedDataBytes(); }

uint64_t TcpTransport::PeakQueuedDataBytes() const { return mLink->stream.PeakQueuedDataBytes(); }

}  // namespace orin::xfer::host
