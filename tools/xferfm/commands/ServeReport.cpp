#include "ServeReport.h"

#include <cstdio>
#include <vector>

#include "ExitCode.h"
#include "xferfm/host/RemoteNameGuard.h"

namespace xferfm::cli {
namespace {

namespace host = orin::xfer::host;
using Outcome = host::ReceivedSession::Outcome;

// Refused entries named in the session line; the count says the rest.
constexpr size_t kRefusalsNamed = 3;

// "received 3 files and 1 directories (42 bytes) in 0.10 s", with the
// verification and the renames when there are any.
std::string describeReceived(const host::ReceivedSession& session)
{
    const host::TransferSummary& summary = session.summary;
    const double seconds = std::chrono::duration<double>(session.duration).count();
    char text[200];
    std::snprintf(text, sizeof text, "received %zu files and %zu directories (%llu bytes) in %.2f s",
                  summary.filesDone, summary.directoriesDone, static_cast<unsigned long long>(summary.bytesDone),
                  seconds);
    std::string line = text;
    if (session.verdict && session.verdict->matched) {
        line += "; " + session.verdict->Text();
    }
    for (size_t index = 0; index < session.renamed.size(); ++index) {
        const auto& [name, landed] = session.renamed[index];
        line += (index == 0 ? "; already existed, so received " : ", ") + ("'" + name + "' as '" + landed + "'");
    }
    return line;
}

// "refused 2 of 7 entries (REASON; REASON)"
std::string describeRefusals(const std::vector<host::RefusedEntry>& refused, size_t entriesOffered)
{
    std::string text = "refused " + std::to_string(refused.size()) + " of " + std::to_string(entriesOffered) +
                       (entriesOffered == 1 ? " entry (" : " entries (");
    for (size_t index = 0; index < refused.size() && index < kRefusalsNamed; ++index) {
        text += (index == 0 ? "" : "; ") + refused[index].reason;
    }
    if (refused.size() > kRefusalsNamed) {
        text += "; and " + std::to_string(refused.size() - kRefusalsNamed) + " more";
    }
    return text + ")";
}

}  // namespace

std::string sessionPrefix(unsigned number, const std::string& peer)
{
    return "session " + std::to_string(number) + " from " + peer + ": ";
}

std::string sessionLine(const host::ReceivedSession& session, std::chrono::milliseconds listTimeout)
{
    std::string line = sessionPrefix(session.number, session.peer);
    switch (session.outcome) {
    case Outcome::kOk: line += "ok: " + describeReceived(session); break;
    case Outcome::kRefused:
        line += "failed: " +
                describeRefusals(session.refused, session.summary.entriesTotal + session.refused.size()) + "; " +
                describeReceived(session);
        break;
    case Outcome::kVerifyFailed:
        line += "failed: " + (session.verdict ? session.verdict->Text() : std::string("verify failed"));
        break;
    case Outcome::kCancelled: line += "failed: interrupted; the file in flight was removed"; break;
    case Outcome::kListTimeout:
        line += "failed: the sender offered no file list within " +
                std::to_string(std::chrono::duration_cast<std::chrono::seconds>(listTimeout).count()) + " s";
        break;
    case Outcome::kStalled:
    case Outcome::kLinkLost:
    case Outcome::kFailed: line += "failed: " + session.failure; break;
    }
    if (session.outcome != Outcome::kRefused && !session.refused.empty()) {
        line += " (" + std::to_string(session.refused.size()) + " refused entries were not copied either)";
    }
    // The line quotes what the sender said: keep its bytes off the terminal.
    return host::PrintableText(line);
}

int exitCodeOf(const host::ReceivedSession& session)
{
    switch (session.outcome) {
    case Outcome::kOk: return toInt(ExitCode::kOk);
    case Outcome::kVerifyFailed: return toInt(ExitCode::kVerifyMismatch);
    case Outcome::kCancelled: return toInt(ExitCode::kInterrupted);
    case Outcome::kRefused: return toInt(ExitCode::kNamesRefused);
    case Outcome::kLinkLost: return toInt(ExitCode::kLinkFailed);
    case Outcome::kListTimeout:
    case Outcome::kStalled:
    case Outcome::kFailed: break;
    }
    return toInt(ExitCode::kTransferFailed);
}

}  // namespace xferfm::cli
