#include "ServeReport.h"

#include <json/json.h>

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
    if (session.offer.dryRun) {
        std::string line = "dry run, nothing written";
        for (size_t index = 0; index < session.landings.size(); ++index) {
            const host::EntryLanding& landing = session.landings[index];
            line += (index == 0 ? "; would land " : ", ") + ("'" + landing.name + "' as '" + landing.landedAs + "'");
        }
        if (session.entriesComplete != 0) {
            line += "; " + std::to_string(session.entriesComplete) + " files are complete already";
        }
        return line;
    }
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
    if (session.entriesComplete != 0) {
        line += "; resumed: " + std::to_string(session.entriesComplete) + " files were complete already and kept";
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

namespace {

// Why a session failed, in the words of its line ("" when it did not).
std::string failureOf(const host::ReceivedSession& session, std::chrono::milliseconds listTimeout)
{
    switch (session.outcome) {
    case Outcome::kOk: return "";
    case Outcome::kRefused:
        return describeRefusals(session.refused, session.summary.entriesTotal + session.refused.size()) + "; " +
               describeReceived(session);
    case Outcome::kVerifyFailed: return session.verdict ? session.verdict->Text() : std::string("verify failed");
    case Outcome::kCancelled: return "interrupted; the file in flight was removed";
    case Outcome::kCancelledBySender: return "the sender cancelled the copy; the file in flight was removed";
    case Outcome::kLinkLost:
        return "the link to the sender was lost: " + session.failure + "; the file in flight was removed";
    case Outcome::kListTimeout:
        return "the sender offered no file list within " +
               std::to_string(std::chrono::duration_cast<std::chrono::seconds>(listTimeout).count()) + " s";
    case Outcome::kStalled:
    case Outcome::kFailed: break;
    }
    return session.failure;
}

}  // namespace

std::string sessionLine(const host::ReceivedSession& session, std::chrono::milliseconds listTimeout)
{
    std::string line = sessionPrefix(session.number, session.peer);
    line += session.outcome == Outcome::kOk ? "ok: " + describeReceived(session)
                                            : "failed: " + failureOf(session, listTimeout);
    if (session.outcome != Outcome::kRefused && !session.refused.empty()) {
        line += " (" + std::to_string(session.refused.size()) + " refused entries were not copied either)";
    }
    if (session.resumable) {
        line += "; the complete files stay, and the same send with --resume continues the copy";
    }
    // The line quotes what the sender said: keep its bytes off the terminal.
    return host::PrintableText(line);
}

namespace {

const char* outcomeName(Outcome outcome)
{
    switch (outcome) {
    case Outcome::kOk: return "ok";
    case Outcome::kRefused: return "refused";
    case Outcome::kVerifyFailed: return "verify-failed";
    case Outcome::kCancelled: return "interrupted";
    case Outcome::kCancelledBySender: return "cancelled-by-sender";
    case Outcome::kLinkLost: return "link-lost";
    case Outcome::kListTimeout: return "list-timeout";
    case Outcome::kStalled: return "stalled";
    case Outcome::kFailed: break;
    }
    return "failed";
}

}  // namespace

std::string sessionJson(const host::ReceivedSession& session, const std::string& destination,
                        std::chrono::milliseconds listTimeout)
{
    Json::Value document(Json::objectValue);
    document["session"] = session.number;
    document["peer"] = session.peer;
    document["destination"] = destination;
    document["outcome"] = outcomeName(session.outcome);
    document["dryRun"] = session.offer.dryRun;
    document["alreadyComplete"] = static_cast<Json::UInt64>(session.entriesComplete);
    document["resumable"] = session.resumable;
    document["failure"] = host::PrintableText(failureOf(session, listTimeout));
    document["files"] = static_cast<Json::UInt64>(session.summary.filesDone);
    document["directories"] = static_cast<Json::UInt64>(session.summary.directoriesDone);
    document["bytes"] = static_cast<Json::UInt64>(session.summary.bytesDone);
    document["seconds"] = std::chrono::duration<double>(session.duration).count();
    document["refused"] = Json::Value(Json::arrayValue);
    for (const host::RefusedEntry& entry : session.refused) {
        document["refused"].append(host::PrintableText(entry.reason));
    }
    document["renamed"] = Json::Value(Json::arrayValue);
    for (const auto& [name, landed] : session.renamed) {
        Json::Value renamed(Json::objectValue);
        renamed["name"] = host::PrintableText(name);
        renamed["finalName"] = host::PrintableText(landed);
        document["renamed"].append(renamed);
    }
    if (session.verdict) {
        Json::Value verify(Json::objectValue);
        verify["filesCompared"] = static_cast<Json::UInt64>(session.verdict->filesCompared);
        verify["filesDiffering"] = static_cast<Json::UInt64>(session.verdict->filesDiffering);
        verify["matched"] = session.verdict->matched;
        document["verify"] = verify;
    } else {
        document["verify"] = Json::Value(Json::nullValue);
    }
    document["exitCode"] = exitCodeOf(session);
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";  // one line per session
    return Json::writeString(builder, document);
}

int exitCodeOf(const host::ReceivedSession& session)
{
    switch (session.outcome) {
    case Outcome::kOk: return toInt(ExitCode::kOk);
    case Outcome::kVerifyFailed: return toInt(ExitCode::kVerifyMismatch);
    case Outcome::kCancelled: return toInt(ExitCode::kInterrupted);
    case Outcome::kCancelledBySender: return toInt(ExitCode::kCancelledByPeer);
    case Outcome::kLinkLost: return toInt(ExitCode::kLinkFailed);
    case Outcome::kRefused: return toInt(ExitCode::kNamesRefused);
    case Outcome::kListTimeout:
    case Outcome::kStalled:
    case Outcome::kFailed: break;
    }
    return toInt(ExitCode::kTransferFailed);
}

}  // namespace xferfm::cli
