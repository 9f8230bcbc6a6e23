// Senders that connect while a NetworkReceiver is busy with one: each
// waits, without a word from the receiver, for up to `patience` (well
// inside its link's silence timeout) and becomes the next session if the
// current one ends by then; one that has waited longer is turned away with
// a goodbye it can print (BusyDisconnect). At most kMaxWaiting wait; one
// more is turned away as it arrives. Turning away goes through Farewells,
// so it never holds up accepting the next.
//
// Threading: a WaitingRoom owns one thread from construction until Leave
// (or destruction), the only user of the listener meanwhile; `onTurnedAway`
// runs on that thread.
#pragma once

#include <chrono>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

#include "Farewells.h"
#include "xferfm/host/TcpListener.h"
#include "xferfm/host/TransportMessages.h"

namespace orin::xfer::host {

struct WaitingSender {
    TcpSocket connection;
    std::chrono::steady_clock::time_point since;
};

class WaitingRoom {
public:
    static constexpr size_t kMaxWaiting = 16;

    // `waiting`: senders still waiting from before, oldest first.
    WaitingRoom(TcpListener& listener, std::deque<WaitingSender> waiting, Farewells& farewells,
                std::chrono::milliseconds patience, Disconnect busy,
                std::function<void(const std::string& peer)> onTurnedAway);
    ~WaitingRoom();
    WaitingRoom(const WaitingRoom&) = delete;
    WaitingRoom& operator=(const WaitingRoom&) = delete;

    // Stops accepting and hands over who still waits, oldest first.
    std::deque<WaitingSender> Leave();

private:
    void run();
    void stop();
    void turnAway(TcpSocket connection);

    TcpListener& mListener;
    Farewells& mFarewells;
    const std::chrono::milliseconds mPatience;
    const Disconnect mBusy;
    const std::function<void(const std::string&)> mOnTurnedAway;
    std::mutex mMutex;
    bool mStopping = false;
    std::deque<WaitingSender> mWaiting;
    std::thread mThread;
};

}  // namespace orin::xfer::host
