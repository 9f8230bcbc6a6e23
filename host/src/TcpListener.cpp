#include "xferfm/host/TcpListener.h"

#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>

#include "xferfm/host/SystemErrorText.h"

namespace orin::xfer::host {
namespace {

constexpr int kBacklog = 16;

struct AddrInfoDeleter {
    void operator()(addrinfo* list) const { freeaddrinfo(list); }
};

}  // namespace

TcpListener::TcpListener(const HostPort& address, std::string& error)
{
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_NUMERICSERV | AI_PASSIVE;
    addrinfo* found = nullptr;
    const std::string service = std::to_string(address.port);
    const int resolved = getaddrinfo(address.host.c_str(), service.c_str(), &hints, &found);
    if (resolved != 0) {
        error = "cannot resolve " + address.host + ": " + gai_strerror(resolved);
        return;
    }
    const std::unique_ptr<addrinfo, AddrInfoDeleter> list(found);
    const std::string target = address.host + ":" + service;

    for (const addrinfo* entry = list.get(); entry != nullptr; entry = entry->ai_next) {
        TcpSocket socket(::socket(entry->ai_family, entry->ai_socktype | SOCK_CLOEXEC | SOCK_NONBLOCK, entry->ai_protocol));
        if (!socket.Valid()) {
            error = "cannot create a socket: " + SystemErrorText(errno);
            continue;
        }
        // A restarted server must be able to bind again while old
        // connections linger in TIME_WAIT.
        const int on = 1;
        setsockopt(socket.Fd(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
        if (::bind(socket.Fd(), entry->ai_addr, entry->ai_addrlen) != 0) {
            error = "cannot listen on " + target + ": " + SystemErrorText(errno);
            continue;
        }
        if (::listen(socket.Fd(), kBacklog) != 0) {
            error = "cannot listen on " + target + ": " + SystemErrorText(errno);
            continue;
        }
        mPort = LocalPortOf(socket.Fd());
        mSocket = std::move(socket);
        error.clear();
        return;
    }
}

TcpListener::AcceptResult TcpListener::Accept(std::chrono::milliseconds timeout, TcpSocket& out,
                                              std::string& error)
{
    pollfd entry{mSocket.Fd(), POLLIN, 0};
    const int ready = poll(&entry, 1, static_cast<int>(timeout.count()));
    if (ready < 0) {
        if (errno == EINTR) {
            return AcceptResult::kTimedOut;
        }
        error = "waiting for a connection failed: " + SystemErrorText(errno);
        return AcceptResult::kFailed;
    }
    if (ready == 0) {
        return AcceptResult::kTimedOut;
    }
    const int fd = ::accept4(mSocket.Fd(), nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) {
        // The client may have given up between poll and accept; not fatal.
        if (errno == EAGAIN || errno == EINTR || errno == ECONNABORTED || errno == EPROTO) {
            return AcceptResult::kTimedOut;
        }
        error = "accepting a connection failed: " + SystemErrorText(errno);
        return AcceptResult::kFailed;
    }
    out.Reset(fd);
    return AcceptResult::kAccepted;
}

}  // namespace orin::xfer::host
