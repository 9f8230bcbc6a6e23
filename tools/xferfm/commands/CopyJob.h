// One copy from SOURCE paths into DEST_DIR, the code path of both `copy` and
// `demo`: checks the sources and the destination first (so a bad path fails
// before anything is written), then joins a sender and a receiver endpoint
// of the host kit with an in-process transport and lets the receiver pull
// every entry through its engine into a private cache directory inside
// DEST_DIR, from where each file is renamed into place once complete.
//
// Threading: run() blocks the calling thread until the copy has ended;
// progress is drawn on a thread of its own and the endpoints run their own
// threads. Ctrl-C arrives through the SignalWatcher, whose hooks cancel both
// endpoints (first signal) or remove the cache and quit (second).
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "CommandOptions.h"
#include "SourcePlan.h"
#include "StderrConsole.h"
#include "ToolContext.h"
#include "TreeVerifier.h"
#include "xferfm/host/TransferObserver.h"

namespace xferfm::cli {

struct RenamedEntry {
    std::string name;       // the source's top-level name
    std::string finalName;  // the name it got because `name` was taken
};

struct CopyOutcome {
    SourcePlan plan;
    std::string destinationDir;                     // absolute
    std::map<std::string, std::string> finalPaths;  // relativePath -> where it landed
    std::vector<RenamedEntry> renamed;
    uint64_t filesCopied = 0;
    uint64_t bytesCopied = 0;
    uint64_t alreadyComplete = 0;  // --resume: files found complete and not sent again
    double seconds = 0.0;  // the transfer alone, verification not included
    std::optional<VerifyResult> verification;
    // --names: entries that landed under a mapped name (request name,
    // mapped request name) and entries refused for their names.
    std::vector<std::pair<std::string, std::string>> namesMapped;
    std::vector<orin::xfer::host::SkippedEntry> namesRefused;
};

// Runs the copy. Throws ToolError on every failure, with the exit code that
// fits it; Ctrl-C ends in ToolError(kInterrupted) once the endpoints have
// stopped and the cache is gone. A --verify mismatch is not thrown: it is
// in `verification` for the caller to report.
CopyOutcome runCopyJob(const CopyOptions& options, ToolContext& context);

}  // namespace xferfm::cli
