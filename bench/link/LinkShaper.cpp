// One epoll loop: the listening socket, a timerfd armed (absolute, in
// nanoseconds) for the earliest segment due anywhere, and both sockets of
// every connection. Sockets are watched for reading only while their
// direction has room, and for writing only while due bytes wait for room,
// so the loop sleeps whenever nothing can move. After every wake-up each
// connection is serviced whole: read what can be read, write what is due.
#include "LinkShaper.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <string>

#include "ShapedConnection.h"

namespace xferfm::link {

namespace {

[[noreturn]] void Fail(const std::string& what)
{
    throw std::runtime_error(what + ": " + std::strerror(errno));
}

void SetNoDelay(int fd)
{
    const int on = 1;
    ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

UniqueFd ConnectTo(const sockaddr_in& target)
{
    UniqueFd fd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!fd.Valid()) {
        return fd;
    }
    // Loopback: the connect is answered at once, so blocking here costs nothing.
    if (::connect(fd.Get(), reinterpret_cast<const sockaddr*>(&target), sizeof target) != 0) {
        return UniqueFd();
    }
    ::fcntl(fd.Get(), F_SETFL, ::fcntl(fd.Get(), F_GETFL) | O_NONBLOCK);
    SetNoDelay(fd.Get());
    return fd;
}

}  // namespace

LinkShaper::LinkShaper(uint16_t listenPort, const sockaddr_in& target, const LinkProfile& profile)
    : target_(target), profile_(profile)
{
    // Timers fire within a microsecond of the due time rather than the default 50 us.
    ::prctl(PR_SET_TIMERSLACK, 1UL, 0UL, 0UL, 0UL);
    listener_ = UniqueFd(::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (!listener_.Valid()) {
        Fail("socket");
    }
    const int on = 1;
    ::setsockopt(listener_.Get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(listenPort);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::bind(listener_.Get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        Fail("bind 127.0.0.1:" + std::to_string(listenPort));
    }
    if (::listen(listener_.Get(), 64) != 0) {
        Fail("listen");
    }
    socklen_t length = sizeof address;
    ::getsockname(listener_.Get(), reinterpret_cast<sockaddr*>(&address), &length);
    port_ = ntohs(address.sin_port);

    epoll_ = UniqueFd(::epoll_create1(EPOLL_CLOEXEC));
    timer_ = UniqueFd(::timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC));
    if (!epoll_.Valid() || !timer_.Valid()) {
        Fail("epoll/timerfd");
    }
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.ptr = nullptr;  // the listener
    ::epoll_ctl(epoll_.Get(), EPOLL_CTL_ADD, listener_.Get(), &event);
    event.data.ptr = this;  // the timer
    ::epoll_ctl(epoll_.Get(), EPOLL_CTL_ADD, timer_.Get(), &event);
}

LinkShaper::~LinkShaper() = default;

void LinkShaper::AcceptAll()
{
    for (;;) {
        UniqueFd client(::accept4(listener_.Get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
        if (!client.Valid()) {
            return;  // EAGAIN, or a connection that went before it was taken
        }
        const Clock::time_point accepted = Clock::now();
        UniqueFd server = ConnectTo(target_);
        if (!server.Valid()) {
            std::fprintf(stderr, "xferfm-link: cannot reach the target: %s\n", std::strerror(errno));
            continue;  // closing the client tells it
        }
        SetNoDelay(client.Get());
        auto connection =
            std::make_unique<ShapedConnection>(std::move(client), std::move(server), profile_, accepted, nextId_++);
        connections_.push_back(std::move(connection));
        UpdateInterest(*connections_.back());
    }
}

void LinkShaper::UpdateInterest(ShapedConnection& connection)
{
    // A socket nobody waits on leaves the set: epoll reports a hang-up even
    // with no events asked for, which would spin the loop while the last
    // bytes of a closed stream are still on their way.
    auto update = [&](int fd, uint32_t wanted, uint32_t& watched) {
        if (wanted == watched) {
            return;
        }
        epoll_event event{};
        event.events = wanted;
        event.data.ptr = &connection;
        const int op = watched == 0 ? EPOLL_CTL_ADD : wanted == 0 ? EPOLL_CTL_DEL : EPOLL_CTL_MOD;
        ::epoll_ctl(epoll_.Get(), op, fd, &event);
        watched = wanted;
    };
    update(connection.ClientFd(), connection.ClientEvents(), connection.clientWatched);
    update(connection.ServerFd(), connection.ServerEvents(), connection.serverWatched);
}

void LinkShaper::ArmTimer()
{
    std::optional<Clock::time_point> next;
    for (const auto& connection : connections_) {
        const auto due = connection->NextDue();
        if (due && (!next || *due < *next)) {
            next = due;
        }
    }
    itimerspec due{};
    if (next) {
        // steady_clock is CLOCK_MONOTONIC on Linux, so its epoch is the timer's.
        const auto ns = std::chrono::duration_cast<std::chrono::nanoseconds>(next->time_since_epoch()).count();
        due.it_value.tv_sec = static_cast<time_t>(ns / 1000000000);
        due.it_value.tv_nsec = static_cast<long>(ns % 1000000000);
        if (due.it_value.tv_sec == 0 && due.it_value.tv_nsec == 0) {
            due.it_value.tv_nsec = 1;  // zero would disarm
        }
    }
    ::timerfd_settime(timer_.Get(), TFD_TIMER_ABSTIME, &due, nullptr);
}

void LinkShaper::Run()
{
    epoll_event events[64];
    for (;;) {
        ArmTimer();
        const int count = ::epoll_wait(epoll_.Get(), events, 64, -1);
        if (count < 0) {
            if (errno == EINTR) {
                continue;
            }
            Fail("epoll_wait");
        }
        for (int i = 0; i < count; ++i) {
            if (events[i].data.ptr == nullptr) {
                AcceptAll();
            } else if (events[i].data.ptr == this) {
                uint64_t expirations = 0;
                [[maybe_unused]] const ssize_t ignored = ::read(timer_.Get(), &expirations, sizeof expirations);
            }
        }
        const Clock::time_point now = Clock::now();
        for (auto it = connections_.begin(); it != connections_.end();) {
            ShapedConnection& connection = **it;
            connection.Service(now);
            if (connection.Finished()) {
                it = connections_.erase(it);  // closing the sockets also leaves the epoll set
                continue;
            }
            UpdateInterest(connection);
            ++it;
        }
    }
}

}  // namespace xferfm::link
