// A listening TCP socket that hands out connected sockets one at a time.
// Accept waits with a timeout so that a serving loop can check its stop
// flag between waits instead of blocking forever in accept().
//
// THREADING CONTRACT: one thread calls Accept; Port and Address may be read
// from any thread. The socket closes with the object.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

#include "xferfm/host/TcpSocket.h"

namespace orin::xfer::host {

class TcpListener {
public:
    // Binds HOST:PORT (port 0: any free port) and listens. Check Valid();
    // on failure `error` says why.
    TcpListener(const HostPort& address, std::string& error);

    bool Valid() const { return mSocket.Valid(); }
    // The port actually bound (the chosen one when asked for 0).
    uint16_t Port() const { return mPort; }
    std::string Address() const { return LocalAddressOf(mSocket.Fd()); }

    enum class AcceptResult { kAccepted, kTimedOut, kFailed };
    // Waits up to `timeout` for one connection; on kAccepted `out` holds
    // it, on kFailed `error` says why.
    AcceptResult Accept(std::chrono::milliseconds timeout, TcpSocket& out, std::string& error);

private:
    TcpSocket mSocket;
    uint16_t mPort = 0;
};

}  // namespace orin::xfer::host
