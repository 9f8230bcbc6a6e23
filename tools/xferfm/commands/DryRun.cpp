#include "DryRun.h"

#include <iostream>
#include <map>

#include "CopyJob.h"
#include "CopyReport.h"
#include "DestinationDir.h"
#include "ExitCode.h"
#include "NameReport.h"
#include "ResumePlan.h"
#include "xferfm/host/LandingNames.h"

namespace xferfm::cli {
namespace {

namespace host = orin::xfer::host;

bool isDirectoryEntry(const SourcePlan& plan, const std::string& relativePath)
{
    for (const SourceEntry& entry : plan.entries) {
        if (entry.relativePath == relativePath) {
            return entry.isDirectory;
        }
    }
    return false;
}

}  // namespace

int runDryRun(const CopyOptions& options, ToolContext& context)
{
    CopyOutcome outcome;
    outcome.destinationDir =
        usableDestinationDir(options.destinationDir, DestinationNeed::kDirectory, "cannot copy into");
    outcome.plan = planSources(options.sources, options.strict ? Uncopyable::kRefuse : Uncopyable::kSkip,
                               options.excludes);
    reportSkipped(outcome.plan.skipped, context.console);

    std::map<std::string, std::string> resumeNames;
    if (options.resume) {
        resumeNames = chooseResumeNames(outcome.plan, outcome.destinationDir);
        outcome.alreadyComplete = leaveOutCompleteFiles(outcome.plan, outcome.destinationDir, resumeNames);
    }

    std::vector<host::TopLevelEntry> topLevel;
    for (const std::string& name : outcome.plan.topLevelNames) {
        topLevel.push_back({name, isDirectoryEntry(outcome.plan, name)});
    }
    std::vector<std::string> finalNames = host::PredictLandingNames(outcome.destinationDir, topLevel);
    for (size_t i = 0; i < topLevel.size(); ++i) {
        const auto resumed = resumeNames.find(topLevel[i].name);
        if (resumed != resumeNames.end()) {
            finalNames[i] = resumed->second;  // continued where the interrupted copy put it
        }
        outcome.finalPaths[topLevel[i].name] = outcome.destinationDir + "/" + finalNames[i];
        if (finalNames[i] != topLevel[i].name && resumed == resumeNames.end()) {
            outcome.renamed.push_back({topLevel[i].name, finalNames[i]});
        }
    }
    if (const auto rules = receiverNameRules(options)) {
        std::vector<host::FileListEntry> entries;
        for (const SourceEntry& entry : outcome.plan.entries) {
            const size_t slash = entry.relativePath.rfind('/');
            host::FileListEntry listed;
            listed.filePath = slash == std::string::npos ? "" : entry.relativePath.substr(0, slash);
            listed.fileName = entry.relativePath.substr(slash + 1);
            listed.isDirectory = entry.isDirectory;
            entries.push_back(std::move(listed));
        }
        host::NameDecisions decisions = host::PredictNameDecisions(entries, *rules);
        outcome.namesMapped = std::move(decisions.mapped);
        outcome.namesRefused = std::move(decisions.refused);
        printRefusedNames(outcome.namesRefused, context.console, "would not be copied");
    }
    const int exitCode = toInt(!outcome.namesRefused.empty() ? ExitCode::kNamesRefused
                               : outcome.plan.skipped.empty() ? ExitCode::kOk
                                                              : ExitCode::kEntriesSkipped);

    const ReportStyle style = reportStyleOf(options);
    if (style == ReportStyle::kJson) {
        std::cout << jsonSummary(outcome, true, exitCode) << std::endl;
        return exitCode;
    }
    if (style == ReportStyle::kQuiet) {
        return exitCode;
    }
    for (const SourceEntry& entry : outcome.plan.entries) {
        const auto top = outcome.finalPaths.find(entry.relativePath);
        if (top != outcome.finalPaths.end()) {
            const std::string name = top->first;
            std::cout << "would copy '" << entry.sourcePath << "' to '" << top->second << "'";
            if (resumeNames.count(name) != 0) {
                std::cout << " (continuing the interrupted copy)";
            } else if (top->second.substr(top->second.find_last_of('/') + 1) != name) {
                std::cout << " ('" << name << "' is taken)";
            }
            std::cout << '\n';
        } else if (options.verbose && !entry.isDirectory) {
            std::cout << "  " << entry.relativePath << '\n';
        }
    }
    printMappedNames(outcome.namesMapped, "", "would land");
    if (!outcome.namesRefused.empty()) {
        std::cout << "would refuse " << outcome.namesRefused.size()
                  << (outcome.namesRefused.size() == 1 ? " entry" : " entries") << " for their names (named on stderr)\n";
    }
    if (!outcome.plan.skipped.empty()) {
        std::cout << "would skip " << outcome.plan.skipped.size()
                  << (outcome.plan.skipped.size() == 1 ? " entry" : " entries")
                  << " that cannot be copied (named on stderr)\n";
    }
    if (outcome.alreadyComplete != 0) {
        std::cout << "resuming: " << outcome.alreadyComplete << " files are complete already and would be kept\n";
    }
    std::cout << "dry run: would copy " << outcome.plan.fileCount << " files (" << outcome.plan.totalBytes
              << " bytes) in " << outcome.plan.directoryCount << " directories";
    if (outcome.plan.excluded != 0) {
        std::cout << ", " << outcome.plan.excluded << " entries excluded";
    }
    std::cout << "; nothing was written" << std::endl;
    return exitCode;
}

}  // namespace xferfm::cli
