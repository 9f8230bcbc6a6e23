// What each xferfm command was asked to do, as parseCommandLine fills it.
// The options two commands share are declared once, in a base struct, so
// that a default or a name cannot drift between `copy` and `send`.
//
// Plain values: copy them freely; nothing here is shared between threads.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace xferfm::cli {

// Where `serve` listens when not told otherwise: this machine only, on a
// fixed port above the well-known range.
constexpr const char* kDefaultListenHost = "127.0.0.1";
constexpr uint16_t kDefaultServePort = 47047;

// Taken by every command.
struct CommonOptions {
    int logLevel = 3;  // engine lines at this level and above go to stderr
};

// Taken by every command that moves files out of SOURCE paths (`copy`, `send`).
struct TransferOptions : CommonOptions {
    uint32_t bandwidthKbps = 0;  // 0: no limit, flow control off
    uint32_t window = 50;        // chunks in flight before an acknowledgement
    bool verify = false;
    bool showProgress = true;
};

// `copy` and `demo` (the demo fills sources and destination itself).
struct CopyOptions : TransferOptions {
    std::vector<std::string> sources;
    std::string destinationDir;
};

struct ServeOptions : CommonOptions {
    std::string listen = std::string(kDefaultListenHost) + ":" + std::to_string(kDefaultServePort);
    bool once = false;
    std::string portFile;  // when set, the bound port is written there once listening
    std::string destinationDir;
};

struct SendOptions : TransferOptions {
    std::string address;  // HOST:PORT of a serving receiver
    double progressTimeoutSeconds = 60;  // a receiver that moves nothing on this long ends the send
    std::vector<std::string> sources;
};

}  // namespace xferfm::cli
