// An owned TCP socket descriptor, and the address handling the link's two
// ends share: "HOST:PORT" parsing (IPv4, host names, "[IPv6]:PORT"),
// connecting with a timeout, and printing the address of a peer.
//
// THREADING CONTRACT: a TcpSocket is a move-only owner with no locking
// (OwnedFd.h); the free functions are safe from any thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

#include "xferfm/host/OwnedFd.h"

namespace orin::xfer::host {

// A TCP socket is an owned descriptor like any other.
using TcpSocket = OwnedFd;

struct HostPort {
    std::string host;
    uint16_t port = 0;
};

// "127.0.0.1:47047", "localhost:9000", "[::1]:9000". False with `error`
// set when the text is not of that shape or the port is not 0..65535.
bool ParseHostPort(const std::string& text, HostPort& out, std::string& error);

// Resolves and connects, trying each address of the host in turn, for at
// most `timeout` in all. An invalid socket and `error` set on failure.
TcpSocket ConnectTcp(const HostPort& address, std::chrono::milliseconds timeout, std::string& error);

// "127.0.0.1:5000" / "[::1]:5000" for the remote or the local end of a
// connected or listening socket ("?" when the system cannot tell).
std::string PeerAddressOf(int fd);
std::string LocalAddressOf(int fd);
uint16_t LocalPortOf(int fd);

}  // namespace orin::xfer::host
