// A TCP proxy on 127.0.0.1 that behaves like a slower, longer link: every
// connection accepted on the listening port is joined to a new connection
// to the target, and each direction is delayed and rate-capped on its own
// (see ShapedDirection). No root, no kernel modules: benchmarks put it
// between a client and a server on the loopback interface.
//
// The handshake is emulated too: the client's first bytes leave two
// one-way delays after it connected (its SYN and the SYN-ACK), the
// server's one delay after.
//
// What it does not emulate: the kernel's loopback TCP on each side still
// sees a sub-millisecond round trip, so TCP's own window growth over the
// long path is not reproduced; the application's round trips and the line
// rate are.
//
// Threading: one thread, Run's caller, does everything; Run never returns
// unless the listening socket fails (the process is stopped by a signal).
#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <list>
#include <memory>

#include "LinkProfile.h"
#include "UniqueFd.h"

namespace xferfm::link {

class ShapedConnection;

class LinkShaper {
public:
    // Binds 127.0.0.1:listenPort (0 picks a free port) and prepares the loop.
    // Throws std::runtime_error when the socket cannot be set up.
    LinkShaper(uint16_t listenPort, const sockaddr_in& target, const LinkProfile& profile);
    ~LinkShaper();
    LinkShaper(const LinkShaper&) = delete;
    LinkShaper& operator=(const LinkShaper&) = delete;

    uint16_t Port() const { return port_; }
    void Run();

private:
    void AcceptAll();
    void ArmTimer();
    void UpdateInterest(ShapedConnection& connection);

    sockaddr_in target_;
    LinkProfile profile_;
    UniqueFd listener_;
    UniqueFd epoll_;
    UniqueFd timer_;
    uint16_t port_ = 0;
    int nextId_ = 1;  // names connections in the log
    std::list<std::unique_ptr<ShapedConnection>> connections_;
};

}  // namespace xferfm::link
