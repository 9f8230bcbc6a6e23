#include "xferfm/host/ResumeNote.h"

#include <json/json.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>

namespace orin::xfer::host {
namespace {

std::string NotePath(const std::string& destinationDir) { return destinationDir + "/" + kResumeNoteName; }

}  // namespace

std::map<std::string, std::string> ReadResumeNote(const std::string& destinationDir)
{
    std::map<std::string, std::string> landed;
    std::ifstream in(NotePath(destinationDir));
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

void WriteResumeNote(const std::string& destinationDir, const std::map<std::string, std::string>& landed)
{
    Json::Value document(Json::objectValue);
    document["landed"] = Json::Value(Json::objectValue);
    for (const auto& [name, finalName] : landed) {
        document["landed"][name] = finalName;
    }
    std::ofstream out(NotePath(destinationDir), std::ios::trunc);
    out << Json::writeString(Json::StreamWriterBuilder(), document) << '\n';
}

void RemoveResumeNote(const std::string& destinationDir) { ::unlink(NotePath(destinationDir).c_str()); }

std::map<std::string, std::string> ChooseResumeNames(const std::string& destinationDir,
                                                     const std::vector<TopLevelEntry>& entries, bool noteOnly)
{
    const std::map<std::string, std::string> note = ReadResumeNote(destinationDir);
    std::map<std::string, std::string> names;
    for (const TopLevelEntry& entry : entries) {
        const auto noted = note.find(entry.name);
        const std::string candidate = noted != note.end()            ? noted->second
                                      : note.empty() && !noteOnly ? entry.name
                                                                  : "";
        struct stat status {};
        if (candidate.empty() || ::lstat((destinationDir + "/" + candidate).c_str(), &status) != 0) {
            continue;
        }
        if (S_ISDIR(status.st_mode) == entry.isDirectory) {
            names[entry.name] = candidate;
        }
    }
    return names;
}

std::string ResumedPath(const std::string& destinationDir, const std::map<std::string, std::string>& resumeNames,
                        const std::string& relativePath)
{
    const size_t slash = relativePath.find('/');
    const auto top = resumeNames.find(relativePath.substr(0, slash));
    if (top == resumeNames.end()) {
        return "";
    }
    return destinationDir + "/" + top->second + (slash == std::string::npos ? "" : relativePath.substr(slash));
}

bool IsCompleteCopy(const std::string& path, uint64_t size, const timespec& modified)
{
    struct stat status {};
    return ::lstat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode) &&
           static_cast<uint64_t>(status.st_size) == size && status.st_mtim.tv_sec == modified.tv_sec &&
           status.st_mtim.tv_nsec == modified.tv_nsec;
}

}  // namespace orin::xfer::host
