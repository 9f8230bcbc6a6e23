#include "xferfm/host/TcpSocket.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>

#include "xferfm/host/SystemErrorText.h"

namespace orin::xfer::host {
namespace {

struct AddrInfoDeleter {
    void operator()(addrinfo* list) const { freeaddrinfo(list); }
};

std::string FormatAddress(const sockaddr_storage& storage)
{
    char host[INET6_ADDRSTRLEN] = "?";
    uint16_t port = 0;
    if (storage.ss_family == AF_INET) {
        const auto& in = reinterpret_cast<const sockaddr_in&>(storage);
        inet_ntop(AF_INET, &in.sin_addr, host, sizeof host);
        port = ntohs(in.sin_port);
        return std::string(host) + ":" + std::to_string(port);
    }
    if (storage.ss_family == AF_INET6) {
        const auto& in6 = reinterpret_cast<const sockaddr_in6&>(storage);
        inet_ntop(AF_INET6, &in6.sin6_addr, host, sizeof host);
        port = ntohs(in6.sin6_port);
        return "[" + std::string(host) + "]:" + std::to_string(port);
    }
    return "?";
}

// Waits for a non-blocking connect to finish; 0 or the errno of the failure.
int FinishConnect(int fd, std::chrono::steady_clock::time_point deadline)
{
    for (;;) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline -
                                                                                std::chrono::steady_clock::now());
        if (left.count() <= 0) {
            return ETIMEDOUT;
        }
        pollfd entry{fd, POLLOUT, 0};
        const int ready = poll(&entry, 1, static_cast<int>(left.count()));
        if (ready < 0 && errno == EINTR) {
            continue;
        }
        if (ready < 0) {
            return errno;
        }
        if (ready == 0) {
            return ETIMEDOUT;
        }
        int error = 0;
        socklen_t length = sizeof error;
        if (getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &length) != 0) {
            return errno;
        }
        return error;
    }
}

}  // namespace

bool ParseHostPort(const std::string& text, HostPort& out, std::string& error)
{
    std::string host;
    std::string port;
    if (!text.empty() && text.front() == '[') {
        const size_t close = text.find(']');
        if (close == std::string::npos || close + 1 >= text.size() || text[close + 1] != ':') {
            error = "\"" + text + "\" is not HOST:PORT (an IPv6 address is written [ADDRESS]:PORT)";
            return false;
        }
        host = text.substr(1, close - 1);
        port = text.substr(close + 2);
    } else {
        const size_t colon = text.rfind(':');
        if (colon == std::string::npos || text.find(':') != colon) {
            error = "\"" + text + "\" is not HOST:PORT";
            return false;
        }
        host = text.substr(0, colon);
        port = text.substr(colon + 1);
    }
    if (host.empty()) {
        error = "\"" + text + "\" has no host before the port";
        return false;
    }
    if (port.empty() || port.size() > 5 || port.find_first_not_of("0123456789") != std::string::npos ||
        std::stoul(port) > 65535) {
        error = "\"" + text + "\" has no port number 0..65535 after the colon";
        return false;
    }
    out.host = host;
    out.port = static_cast<uint16_t>(std::stoul(port));
    return true;
}

TcpSocket ConnectTcp(const HostPort& address, std::chrono::milliseconds timeout, std::string& error)
{
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_NUMERICSERV | AI_ADDRCONFIG;
    addrinfo* found = nullptr;
    const std::string service = std::to_string(address.port);
    const int resolved = getaddrinfo(address.host.c_str(), service.c_str(), &hints, &found);
    if (resolved != 0) {
        error = "cannot resolve " + address.host + ": " + gai_strerror(resolved);
        return TcpSocket();
    }
    const std::unique_ptr<addrinfo, AddrInfoDeleter> list(found);
    const std::string target = address.host + ":" + service;

    error.clear();
    for (const addrinfo* entry = list.get(); entry != nullptr; entry = entry->ai_next) {
        TcpSocket socket(::socket(entry->ai_family, entry->ai_socktype | SOCK_CLOEXEC | SOCK_NONBLOCK,
                                  entry->ai_protocol));
        if (!socket.Valid()) {
            error = "cannot create a socket: " + SystemErrorText(errno);
            continue;
        }
        int result = ::connect(socket.Fd(), entry->ai_addr, entry->ai_addrlen) == 0 ? 0 : errno;
        if (result == EINPROGRESS) {
            result = FinishConnect(socket.Fd(), deadline);
        }
        if (result != 0) {
            error = "cannot connect to " + target + ": " + SystemErrorText(result);
            continue;
        }
        const int flags = fcntl(socket.Fd(), F_GETFL);
        if (flags < 0 || fcntl(socket.Fd(), F_SETFL, flags & ~O_NONBLOCK) != 0) {
            error = "cannot configure the socket to " + target + ": " + SystemErrorText(errno);
            continue;
        }
        return socket;
    }
    if (error.empty()) {
        error = "cannot connect to " + target + ": no address";
    }
    return TcpSocket();
}

std::string PeerAddressOf(int fd)
{
    sockaddr_storage storage{};
    socklen_t length = sizeof storage;
    if (getpeername(fd, reinterpret_cast<sockaddr*>(&storage), &length) != 0) {
        return "?";
    }
    return FormatAddress(storage);
}

std::string LocalAddressOf(int fd)
{
    sockaddr_storage storage{};
    socklen_t length = sizeof storage;
    if (getsockname(fd, reinterpret_cast<sockaddr*>(&storage), &length) != 0) {
        return "?";
    }
    return FormatAddress(storage);
}

uint16_t LocalPortOf(int fd)
{
    sockaddr_storage storage{};
    socklen_t length = sizeof storage;
    if (getsockname(fd, reinterpret_cast<sockaddr*>(&storage), &length) != 0) {
        return 0;
    }
    if (storage.ss_family == AF_INET) {
        return ntohs(reinterpret_cast<const sockaddr_in&>(storage).sin_port);
    }
    if (storage.ss_family == AF_INET6) {
        return ntohs(reinterpret_cast<const sockaddr_in6&>(storage).sin6_port);
    }
    return 0;
}

}  // namespace orin::xfer::host
