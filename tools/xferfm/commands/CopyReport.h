// What `copy` (and `demo`) tell the user once the sources are walked and
// once the copy has ended: the entries left out, renames, --verify results
// and the summary line, or with --json one machine-readable document on
// stdout instead of the human lines there.
//
// Threading: call from the command's thread; stdout is written only here
// (and by -v's per-file lines while the copy runs, never at the same time).
#pragma once

#include <json/json.h>

#include <string>
#include <vector>

#include "CommandOptions.h"
#include "CopyJob.h"
#include "StderrConsole.h"

namespace xferfm::cli {

// How much goes to stdout.
enum class ReportStyle { kNormal, kQuiet, kJson };

ReportStyle reportStyleOf(const OutputOptions& options);

// One report on stderr, before anything is written, of every entry left out.
void reportSkipped(const std::vector<SkippedSource>& skipped, StderrConsole& console);

// The parts of a JSON summary `copy` and `send` share: the skipped
// entries as [{"path", "reason"}], and the document as written to stdout.
Json::Value skippedJson(const std::vector<SkippedSource>& skipped);
std::string writeJson(const Json::Value& document);

// "copied N files (B bytes) in T s, R MiB/s"
std::string summaryLine(const CopyOutcome& outcome);

// Prints renames and --verify results, then the summary line, on stdout
// (nothing there with kQuiet, one JSON document with kJson); mismatches go
// to stderr naming both paths. Returns the exit code.
int reportCopy(const CopyOutcome& outcome, StderrConsole& console, ReportStyle style = ReportStyle::kNormal);

// The --json document: {"dryRun", "destination", "files", "directories",
// "bytes", "seconds", "skipped": [{"path", "reason"}], "excluded",
// "renamed": [{"name", "finalName"}], "namesMapped": [{"name", "mapped"}],
// "namesRefused": [{"name", "reason"}], "landed": [{"name", "path"}] (each
// top-level entry), "verify": null or {"filesCompared",
// "mismatches": [{"source", "destination", "what"}]}, "exitCode"}.
std::string jsonSummary(const CopyOutcome& outcome, bool dryRun, int exitCode);

}  // namespace xferfm::cli
