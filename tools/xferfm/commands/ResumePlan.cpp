#include "ResumePlan.h"

#include <json/json.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <memory>
#include <set>
#include <sstream>

namespace xferfm::cli {
namespace {

std::string notePath(const std::string& destinationDir) { return destinationDir + "/" + kResumeNoteName; }

bool isDirectoryEntry(const SourcePlan& plan, const std::string& relativePath)
{
    for (const SourceEntry& entry : plan.entries) {
        if (entry.relativePath == relativePath) {
            return entry.isDirectory;
        }
    }
    return false;
}

// Where the entry at `relativePath` is in DEST_DIR when it continues.
std::string resumedPath(const std::string& destinationDir, const std::map<std::string, std::string>& resumeNames,
                        const std::string& relativePath)
{
    const size_t slash = relativePath.find('/');
    const auto top = resumeNames.find(relativePath.substr(0, slash));
    if (top == resumeNames.end()) {
        return "";
    }
    return destinationDir + "/" + top->second + (slash == std::string::npos ? "" : relativePath.substr(slash));
}

}  // namespace

std::map<std::string, std::string> readResumeNote(const std::string& destinationDir)
{
    std::map<std::string, std::string> landed;
    std::ifstream in(notePath(destinationDir));
    if (!in) {
        return landed;
    }
    Json::Value document;
    Json::CharReaderBuilder builder;
    std::string errors;
    if (!Json::parseFromStream(builder, in, &document, &errors) || !document.isObject() ||
        !document["landed"].isObject()) {
        return landed;
    }
    for (const std::string& name : document["landed"].getMemberNames()) {
        const Json::Value& finalName = document["landed"][name];
        if (finalName.isString() && !finalName.asString().empty() &&
            finalName.asString().find('/') == std::string::npos) {
            landed[name] = finalName.asString();
        }
    }
    return landed;
}

void writeResumeNote(const std::string& destinationDir, const std::map<std::string, std::string>& landed)
{
    Json::Value document(Json::objectValue);
    document["landed"] = Json::Value(Json::objectValue);
    for (const auto& [name, finalName] : landed) {
        document["landed"][name] = finalName;
    }
    std::ofstream out(notePath(destinationDir), std::ios::trunc);
    out << Json::writeString(Json::StreamWriterBuilder(), document) << '\n';
}

void removeResumeNote(const std::string& destinationDir) { ::unlink(notePath(destinationDir).c_str()); }

std::map<std::string, std::string> chooseResumeNames(const SourcePlan& plan, const std::string& destinationDir)
{
    const std::map<std::string, std::string> note = readResumeNote(destinationDir);
    std::map<std::string, std::string> names;
    for (const std::string& name : plan.topLevelNames) {
        const auto noted = note.find(name);
        const std::string candidate = noted != note.end() ? noted->second : note.empty() ? name : "";
        struct stat status {};
        if (candidate.empty() || ::lstat((destinationDir + "/" + candidate).c_str(), &status) != 0) {
            continue;
        }
        if (S_ISDIR(status.st_mode) == isDirectoryEntry(plan, name)) {
            names[name] = candidate;
        }
    }
    return names;
}

uint64_t leaveOutCompleteFiles(SourcePlan& plan, const std::string& destinationDir,
                               const std::map<std::string, std::string>& resumeNames)
{
    std::set<std::string> complete;
    for (const SourceEntry& entry : plan.entries) {
        const std::string there = entry.isDirectory ? "" : resumedPath(destinationDir, resumeNames, entry.relativePath);
        struct stat status {};
        if (there.empty() || ::lstat(there.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) {
            continue;
        }
        if (static_cast<uint64_t>(status.st_size) == entry.size &&
            status.st_mtim.tv_sec == entry.modified.tv_sec && status.st_mtim.tv_nsec == entry.modified.tv_nsec) {
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
