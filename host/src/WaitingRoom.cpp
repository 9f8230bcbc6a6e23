#include "WaitingRoom.h"

namespace orin::xfer::host {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds kAcceptWait{100};

}  // namespace

WaitingRoom::WaitingRoom(TcpListener& listener, std::deque<WaitingSender> waiting, Farewells& farewells,
                         std::chrono::milliseconds patience, Disconnect busy,
                         std::function<void(const std::string&)> onTurnedAway)
    : mListener(listener),
      mFarewells(farewells),
      mPatience(patience),
      mBusy(std::move(busy)),
      mOnTurnedAway(std::move(onTurnedAway)),
      mWaiting(std::move(waiting))
{
    mThread = std::thread([this] { run(); });
}

WaitingRoom::~WaitingRoom() { stop(); }

void WaitingRoom::stop()
{
    {
        std::lock_guard<std::mutex> lock(mMutex);
        mStopping = true;
    }
    if (mThread.joinable()) {
        mThread.join();
    }
}

std::deque<WaitingSender> WaitingRoom::Leave()
{
    stop();
    std::lock_guard<std::mutex> lock(mMutex);
    return std::move(mWaiting);
}

void WaitingRoom::run()
{
    for (;;) {
        std::deque<WaitingSender> tooLong;
        {
            std::lock_guard<std::mutex> lock(mMutex);
            if (mStopping) {
                return;
            }
            while (!mWaiting.empty() && Clock::now() - mWaiting.front().since > mPatience) {
                tooLong.push_back(std::move(mWaiting.front()));
                mWaiting.pop_front();
            }
        }
        for (WaitingSender& sender : tooLong) {
            turnAway(std::move(sender.connection));
        }
        TcpSocket connection;
        std::string error;
        if (mListener.Accept(kAcceptWait, connection, error) != TcpListener::AcceptResult::kAccepted) {
            continue;
        }
        std::unique_lock<std::mutex> lock(mMutex);
        if (mWaiting.size() < kMaxWaiting) {
            mWaiting.push_back(WaitingSender{std::move(connection), Clock::now()});
        } else {
            lock.unlock();
            turnAway(std::move(connection));
        }
    }
}

void WaitingRoom::turnAway(TcpSocket connection)
{
    const std::string peer = PeerAddressOf(connection.Fd());
    mFarewells.Add(std::move(connection), mBusy);
    if (mOnTurnedAway) {
        mOnTurnedAway(peer);
    }
}

}  // namespace orin::xfer::host
