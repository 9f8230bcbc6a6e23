// The link and listener functions of the C interface: in-process pairs,
// TCP connect and accept, links over descriptors or standard input/output,
// and links over a host's own byte channel.
#include <unistd.h>

#include <chrono>
#include <memory>
#include <string>

#include "CApiBoundary.h"
#include "xferfm/host/InProcessTransport.h"
#include "xferfm/host/StandardStreams.h"
#include "xferfm/host/StreamTransport.h"
#include "xferfm/host/TcpListener.h"
#include "xferfm/host/TcpSocket.h"
#include "xferfm/host/TcpTransport.h"

using namespace orin::xfer::host;
using namespace orin::xfer::host::capi;

struct xferfm_listener {
    std::unique_ptr<TcpListener> listener;
};

namespace orin::xfer::host::capi {

std::unique_ptr<ITransport> TakeTransport(xferfm_link& link)
{
    std::lock_guard<std::mutex> lock(link.mutex);
    if (!link.transport) {
        Fail(XFERFM_ERR_BAD_STATE, "the link is already taken by an endpoint");
    }
    return std::move(link.transport);
}

}  // namespace orin::xfer::host::capi

namespace {

std::unique_ptr<xferfm_link> LinkOf(std::unique_ptr<ITransport> transport)
{
    auto link = std::make_unique<xferfm_link>();
    link->transport = std::move(transport);
    return link;
}

}  // namespace

extern "C" int xferfm_link_pair(xferfm_link** first, xferfm_link** second)
{
    return Guarded("xferfm_link_pair", [&]() -> int {
        if (first == nullptr || second == nullptr) {
            return Fail(XFERFM_ERR_INVALID_ARGUMENT, "xferfm_link_pair: NULL output pointer");
        }
        auto [a, b] = InProcessTransport::CreatePair();
        auto linkA = LinkOf(std::move(a));
        auto linkB = LinkOf(std::move(b));
        *first = linkA.release();
        *second = linkB.release();
        return XFERFM_OK;
    });
}

extern "C" int xferfm_link_connect(const char* host_port, uint32_t timeout_ms, xferfm_link** out)
{
    return Guarded("xferfm_link_connect", [&]() -> int {
        if (host_port == nullptr || out == nullptr) {
            return Fail(XFERFM_ERR_INVALID_ARGUMENT, "xferfm_link_connect: NULL argument");
        }
        HostPort address;
        std::string error;
        if (!ParseHostPort(host_port, address, error)) {
            return Fail(XFERFM_ERR_INVALID_ARGUMENT, error);
        }
        TcpSocket socket = ConnectTcp(address, std::chrono::milliseconds(timeout_ms), error);
        if (!socket.Valid()) {
            return Fail(XFERFM_ERR_NETWORK, error);
        }
        *out = LinkOf(std::make_unique<TcpTransport>(std::move(socket))).release();
        return XFERFM_OK;
    });
}

extern "C" int xferfm_link_fds(int read_fd, int write_fd, xferfm_link** out)
{
    // Owned from the first line: closed on every way out but a link made.
    StreamEnds ends;
    ends.readEnd.Reset(read_fd);
    if (write_fd != read_fd) {
        ends.writeEnd.Reset(write_fd);
    }
    ends.peer = "descriptors " + std::to_string(read_fd) + "/" + std::to_string(write_fd);
    return Guarded("xferfm_link_fds", [&]() -> int {
        if (out == nullptr || read_fd < 0 || write_fd < 0) {
            return Fail(XFERFM_ERR_INVALID_ARGUMENT, "xferfm_link_fds: NULL output or a negative descriptor");
        }
        *out = LinkOf(std::make_unique<StreamTransport>(std::move(ends))).release();
        return XFERFM_OK;
    });
}

extern "C" int xferfm_link_stdio(xferfm_link** out)
{
    return Guarded("xferfm_link_stdio", [&]() -> int {
        if (out == nullptr) {
            return Fail(XFERFM_ERR_INVALID_ARGUMENT, "xferfm_link_stdio: NULL output pointer");
        }
        StreamEnds ends;
        std::string error;
        if (!TakeStandardStreams(ends, error)) {
            return Fail(XFERFM_ERR_CLOSED, error);
        }
        *out = LinkOf(std::make_unique<StreamTransport>(std::move(ends))).release();
        return XFERFM_OK;
    });
}

