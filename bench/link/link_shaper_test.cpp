// The shaper delays and caps as asked, and moves bytes unchanged. Runs the
// real xferfm-link binary between a client and a server in this process.
// Timing bounds are loose above (a busy machine wakes late) and tight below
// (a shaper must never deliver early or faster than the line).
#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "UniqueFd.h"

extern char** environ;

namespace {

using xferfm::link::UniqueFd;
using Clock = std::chrono::steady_clock;

double SecondsSince(Clock::time_point start)
{
    return std::chrono::duration<double>(Clock::now() - start).count();
}

UniqueFd ListenOnLoopback(uint16_t& port)
{
    UniqueFd fd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(::bind(fd.Get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    EXPECT_EQ(::listen(fd.Get(), 4), 0);
    socklen_t length = sizeof address;
    ::getsockname(fd.Get(), reinterpret_cast<sockaddr*>(&address), &length);
    port = ntohs(address.sin_port);
    return fd;
}

UniqueFd ConnectTo(uint16_t port)
{
    UniqueFd fd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(::connect(fd.Get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    const int on = 1;
    ::setsockopt(fd.Get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    return fd;
}

bool WriteAll(int fd, const char* data, size_t size)
{
    while (size > 0) {
        const ssize_t put = ::send(fd, data, size, MSG_NOSIGNAL);
        if (put <= 0) {
            return false;
        }
        data += put;
        size -= static_cast<size_t>(put);
    }
    return true;
}

// The shaper binary in a child process, stopped with SIGTERM on destruction.
class ShaperProcess {
public:
    ShaperProcess(uint16_t target, const std::string& delayMs, const std::string& rateMbit)
    {
        int out[2];
        EXPECT_EQ(::pipe(out), 0);
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
        posix_spawn_file_actions_addclose(&actions, out[0]);
        const std::string to = "127.0.0.1:" + std::to_string(target);
        std::vector<std::string> args = {XFERFM_LINK_BINARY, "--listen", "0", "--to", to,
                                         "--delay-ms", delayMs, "--rate-mbit", rateMbit};
        std::vector<char*> argv;
        for (auto& arg : args) {
            argv.push_back(arg.data());
        }
        argv.push_back(nullptr);
        EXPECT_EQ(::posix_spawn(&pid_, XFERFM_LINK_BINARY, &actions, nullptr, argv.data(), environ), 0);
        posix_spawn_file_actions_destroy(&actions);
        ::close(out[1]);
        UniqueFd reader(out[0]);
        std::string line;
        char c = 0;
        while (::read(reader.Get(), &c, 1) == 1 && c != '\n') {
            line += c;
        }
        port_ = static_cast<uint16_t>(std::stoi(line.empty() ? "0" : line));
        EXPECT_NE(port_, 0) << "the shaper printed no port";
    }
    ~ShaperProcess()
    {
        ::kill(pid_, SIGTERM);
        int status = 0;
        ::waitpid(pid_, &status, 0);
    }
    ShaperProcess(const ShaperProcess&) = delete;
    ShaperProcess& operator=(const ShaperProcess&) = delete;
    uint16_t Port() const { return port_; }

private:
    pid_t pid_ = -1;
    uint16_t port_ = 0;
};

TEST(LinkShaper, ARoundTripTakesTwiceTheOneWayDelay)
{
    uint16_t serverPort = 0;
    UniqueFd listener = ListenOnLoopback(serverPort);
    std::thread echo([&] {
        UniqueFd peer(::accept(listener.Get(), nullptr, nullptr));
        char byte = 0;
        while (::read(peer.Get(), &byte, 1) == 1 && WriteAll(peer.Get(), &byte, 1)) {
        }
    });
    ShaperProcess shaper(serverPort, "20", "0");
    UniqueFd client = ConnectTo(shaper.Port());
    std::vector<double> rtts;
    char byte = 'x';
    for (int i = 0; i < 6; ++i) {
        const auto start = Clock::now();
        ASSERT_TRUE(WriteAll(client.Get(), &byte, 1));
        ASSERT_EQ(::read(client.Get(), &byte, 1), 1);
        rtts.push_back(SecondsSince(start));
    }
    ::shutdown(client.Get(), SHUT_WR);
    echo.join();
    // The first exchange also pays the emulated handshake.
    EXPECT_GE(rtts[0], 0.060 - 0.001);
    rtts.erase(rtts.begin());
    std::sort(rtts.begin(), rtts.end());
    EXPECT_GE(rtts.front(), 0.040 - 0.001);
    EXPECT_LE(rtts[rtts.size() / 2], 0.040 + 0.015);
}

// A counting pattern (modulo a prime, so it never lines up with buffer
// sizes) long enough to copy or compare any chunk at any offset from it.
constexpr size_t kChunk = 256 * 1024;
constexpr size_t kPeriod = 251;

const std::vector<char>& Pattern()
{
    static const std::vector<char> pattern = [] {
        std::vector<char> bytes(kChunk + kPeriod);
        for (size_t i = 0; i < bytes.size(); ++i) {
            bytes[i] = static_cast<char>(i % kPeriod);
        }
        return bytes;
    }();
    return pattern;
}

// Streams `bytes` of the pattern through a link and returns the seconds
// until the receiver saw the end of stream; checks every byte.
double StreamThrough(uint16_t port, size_t bytes, UniqueFd& listener)
{
    const std::vector<char>& pattern = Pattern();
    bool intact = true;
    size_t received = 0;
    std::thread sink([&] {
        UniqueFd peer(::accept(listener.Get(), nullptr, nullptr));
        std::vector<char> buffer(kChunk);
        for (;;) {
            const ssize_t got = ::read(peer.Get(), buffer.data(), buffer.size());
            if (got <= 0) {
                break;
            }
            const size_t size = static_cast<size_t>(got);
            intact = intact && std::memcmp(buffer.data(), pattern.data() + received % kPeriod, size) == 0;
            received += size;
        }
    });
    UniqueFd client = ConnectTo(port);
    const auto start = Clock::now();
    for (size_t sent = 0; sent < bytes;) {
        const size_t take = std::min(kChunk, bytes - sent);
        EXPECT_TRUE(WriteAll(client.Get(), pattern.data() + sent % kPeriod, take));
        sent += take;
    }
    ::shutdown(client.Get(), SHUT_WR);
    sink.join();
    const double seconds = SecondsSince(start);
    EXPECT_EQ(received, bytes);
    EXPECT_TRUE(intact) << "bytes changed on the way";
    return seconds;
}

// Streams `bytes` through a link of `rateMbit` with no delay and checks
// the time against the line's.
void ExpectLineRate(const char* rateMbit, size_t bytes)
{
    uint16_t serverPort = 0;
    UniqueFd listener = ListenOnLoopback(serverPort);
    ShaperProcess shaper(serverPort, "0", rateMbit);
    const double seconds = StreamThrough(shaper.Port(), bytes, listener);
    const double lineSeconds = static_cast<double>(bytes) * 8 / (std::stod(rateMbit) * 1e6);
    std::printf("%zu MiB at %s Mbit/s: %.3f s (line %.3f s)\n", bytes >> 20, rateMbit, seconds, lineSeconds);
    EXPECT_GE(seconds, lineSeconds * 0.98);
    EXPECT_LE(seconds, lineSeconds * 1.30);
}

TEST(LinkShaper, AStreamMovesAtTheSlowProfilesLineRate)
{
    ExpectLineRate("100", 4 << 20);
}

TEST(LinkShaper, AStreamMovesAtTheFastProfilesLineRate)
{
    ExpectLineRate("800", 32 << 20);
}

// Echoes a stream back while it arrives: both directions carry `bytes` at
// once, and each must get the whole line rate.
TEST(LinkShaper, EachDirectionHasItsOwnLine)
{
    uint16_t serverPort = 0;
    UniqueFd listener = ListenOnLoopback(serverPort);
    std::thread echo([&] {
        UniqueFd peer(::accept(listener.Get(), nullptr, nullptr));
        std::vector<char> buffer(kChunk);
        ssize_t got = 0;
        while ((got = ::read(peer.Get(), buffer.data(), buffer.size())) > 0 &&
               WriteAll(peer.Get(), buffer.data(), static_cast<size_t>(got))) {
        }
        ::shutdown(peer.Get(), SHUT_WR);
    });
    ShaperProcess shaper(serverPort, "0", "100");
    UniqueFd client = ConnectTo(shaper.Port());
    const size_t bytes = 4 << 20;
    const auto start = Clock::now();
    std::thread writer([&] {
        for (size_t sent = 0; sent < bytes;) {
            const size_t take = std::min(kChunk, bytes - sent);
            EXPECT_TRUE(WriteAll(client.Get(), Pattern().data() + sent % kPeriod, take));
            sent += take;
        }
        ::shutdown(client.Get(), SHUT_WR);
    });
    std::vector<char> buffer(kChunk);
    size_t received = 0;
    ssize_t got = 0;
    while ((got = ::read(client.Get(), buffer.data(), buffer.size())) > 0) {
        received += static_cast<size_t>(got);
    }
    const double seconds = SecondsSince(start);
    writer.join();
    echo.join();
    EXPECT_EQ(received, bytes);
    const double lineSeconds = bytes * 8 / 100e6;
    std::printf("4 MiB each way at 100 Mbit/s: %.3f s (one line's time %.3f s)\n", seconds, lineSeconds);
    EXPECT_LE(seconds, lineSeconds * 1.30);  // a shared line would take twice as long
}

// The figure docs/performance.md quotes for the shaper's own cost: with no
// delay and no cap it must move far more than the fastest profile's 800 Mbit/s.
TEST(LinkShaper, UnshapedItIsFarFasterThanTheFastestProfile)
{
    const size_t bytes = 256 << 20;
    uint16_t serverPort = 0;
    UniqueFd direct = ListenOnLoopback(serverPort);
    const double directSeconds = StreamThrough(serverPort, bytes, direct);
    UniqueFd listener = ListenOnLoopback(serverPort);
    ShaperProcess shaper(serverPort, "0", "0");
    const double seconds = StreamThrough(shaper.Port(), bytes, listener);
    const double mbit = bytes * 8 / seconds / 1e6;
    std::printf("256 MiB unshaped: direct %.0f Mbit/s, through the shaper %.0f Mbit/s\n",
                bytes * 8 / directSeconds / 1e6, mbit);
    EXPECT_GE(mbit, 2 * 800);
}

}  // namespace
