#include "CopyReport.h"

#include <json/json.h>

#include <cstdio>
#include <iostream>

#include "ExitCode.h"
#include "NameReport.h"

namespace xferfm::cli {

ReportStyle reportStyleOf(const OutputOptions& options)
{
    if (options.json) {
        return ReportStyle::kJson;
    }
    return options.quiet ? ReportStyle::kQuiet : ReportStyle::kNormal;
}

void reportSkipped(const std::vector<SkippedSource>& skipped, StderrConsole& console)
{
    if (skipped.empty()) {
        return;
    }
    console.writeLine("xferfm: " + std::to_string(skipped.size()) +
                      (skipped.size() == 1 ? " entry cannot be copied and is" : " entries cannot be copied and are") +
                      " skipped (--strict refuses the copy instead):");
    for (const SkippedSource& entry : skipped) {
        console.writeLine("  '" + entry.path + "': " + entry.reason);
    }
}

Json::Value skippedJson(const std::vector<SkippedSource>& skipped)
{
    Json::Value list(Json::arrayValue);
    for (const SkippedSource& entry : skipped) {
        Json::Value item(Json::objectValue);
        item["path"] = entry.path;
        item["reason"] = entry.reason;
        list.append(item);
    }
    return list;
}

std::string writeJson(const Json::Value& document)
{
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "  ";
    return Json::writeString(builder, document);
}

std::string summaryLine(const CopyOutcome& outcome)
{
    const double mebibytes = static_cast<double>(outcome.bytesCopied) / (1024.0 * 1024.0);
    const double rate = outcome.seconds > 0.0 ? mebibytes / outcome.seconds : 0.0;
    char text[200];
    std::snprintf(text, sizeof text, "copied %llu files (%llu bytes) in %.2f s, %.1f MiB/s",
                  static_cast<unsigned long long>(outcome.filesCopied),
                  static_cast<unsigned long long>(outcome.bytesCopied), outcome.seconds, rate);
    return text;
}

std::string jsonSummary(const CopyOutcome& outcome, bool dryRun, int exitCode)
{
    Json::Value document(Json::objectValue);
    document["dryRun"] = dryRun;
    document["destination"] = outcome.destinationDir;
    document["files"] = static_cast<Json::UInt64>(dryRun ? outcome.plan.fileCount : outcome.filesCopied);
    document["directories"] = static_cast<Json::UInt64>(outcome.plan.directoryCount);
    document["bytes"] = static_cast<Json::UInt64>(dryRun ? outcome.plan.totalBytes : outcome.bytesCopied);
    document["seconds"] = outcome.seconds;
    document["skipped"] = skippedJson(outcome.plan.skipped);
    document["excluded"] = static_cast<Json::UInt64>(outcome.plan.excluded);
    document["alreadyComplete"] = static_cast<Json::UInt64>(outcome.alreadyComplete);
    document["renamed"] = Json::Value(Json::arrayValue);
    for (const RenamedEntry& entry : outcome.renamed) {
        Json::Value renamed(Json::objectValue);
        renamed["name"] = entry.name;
        renamed["finalName"] = entry.finalName;
        document["renamed"].append(renamed);
    }
    document["namesMapped"] = Json::Value(Json::arrayValue);
    for (const auto& [name, mapped] : outcome.namesMapped) {
        Json::Value entry(Json::objectValue);
        entry["name"] = name;
        entry["mapped"] = mapped;
        document["namesMapped"].append(entry);
    }
    document["namesRefused"] = Json::Value(Json::arrayValue);
    for (const orin::xfer::host::SkippedEntry& refused : outcome.namesRefused) {
        Json::Value entry(Json::objectValue);
        entry["name"] = refused.path;
        entry["reason"] = refused.reason;
        document["namesRefused"].append(entry);
    }
    document["landed"] = Json::Value(Json::arrayValue);
    for (const std::string& name : outcome.plan.topLevelNames) {
        const auto found = outcome.finalPaths.find(name);
        if (found != outcome.finalPaths.end()) {
            Json::Value landed(Json::objectValue);
            landed["name"] = name;
            landed["path"] = found->second;
            document["landed"].append(landed);
        }
    }
    if (outcome.verification) {
        Json::Value verify(Json::objectValue);
        verify["filesCompared"] = static_cast<Json::UInt64>(outcome.verification->filesCompared);
        verify["mismatches"] = Json::Value(Json::arrayValue);
        for (const VerifyProblem& problem : outcome.verification->problems) {
            Json::Value mismatch(Json::objectValue);
            mismatch["source"] = problem.sourcePath;
            mismatch["destination"] = problem.destinationPath;
            mismatch["what"] = problem.what;
            verify["mismatches"].append(mismatch);
        }
        document["verify"] = verify;
    } else {
        document["verify"] = Json::Value(Json::nullValue);
    }
    document["exitCode"] = exitCode;
    return writeJson(document);
}

int reportCopy(const CopyOutcome& outcome, StderrConsole& console, ReportStyle style)
{
    const bool human = style == ReportStyle::kNormal;
    if (human) {
        for (const RenamedEntry& entry : outcome.renamed) {
            std::cout << "'" << entry.name << "' already existed in " << outcome.destinationDir << ": copied as '"
                      << entry.finalName << "'\n";
        }
    }
    if (human) {
        printMappedNames(outcome.namesMapped, "");
    }
    printRefusedNames(outcome.namesRefused, console);
    int exitCode = toInt(ExitCode::kOk);
    if (outcome.verification) {
        const VerifyResult& result = *outcome.verification;
        for (const VerifyProblem& problem : result.problems) {
            console.writeLine("xferfm: verify: '" + problem.sourcePath + "' and '" + problem.destinationPath +
                              "' do not match: " + problem.what);
        }
        if (result.problems.empty()) {
            if (human) {
                std::cout << "verified " << result.filesCompared
                          << " files: SHA-256 of every copy matches its source\n";
            }
        } else {
            if (human) {
                std::cout << "verify failed: " << result.problems.size() << " of " << outcome.plan.entries.size()
                          << " entries do not match their source\n";
            }
            exitCode = toInt(ExitCode::kVerifyMismatch);
        }
    }
    if (!outcome.namesRefused.empty()) {
        if (human) {
            std::cout << "refused " << outcome.namesRefused.size()
                      << (outcome.namesRefused.size() == 1 ? " entry" : " entries")
                      << " for their names (named on stderr); every other entry arrived\n";
        }
        if (exitCode == toInt(ExitCode::kOk)) {
            exitCode = toInt(ExitCode::kNamesRefused);
        }
    }
    if (!outcome.plan.skipped.empty()) {
        if (human) {
            std::cout << "skipped " << outcome.plan.skipped.size()
                      << (outcome.plan.skipped.size() == 1 ? " entry" : " entries")
                      << " that cannot be copied (named on stderr)\n";
        }
        if (exitCode == toInt(ExitCode::kOk)) {
            exitCode = toInt(ExitCode::kEntriesSkipped);
        }
    }
    if (human && outcome.alreadyComplete != 0) {
        std::cout << "resumed: " << outcome.alreadyComplete << " files were complete already and kept\n";
    }
    if (human) {
        std::cout << summaryLine(outcome) << std::endl;
    } else if (style == ReportStyle::kJson) {
        std::cout << jsonSummary(outcome, false, exitCode) << std::endl;
    }
    return exitCode;
}

}  // namespace xferfm::cli
