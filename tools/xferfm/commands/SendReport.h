// What `send` tells the user once the copy has ended: the summary line (and
// the receiver's verdict) on stdout, or with --json one machine-readable
// document there instead; the exit code that sums it up.
//
// Threading: call from the command's thread, once the sender has finished.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "CopyReport.h"
#include "SourcePlan.h"
#include "xferfm/host/TransportMessages.h"

namespace xferfm::cli {

// An entry the receiver would not take, in its words.
struct RefusedEntryReport {
    std::string path;    // the source path
    std::string reason;  // names the entry and the rule it broke
};

struct SendOutcome {
    SourcePlan plan;
    std::string address;  // HOST:PORT of the receiver
    uint64_t filesSent = 0;
    uint64_t bytesSent = 0;
    double seconds = 0.0;  // from connecting to the receiver's goodbye
    std::vector<RefusedEntryReport> refused;
    std::optional<orin::xfer::host::VerifyVerdict> verdict;  // when --verify
    bool dryRun = false;  // the receiver only said what it would do
    // With --dry-run or --resume: where each top-level entry landed (or
    // would), as the receiver answered.
    std::vector<orin::xfer::host::EntryLanding> landings;
    uint64_t alreadyComplete = 0;  // --resume: files the receiver had complete and kept
};

// "sent N files (B bytes) to HOST:PORT in T s, R MiB/s"
std::string sendSummaryLine(const SendOutcome& outcome);

// The --json document: {"dryRun", "destination" (the receiver's address),
// "files", "directories", "bytes", "seconds", "skipped": [{"path",
// "reason"}], "excluded", "alreadyComplete", "refused": [{"path",
// "reason"}], "renamed": [{"name", "finalName"}], "landed": [{"name",
// "finalName", "resumed"}] (with --dry-run or --resume), "verify": null or
// {"filesCompared", "filesDiffering", "matched"}, "exitCode"}. A dry run
// counts the files and bytes it would send.
std::string sendJsonSummary(const SendOutcome& outcome, int exitCode);

// 7 when the receiver refused entries, else 11 when source entries were
// skipped, else 0.
int sendExitCode(const SendOutcome& outcome);

// Prints the verdict and the summary line (nothing with kQuiet, the JSON
// document with kJson) and returns sendExitCode.
int reportSend(const SendOutcome& outcome, ReportStyle style);

}  // namespace xferfm::cli
