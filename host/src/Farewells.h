// Peers a NetworkReceiver turns away (busy, finished): each is told why at
// once, then given a short while to read it and hang up, while nothing
// else waits on it. Turning one away never delays accepting or serving
// another: the goodbye is written without blocking and the lingering is
// done by this object's own thread, for all of them together.
//
// Why linger at all: closing a socket with the peer's hello still unread
// resets the connection, and a reset can overtake the goodbye.
//
// Bounds: at most kMaxLingering peers linger, each for at most `linger`;
// beyond that the oldest is closed (it already has its goodbye).
//
// Threading: Add from any thread. The destructor waits until every peer
// has hung up or had its `linger`, then joins the thread.
#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>

#include "WakeEvent.h"
#include "xferfm/host/TcpSocket.h"
#include "xferfm/host/TransportMessages.h"

namespace orin::xfer::host {

class Farewells {
public:
    static constexpr size_t kMaxLingering = 64;

    explicit Farewells(std::chrono::milliseconds linger = std::chrono::milliseconds(1000));
    ~Farewells();
    Farewells(const Farewells&) = delete;
    Farewells& operator=(const Farewells&) = delete;

    // Hello, the goodbye, end of our stream; returns at once.
    void Add(TcpSocket connection, const Disconnect& goodbye);

private:
    struct Leaving {
        TcpSocket connection;
        std::chrono::steady_clock::time_point until;
    };

    void run();

    const std::chrono::milliseconds mLinger;
    WakeEvent mWake;
    std::mutex mMutex;
    bool mClosing = false;
    std::deque<Leaving> mLeaving;
    std::thread mThread;
};

}  // namespace orin::xfer::host
