#include "WaitingRoom.h"

#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <vector>

#include "xferfm/host/FrameCodec.h"

namespace orin::xfer::host {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds kAcceptWait{100};
// How long a turned-away sender gets to read the reason and hang up.
constexpr std::chrono::milliseconds kGoodbyeWait{1000};

void sendAll(int fd, const std::vector<uint8_t>& bytes)
{
    size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t sent = ::send(fd, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (sent < 0 && errno == EINTR) {
            continue;
        }
        if (sent <= 0) {
            return;  // a peer that does not take a few dozen bytes gets nothing
        }
        done += static_cast<size_t>(sent);
    }
}

}  // namespace

WaitingRoom::WaitingRoom(TcpListener& listener, std::deque<WaitingSender> waiting,
                         std::chrono::milliseconds patience, Disconnect busy,
                         std::function<void(const std::string&)> onTurnedAway)
    : mListener(listener),
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
        for (const WaitingSender& sender : tooLong) {
            const std::string peer = PeerAddressOf(sender.connection.Fd());
            TurnAway(sender.connection, mBusy);
            if (mOnTurnedAway) {
                mOnTurnedAway(peer);
            }
        }
        TcpSocket connection;
        std::string error;
        if (mListener.Accept(kAcceptWait, connection, error) == TcpListener::AcceptResult::kAccepted) {
            std::lock_guard<std::mutex> lock(mMutex);
            mWaiting.push_back(WaitingSender{std::move(connection), Clock::now()});
        }
    }
}

// Hello, the reason, the end of our stream; then read until the peer hangs
// up, so that closing with its unread hello does not reset the connection
// before the reason arrives.
void WaitingRoom::TurnAway(const TcpSocket& connection, const Disconnect& goodbye)
{
    std::vector<uint8_t> frames;
    std::string unused;
    const FrameEncoder encoder;
    encoder.AppendHello(frames);
    encoder.Append(goodbye, frames, unused);
    sendAll(connection.Fd(), frames);
    ::shutdown(connection.Fd(), SHUT_WR);
    const auto deadline = Clock::now() + kGoodbyeWait;
    char sink[4096];
    while (Clock::now() < deadline) {
        pollfd entry{connection.Fd(), POLLIN, 0};
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
        if (::poll(&entry, 1, static_cast<int>(left.count())) <= 0) {
            return;
        }
        const ssize_t got = ::recv(connection.Fd(), sink, sizeof sink, MSG_DONTWAIT);
        if (got == 0 || (got < 0 && errno != EINTR && errno != EAGAIN)) {
            return;
        }
    }
}

}  // namespace orin::xfer::host
