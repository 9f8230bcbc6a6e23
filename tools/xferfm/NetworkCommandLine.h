// Arguments of `xferfm serve` and `xferfm send`, the two halves of a copy
// between two machines. Prints their --help and usage errors itself (help
// on stdout, errors on stderr).
//
// Threading: call once from main before any other thread starts.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace CLI {
class App;
}

namespace xferfm::cli {

// Where `serve` listens when not told otherwise: this machine only, on a
// fixed port above the well-known range.
constexpr const char* kDefaultListenHost = "127.0.0.1";
constexpr uint16_t kDefaultServePort = 47047;

struct ServeOptions {
    std::string listen = std::string(kDefaultListenHost) + ":" + std::to_string(kDefaultServePort);
    bool once = false;
    std::string portFile;  // when set, the bound port is written there once listening
    std::string destinationDir;
    int logLevel = 3;
};

struct SendOptions {
    std::string address;  // HOST:PORT of a serving receiver
    std::vector<std::string> sources;
    uint32_t bandwidthKbps = 0;
    uint32_t window = 50;
    bool verify = false;
    int logLevel = 3;
    bool showProgress = true;
};

enum class NetworkCommand { kServe, kSend, kExit };

struct ParsedNetworkCommand {
    NetworkCommand command = NetworkCommand::kExit;
    ServeOptions serve;
    SendOptions send;
    int exitCode = 0;  // kExit: what the process returns
};

ParsedNetworkCommand parseNetworkCommandLine(int argc, char** argv);

struct NetworkSubcommands {
    CLI::App* serve = nullptr;
    CLI::App* send = nullptr;
};

// Adds `serve` and `send`, with their options bound to `parsed`, to `app`:
// their own parser's, and the main parser's, whose --help lists them
// (main hands both commands to parseNetworkCommandLine before that parser
// runs).
NetworkSubcommands addNetworkCommands(CLI::App& app, ParsedNetworkCommand& parsed);

}  // namespace xferfm::cli
