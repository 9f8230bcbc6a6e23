#include "SendReport.h"

#include <cstdio>
#include <iostream>

#include "ExitCode.h"
#include "xferfm/host/RemoteNameGuard.h"

namespace xferfm::cli {
namespace {

namespace host = orin::xfer::host;

// `--dry-run`: where each top-level entry would land, and the totals.
void printPreview(const SendOutcome& outcome)
{
    for (const host::EntryLanding& landing : outcome.landings) {
        std::cout << "would send '" << host::PrintableText(landing.name) << "' to '"
                  << host::PrintableText(landing.landedAs) << "' on " << outcome.address;
        if (landing.resumed) {
            std::cout << " (continuing the interrupted copy)";
        } else if (landing.landedAs != landing.name) {
            std::cout << " ('" << host::PrintableText(landing.name) << "' is taken)";
        }
        std::cout << '\n';
    }
    if (!outcome.plan.skipped.empty()) {
        std::cout << "would skip " << outcome.plan.skipped.size()
                  << (outcome.plan.skipped.size() == 1 ? " entry" : " entries")
                  << " that cannot be copied (named on stderr)\n";
    }
    if (!outcome.refused.empty()) {
        std::cout << "the receiver would refuse " << outcome.refused.size()
                  << (outcome.refused.size() == 1 ? " entry" : " entries") << " (named on stderr)\n";
    }
    if (outcome.alreadyComplete != 0) {
        std::cout << "resuming: " << outcome.alreadyComplete << " files are complete already and would be kept\n";
    }
    std::cout << "dry run: would send " << outcome.plan.fileCount << " files (" << outcome.plan.totalBytes
              << " bytes) in " << outcome.plan.directoryCount << " directories";
    if (outcome.plan.excluded != 0) {
        std::cout << ", " << outcome.plan.excluded << " entries excluded";
    }
    std::cout << "; nothing was written" << std::endl;
}

}  // namespace

std::string sendSummaryLine(const SendOutcome& outcome)
{
    const double mebibytes = static_cast<double>(outcome.bytesSent) / (1024.0 * 1024.0);
    char text[300];
    std::snprintf(text, sizeof text, "sent %llu files (%llu bytes) to %s in %.2f s, %.1f MiB/s",
                  static_cast<unsigned long long>(outcome.filesSent),
                  static_cast<unsigned long long>(outcome.bytesSent), outcome.address.c_str(), outcome.seconds,
                  outcome.seconds > 0.0 ? mebibytes / outcome.seconds : 0.0);
    return text;
}

std::string sendJsonSummary(const SendOutcome& outcome, int exitCode)
{
    Json::Value document(Json::objectValue);
    document["dryRun"] = outcome.dryRun;
    document["destination"] = outcome.address;
    document["files"] = static_cast<Json::UInt64>(outcome.dryRun ? outcome.plan.fileCount : outcome.filesSent);
    document["directories"] = static_cast<Json::UInt64>(outcome.plan.directoryCount);
    document["bytes"] = static_cast<Json::UInt64>(outcome.dryRun ? outcome.plan.totalBytes : outcome.bytesSent);
    document["seconds"] = outcome.seconds;
    document["skipped"] = skippedJson(outcome.plan.skipped);
    document["excluded"] = static_cast<Json::UInt64>(outcome.plan.excluded);
    document["alreadyComplete"] = static_cast<Json::UInt64>(outcome.alreadyComplete);
    document["renamed"] = Json::Value(Json::arrayValue);
    document["landed"] = Json::Value(Json::arrayValue);
    for (const orin::xfer::host::EntryLanding& landing : outcome.landings) {
        Json::Value landed(Json::objectValue);
        landed["name"] = host::PrintableText(landing.name);
        landed["finalName"] = host::PrintableText(landing.landedAs);
        landed["resumed"] = landing.resumed;
        document["landed"].append(landed);
        if (!landing.resumed && landing.landedAs != landing.name) {
            Json::Value renamed(Json::objectValue);
            renamed["name"] = landed["name"];
            renamed["finalName"] = landed["finalName"];
            document["renamed"].append(renamed);
        }
    }
    document["refused"] = Json::Value(Json::arrayValue);
    for (const RefusedEntryReport& entry : outcome.refused) {
        Json::Value refused(Json::objectValue);
        refused["path"] = entry.path;
        refused["reason"] = entry.reason;
        document["refused"].append(refused);
    }
    if (outcome.verdict) {
        Json::Value verify(Json::objectValue);
        verify["filesCompared"] = static_cast<Json::UInt64>(outcome.verdict->filesCompared);
        verify["filesDiffering"] = static_cast<Json::UInt64>(outcome.verdict->filesDiffering);
        verify["matched"] = outcome.verdict->matched;
        document["verify"] = verify;
    } else {
        document["verify"] = Json::Value(Json::nullValue);
    }
    document["exitCode"] = exitCode;
    return writeJson(document);
}

int sendExitCode(const SendOutcome& outcome)
{
    if (!outcome.refused.empty()) {
        return toInt(ExitCode::kNamesRefused);
    }
    return toInt(outcome.plan.skipped.empty() ? ExitCode::kOk : ExitCode::kEntriesSkipped);
}

int reportSend(const SendOutcome& outcome, ReportStyle style)
{
    const int exitCode = sendExitCode(outcome);
    if (style == ReportStyle::kJson) {
        std::cout << sendJsonSummary(outcome, exitCode) << std::endl;
        return exitCode;
    }
    if (style == ReportStyle::kQuiet) {
        return exitCode;
    }
    if (outcome.dryRun) {
        printPreview(outcome);
        return exitCode;
    }
    // What the receiver said is shown with its control bytes escaped.
    if (outcome.verdict && outcome.verdict->matched) {
        std::cout << host::PrintableText(outcome.verdict->Text()) << "\n";
    }
    if (!outcome.plan.skipped.empty()) {
        std::cout << "skipped " << outcome.plan.skipped.size()
                  << (outcome.plan.skipped.size() == 1 ? " entry" : " entries")
                  << " that cannot be copied (named on stderr)\n";
    }
    for (const host::EntryLanding& landing : outcome.landings) {
        if (!landing.resumed && landing.landedAs != landing.name) {
            std::cout << "'" << host::PrintableText(landing.name) << "' already existed at the receiver: sent as '"
                      << host::PrintableText(landing.landedAs) << "'\n";
        }
    }
    if (outcome.alreadyComplete != 0) {
        std::cout << "resumed: " << outcome.alreadyComplete << " files were complete already and kept\n";
    }
    std::cout << sendSummaryLine(outcome) << std::endl;
    return exitCode;
}

}  // namespace xferfm::cli