extern "C" int xferfm_listener_create(const char* host_port, xferfm_listener** out)
{
    return Guarded("xferfm_listener_create", [&]() -> int {
        if (host_port == nullptr || out == nullptr) {
            return Fail(XFERFM_ERR_INVALID_ARGUMENT, "xferfm_listener_create: NULL argument");
        }
        HostPort address;
        std::string error;
        if (!ParseHostPort(host_port, address, error)) {
            return Fail(XFERFM_ERR_INVALID_ARGUMENT, error);
        }
        auto listener = std::make_unique<xferfm_listener>();
        listener->listener = std::make_unique<TcpListener>(address, error);
        if (!listener->listener->Valid()) {
            return Fail(XFERFM_ERR_NETWORK, error);
        }
        *out = listener.release();
        return XFERFM_OK;
    });
}

extern "C" int xferfm_listener_port(const xferfm_listener* listener, uint16_t* port)
{
    return Guarded("xferfm_listener_port", [&]() -> int {
        if (listener == nullptr || port == nullptr) {
            return Fail(XFERFM_ERR_INVALID_ARGUMENT, "xferfm_listener_port: NULL argument");
        }
        *port = listener->listener->Port();
        return XFERFM_OK;
    });
}

extern "C" int xferfm_listener_accept(xferfm_listener* listener, uint32_t timeout_ms, xferfm_link** out)
{
    return Guarded("xferfm_listener_accept", [&]() -> int {
        if (listener == nullptr || out == nullptr) {
            return Fail(XFERFM_ERR_INVALID_ARGUMENT, "xferfm_listener_accept: NULL argument");
        }
        TcpSocket socket;
        std::string error;
        switch (listener->listener->Accept(std::chrono::milliseconds(timeout_ms), socket, error)) {
        case TcpListener::AcceptResult::kAccepted:
            *out = LinkOf(std::make_unique<TcpTransport>(std::move(socket))).release();
            return XFERFM_OK;
        case TcpListener::AcceptResult::kTimedOut:
            return Fail(XFERFM_ERR_TIMEOUT, "no connection came");
        case TcpListener::AcceptResult::kFailed:
            break;
        }
        return Fail(XFERFM_ERR_NETWORK, error);
    });
}

extern "C" void xferfm_listener_destroy(xferfm_listener* listener)
{
    std::unique_ptr<xferfm_listener> owned(listener);
}

extern "C" int xferfm_link_custom(const xferfm_link_callbacks* callbacks, xferfm_link** out)
{
    return Guarded("xferfm_link_custom", [&]() -> int {
        if (callbacks == nullptr || callbacks->send == nullptr || out == nullptr) {
            return Fail(XFERFM_ERR_INVALID_ARGUMENT, "xferfm_link_custom: NULL callbacks, send callback or output");
        }
        auto channel = std::make_shared<HostLinkChannel>(*callbacks);
        auto link = LinkOf(std::make_unique<HostCallbackTransport>(channel));
        link->channel = std::move(channel);
        *out = link.release();
        return XFERFM_OK;
    });
}

extern "C" int xferfm_link_deliver(xferfm_link* link, const uint8_t* bytes, size_t size)
{
    return Guarded("xferfm_link_deliver", [&]() -> int {
        if (link == nullptr || (bytes == nullptr && size != 0)) {
            return Fail(XFERFM_ERR_INVALID_ARGUMENT, "xferfm_link_deliver: NULL link or bytes");
        }
        if (!link->channel) {
            return Fail(XFERFM_ERR_INVALID_ARGUMENT, "xferfm_link_deliver: not a link made by xferfm_link_custom");
        }
        std::string error;
        const int status = link->channel->Deliver(bytes, size, error);
        return status == XFERFM_OK ? status : Fail(status, error);
    });
}

extern "C" int xferfm_link_deliver_end(xferfm_link* link, const char* reason)
{
    return Guarded("xferfm_link_deliver_end", [&]() -> int {
        if (link == nullptr) {
            return Fail(XFERFM_ERR_INVALID_ARGUMENT, "xferfm_link_deliver_end: NULL link");
        }
        if (!link->channel) {
            return Fail(XFERFM_ERR_INVALID_ARGUMENT, "xferfm_link_deliver_end: not a link made by xferfm_link_custom");
        }
        const int status = link->channel->DeliverEnd(reason != nullptr ? reason : "");
        return status == XFERFM_OK ? status : Fail(status, "the link is closed");
    });
}

extern "C" void xferfm_link_destroy(xferfm_link* link)
{
    try {
        std::unique_ptr<xferfm_link> owned(link);
    } catch (...) {
        // A transport's teardown failing leaves nothing the caller could do.
    }
}
