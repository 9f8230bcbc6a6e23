#include "Farewells.h"

#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <vector>

#include "xferfm/host/FrameCodec.h"

namespace orin::xfer::host {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds kLongestPoll{100};

// A fresh connection's send buffer takes the few dozen bytes of a goodbye;
// a peer that leaves no room for them gets nothing.
void sendWithoutWaiting(int fd, const std::vector<uint8_t>& bytes)
{
    size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t sent = ::send(fd, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (sent < 0 && errno == EINTR) {
            continue;
        }
        if (sent <= 0) {
            return;
        }
        done += static_cast<size_t>(sent);
    }
}

// Reads what the peer still sends; false once it has hung up or failed.
bool drain(int fd)
{
    char sink[4096];
    for (;;) {
        const ssize_t got = ::recv(fd, sink, sizeof sink, MSG_DONTWAIT);
        if (got > 0) {
            continue;
        }
        if (got < 0 && errno == EINTR) {
            continue;
        }
        return got < 0 && (errno == EAGAIN || errno == EWOULDBLOCK);
    }
}

}  // namespace

Farewells::Farewells(std::chrono::milliseconds linger) : mLinger(linger)
{
    mThread = std::thread([this] { run(); });
}

Farewells::~Farewells()
{
    {
        std::lock_guard<std::mutex> lock(mMutex);
        mClosing = true;
    }
    mWake.Signal();
    mThread.join();
}

void Farewells::Add(TcpSocket connection, const Disconnect& goodbye)
{
    std::vector<uint8_t> frames;
    std::string unused;
    const FrameEncoder encoder;
    encoder.AppendHello(frames);
    encoder.Append(goodbye, frames, unused);
    sendWithoutWaiting(connection.Fd(), frames);
    ::shutdown(connection.Fd(), SHUT_WR);
    {
        std::lock_guard<std::mutex> lock(mMutex);
        // The oldest beyond the bound is expired, not closed here: only the
        // lingering thread closes, so it never polls a descriptor that has
        // meanwhile been reused by another connection.
        const auto now = Clock::now();
        if (mLeaving.size() >= kMaxLingering) {
            mLeaving[mLeaving.size() - kMaxLingering].until = now;
        }
        mLeaving.push_back(Leaving{std::move(connection), now + mLinger});
    }
    mWake.Signal();
}

void Farewells::run()
{
    std::vector<pollfd> entries;
    for (;;) {
        auto wait = kLongestPoll;
        entries.assign(1, pollfd{mWake.Fd(), POLLIN, 0});
        {
            std::lock_guard<std::mutex> lock(mMutex);
            const auto now = Clock::now();
            mLeaving.erase(std::remove_if(mLeaving.begin(), mLeaving.end(),
                                          [now](const Leaving& peer) { return now >= peer.until; }),
                           mLeaving.end());
            if (mClosing && mLeaving.empty()) {
                return;
            }
            for (const Leaving& peer : mLeaving) {
                entries.push_back(pollfd{peer.connection.Fd(), POLLIN, 0});
                wait = std::min(wait, std::chrono::duration_cast<std::chrono::milliseconds>(peer.until - now));
            }
        }
        if (::poll(entries.data(), entries.size(), static_cast<int>(std::max<int64_t>(wait.count(), 1))) <= 0) {
            continue;
        }
        if (entries[0].revents != 0) {
            uint64_t count = 0;
            [[maybe_unused]] const ssize_t read = ::read(mWake.Fd(), &count, sizeof count);
        }
        std::vector<int> gone;
        for (size_t index = 1; index < entries.size(); ++index) {
            if (entries[index].revents != 0 && !drain(entries[index].fd)) {
                gone.push_back(entries[index].fd);
            }
        }
        if (!gone.empty()) {
            std::lock_guard<std::mutex> lock(mMutex);
            mLeaving.erase(std::remove_if(mLeaving.begin(), mLeaving.end(),
                                          [&gone](const Leaving& peer) {
                                              return std::find(gone.begin(), gone.end(), peer.connection.Fd()) !=
                                                     gone.end();
                                          }),
                           mLeaving.end());
        }
    }
}

}  // namespace orin::xfer::host
