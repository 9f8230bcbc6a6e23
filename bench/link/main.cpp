// xferfm-link: a shaped loopback link for benchmarks.
//   xferfm-link --listen PORT --to HOST:PORT [--delay-ms N] [--rate-mbit N]
//               [--queue-kib N] [--verbose]
// With --listen 0 a free port is taken and printed on stdout, alone on a
// line, once the shaper accepts connections.
#include <arpa/inet.h>
#include <netdb.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <string>

#include "LinkShaper.h"

namespace {

constexpr const char* kUsage =
    "usage: xferfm-link --listen PORT --to HOST:PORT [--delay-ms N] [--rate-mbit N] [--queue-kib N] [--verbose]\n"
    "  A TCP proxy on 127.0.0.1:PORT to HOST:PORT that delays each direction by N ms (one way,\n"
    "  fractions allowed) and caps it at N Mbit/s (0: no cap). --listen 0 prints the port taken.\n";

[[noreturn]] void UsageError(const std::string& message)
{
    std::fprintf(stderr, "xferfm-link: %s\n%s", message.c_str(), kUsage);
    std::exit(2);
}

double NumberOf(const std::string& option, const char* text)
{
    char* end = nullptr;
    const double value = std::strtod(text, &end);
    if (end == text || *end != '\0' || value < 0) {
        UsageError(option + " needs a number >= 0, not '" + text + "'");
    }
    return value;
}

sockaddr_in ResolveTarget(const std::string& hostPort)
{
    const auto colon = hostPort.rfind(':');
    if (colon == std::string::npos) {
        UsageError("--to needs HOST:PORT, not '" + hostPort + "'");
    }
    const std::string host = hostPort.substr(0, colon);
    const std::string port = hostPort.substr(colon + 1);
    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    if (::getaddrinfo(host.c_str(), port.c_str(), &hints, &found) != 0 || found == nullptr) {
        UsageError("cannot resolve '" + hostPort + "'");
    }
    sockaddr_in target{};
    std::memcpy(&target, found->ai_addr, sizeof target);
    ::freeaddrinfo(found);
    return target;
}

}  // namespace

int main(int argc, char** argv)
{
    long listenPort = -1;
    std::string to;
    xferfm::link::LinkProfile profile;
    for (int i = 1; i < argc; ++i) {
        const std::string option = argv[i];
        if (option == "--verbose") {
            profile.verbose = true;
            continue;
        }
        if (option == "-h" || option == "--help") {
            std::fputs(kUsage, stdout);
            return 0;
        }
        if (i + 1 >= argc) {
            UsageError("unknown option or missing value: " + option);
        }
        const char* value = argv[++i];
        if (option == "--listen") {
            listenPort = static_cast<long>(NumberOf(option, value));
        } else if (option == "--to") {
            to = value;
        } else if (option == "--delay-ms") {
            profile.oneWayDelay = std::chrono::nanoseconds(static_cast<long long>(NumberOf(option, value) * 1e6));
        } else if (option == "--rate-mbit") {
            profile.bytesPerSecond = NumberOf(option, value) * 1e6 / 8;
        } else if (option == "--queue-kib") {
            profile.queueLimit = static_cast<std::size_t>(NumberOf(option, value) * 1024);
        } else {
            UsageError("unknown option: " + option);
        }
    }
    if (listenPort < 0 || listenPort > 65535 || to.empty()) {
        UsageError("--listen and --to are required");
    }
    try {
        xferfm::link::LinkShaper shaper(static_cast<uint16_t>(listenPort), ResolveTarget(to), profile);
        if (listenPort == 0) {
            std::printf("%u\n", static_cast<unsigned>(shaper.Port()));
            std::fflush(stdout);
        }
        shaper.Run();
    } catch (const std::exception& error) {
        std::fprintf(stderr, "xferfm-link: %s\n", error.what());
        return 1;
    }
    return 0;
}
