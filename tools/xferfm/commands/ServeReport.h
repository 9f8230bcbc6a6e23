// What `xferfm serve` says about one session the host kit's
// NetworkReceiver has received: the line on stdout and the exit code it
// stands for with --once.
//
// The line: "session N from HOST:PORT: ok: received ..." or "...: failed:
// REASON". A session whose list held refused names copies every other
// entry and says "failed: refused K of N entries (...); received ..."
// (the first kRefusalLinesPrinted refused entries of a session also got a
// line on stderr as they were refused, then one line saying the rest are
// only counted: a hostile list of 100,000 bad names prints 21 lines).
//
// Threading: plain functions of their arguments.
#pragma once

#include <chrono>
#include <cstddef>
#include <string>

#include "xferfm/host/NetworkReceiver.h"

namespace xferfm::cli {

// Refused entries named one line each, per session, at either end.
constexpr size_t kRefusalLinesPrinted = 20;

// What to print for the `count`-th refused entry of a session (1-based):
// its line, a line saying the rest are only counted, or nothing.
enum class RefusalLine { kNamed, kRestCounted, kSilent };
inline RefusalLine refusalLineFor(size_t count)
{
    if (count <= kRefusalLinesPrinted) {
        return RefusalLine::kNamed;
    }
    return count == kRefusalLinesPrinted + 1 ? RefusalLine::kRestCounted : RefusalLine::kSilent;
}

// "session N from HOST:PORT: "
std::string sessionPrefix(unsigned number, const std::string& peer);

// The session's line, its bytes from the sender made printable.
std::string sessionLine(const orin::xfer::host::ReceivedSession& session, std::chrono::milliseconds listTimeout);

// The session as one line of JSON (serve --json): {"session", "peer",
// "destination", "dryRun", "alreadyComplete", "resumable", "outcome" ("ok", "refused", "verify-failed", "interrupted",
// "cancelled-by-sender", "link-lost", "list-timeout", "stalled", "failed"),
// "failure" (the session line's reason, "" when ok), "files",
// "directories", "bytes", "seconds", "refused": [reason...], "renamed":
// [{"name", "finalName"}], "verify": null or {"filesCompared",
// "filesDiffering", "matched"}, "exitCode"}. Text from the sender is made
// printable.
std::string sessionJson(const orin::xfer::host::ReceivedSession& session, const std::string& destination,
                        std::chrono::milliseconds listTimeout);

// 0 ok, 1 failed, 6 verification failed, 7 names refused, 8 link lost, 10
// cancelled by the sender, 130 interrupted.
int exitCodeOf(const orin::xfer::host::ReceivedSession& session);

}  // namespace xferfm::cli
