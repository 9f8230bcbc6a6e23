// Turns argv into what the user asked for. Prints --help, --version and
// usage errors itself (help and version on stdout, errors on stderr).
//
// Threading: call once from main before any other thread starts.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace xferfm::cli {

struct CopyOptions {
    std::vector<std::string> sources;
    std::string destinationDir;
    uint32_t bandwidthKbps = 0;  // 0: no limit, flow control off
    uint32_t window = 50;        // chunks in flight before an acknowledgement
    bool verify = false;
    int logLevel = 3;            // engine lines at this level and above go to stderr
    bool showProgress = true;
};

enum class Command { kCopy, kDemo, kExit };

struct ParsedCommandLine {
    Command command = Command::kExit;
    CopyOptions options;  // kCopy and kDemo (the demo fills sources and destination itself)
    int exitCode = 0;     // kExit: what the process returns
};

ParsedCommandLine parseCommandLine(int argc, char** argv);

}  // namespace xferfm::cli
