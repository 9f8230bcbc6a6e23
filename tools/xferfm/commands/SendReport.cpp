#include "SendReport.h"

#include <cstdio>
#include <iostream>

#include "ExitCode.h"
#include "xferfm/host/RemoteNameGuard.h"

namespace xferfm::cli {

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
    document["dryRun"] = false;
    document["destination"] = outcome.address;
    document["files"] = static_cast<Json::UInt64>(outcome.filesSent);
    document["directories"] = static_cast<Json::UInt64>(outcome.plan.directoryCount);
    document["bytes"] = static_cast<Json::UInt64>(outcome.bytesSent);
    document["seconds"] = outcome.seconds;
    document["skipped"] = skippedJson(outcome.plan.skipped);
    document["excluded"] = static_cast<Json::UInt64>(outcome.plan.excluded);
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
    // What the receiver said is shown with its control bytes escaped.
    if (outcome.verdict && outcome.verdict->matched) {
        std::cout << orin::xfer::host::PrintableText(outcome.verdict->Text()) << "\n";
    }
    if (!outcome.plan.skipped.empty()) {
        std::cout << "skipped " << outcome.plan.skipped.size()
                  << (outcome.plan.skipped.size() == 1 ? " entry" : " entries")
                  << " that cannot be copied (named on stderr)\n";
    }
    std::cout << sendSummaryLine(outcome) << std::endl;
    return exitCode;
}

}  // namespace xferfm::cli
