// Senders that connect while `serve` is busy with one: each waits, without
// a word from the server, for up to `patience` (well inside its link's
// silence timeout) and becomes the next session if the current one ends
// by then; one that has waited longer is turned away with a reason it can
// print ("busy with another sender").
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

#include "xferfm/host/TcpListener.h"

namespace xferfm::cli {

struct WaitingSender {
    orin::xfer::host::TcpSocket connection;
    std::chrono::steady_clock::time_point since;
};

class WaitingRoom {
public:
    // `waiting`: senders still waiting from before, oldest first.
    WaitingRoom(orin::xfer::host::TcpListener& listener, std::deque<WaitingSender> waiting,
                std::chrono::milliseconds patience, std::string busyReason,
                std::function<void(const std::string& peer)> onTurnedAway);
    ~WaitingRoom();
    WaitingRoom(const WaitingRoom&) = delete;
    WaitingRoom& operator=(const WaitingRoom&) = delete;

    // Stops accepting and hands over who still waits, oldest first.
    std::deque<WaitingSender> Leave();

    // Turns `sender` away now: hello, the reason, end of stream.
    static void TurnAway(const orin::xfer::host::TcpSocket& connection, const std::string& reason);

private:
    void run();
    void stop();

    orin::xfer::host::TcpListener& mListener;
    const std::chrono::milliseconds mPatience;
    const std::string mBusyReason;
    const std::function<void(const std::string&)> mOnTurnedAway;
    std::mutex mMutex;
    bool mStopping = false;
    std::deque<WaitingSender> mWaiting;
    std::thread mThread;
};

}  // namespace xferfm::cli
