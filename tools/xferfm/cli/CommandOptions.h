// What each xferfm command was asked to do, as parseCommandLine fills it.
// The options two commands share are declared once, in a base struct, so
// that a default or a name cannot drift between `copy` and `send`.
//
// Plain values: copy them freely; nothing here is shared between threads.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "xferfm/host/NamePolicy.h"

namespace xferfm::cli {

// Where `serve` listens when not told otherwise: this machine only, on a
// fixed port above the well-known range.
constexpr const char* kDefaultListenHost = "127.0.0.1";
constexpr uint16_t kDefaultServePort = 47047;

// Taken by every command.
struct CommonOptions {
    // Engine lines at this level and above go to stderr; by default none
    // do: the tool reports every failure in its own words.
    int logLevel = 6;
};

// Taken by every command that moves files out of SOURCE paths (`copy`, `send`).
struct TransferOptions : CommonOptions {
    uint32_t bandwidthKbps = 0;  // 0: no limit, flow control off
    uint32_t window = 50;        // chunks in flight before an acknowledgement
    bool verify = false;
    bool showProgress = true;
};

// What the receiving side does with a name that breaks a rule of --names.
enum class NameChoice {
    kMap,      // land it under its reversible mapped form (the default)
    kRefuse,   // leave it out, named; the rest is copied (exit code 7)
    kMapBack,  // posix only: turn an earlier mapping's substitutes back
};

// --names and --name-action, taken by every command that receives.
struct NameOptions {
    orin::xfer::host::NameTarget names = orin::xfer::host::NameTarget::kPosix;
    NameChoice nameAction = NameChoice::kMap;
};

// How the receiving side lands what arrives (`copy`, `serve`).
struct LandingOptions : NameOptions {
    // Modes exactly as the source's; otherwise under the umask, as `cp`
    // without -p does.
    bool preservePermissions = false;
    uint32_t umask = 022;  // the process's, read by main before any thread starts
};

// Which source entries go and what a run does with them (`copy`, `send`).
struct SelectionOptions {
    std::vector<std::string> excludes;  // globs of entries to leave out
    // Refuse the whole copy at the first entry that cannot be copied,
    // instead of skipping each such entry.
    bool strict = false;
    bool dryRun = false;  // say what would be copied, write nothing
    bool resume = false;  // continue an interrupted copy into the same DEST_DIR
};

// How much a command says on stdout (`copy`, `send`, `serve --once`).
struct OutputOptions {
    bool quiet = false;    // nothing on stdout, no progress
    bool verbose = false;  // one line per file
    bool json = false;     // one JSON summary on stdout instead of the human lines
};

// `copy` and `demo` (the demo fills sources and destination itself).
struct CopyOptions : TransferOptions, LandingOptions, SelectionOptions, OutputOptions {
    std::vector<std::string> sources;
    std::string destinationDir;
    // A SOURCE or DEST_DIR written [USER@]HOST:PATH is reached through this
    // remote shell (split into words, arguments allowed), which runs
    // `xferfmPath` on that host.
    std::string rsh = "ssh";
    std::string xferfmPath = "xferfm";
};

struct ServeOptions : CommonOptions, LandingOptions, OutputOptions {
    std::string listen = std::string(kDefaultListenHost) + ":" + std::to_string(kDefaultServePort);
    bool once = false;
    bool stdio = false;  // serve one session over standard input/output instead of listening
    std::string portFile;  // when set, the bound port is written there once listening
    std::string destinationDir;
};

struct SendOptions : TransferOptions, SelectionOptions, OutputOptions {
    std::string address;  // HOST:PORT of a serving receiver ("" with stdio)
    bool stdio = false;   // the receiver is at the other end of standard input/output
    double progressTimeoutSeconds = 60;  // a receiver that moves nothing on this long ends the send
    std::vector<std::string> sources;
};

}  // namespace xferfm::cli
