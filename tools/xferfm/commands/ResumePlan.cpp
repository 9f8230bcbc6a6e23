// The note and the rules are the host kit's (xferfm/host/ResumeNote.h),
// shared with a network receiver that resumes; this applies them to the
// tool's plan.
#include "ResumePlan.h"

#include <algorithm>
#include <set>

#include "xferfm/host/ResumeNote.h"

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

std::map<std::string, std::string> readResumeNote(const std::string& destinationDir)
{
    return host::ReadResumeNote(destinationDir);
}

void writeResumeNote(const std::string& destinationDir, const std::map<std::string, std::string>& landed)
{
    host::WriteResumeNote(destinationDir, landed);
}

void removeResumeNote(const std::string& destinationDir) { host::RemoveResumeNote(destinationDir); }

std::map<std::string, std::string> chooseResumeNames(const SourcePlan& plan, const std::string& destinationDir)
{
    std::vector<host::TopLevelEntry> topLevel;
    for (const std::string& name : plan.topLevelNames) {
        topLevel.push_back({name, isDirectoryEntry(plan, name)});
    }
    return host::ChooseResumeNames(destinationDir, topLevel);
}

uint64_t leaveOutCompleteFiles(SourcePlan& plan, const std::string& destinationDir,
                               const std::map<std::string, std::string>& resumeNames)
{
    std::set<std::string> complete;
    for (const SourceEntry& entry : plan.entries) {
        const std::string there =
            entry.isDirectory ? "" : host::ResumedPath(destinationDir, resumeNames, entry.relativePath);
        if (!there.empty() && host::IsCompleteCopy(there, entry.size, entry.modified)) {
            complete.insert(entry.relativePath);
        }
    }
    if (complete.empty()) {
        return 0;
    }
    const auto done = [&complete](const auto& entry) { return complete.count(entry.relativePath) != 0; };
    for (const SourceEntry& entry : plan.entries) {
        if (done(entry)) {
            plan.totalBytes -= entry.size;
            --plan.fileCount;
        }
    }
    plan.entries.erase(std::remove_if(plan.entries.begin(), plan.entries.end(), done), plan.entries.end());
    auto& walked = plan.walked;
    for (const auto& entry : walked.entries) {
        if (done(entry)) {
            walked.totalBytes -= entry.size;
            --walked.fileCount;
        }
    }
    walked.entries.erase(std::remove_if(walked.entries.begin(), walked.entries.end(), done), walked.entries.end());
    return complete.size();
}

}  // namespace xferfm::cli
