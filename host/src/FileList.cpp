#include "xferfm/host/FileList.h"

#include <json/json.h>

#include <exception>
#include <limits>
#include <memory>
#include <sstream>
#include <unordered_set>

#include "FileTransferTypes.h"
#include "StrictJson.h"

namespace orin::xfer::host {

namespace {

constexpr uint32_t kPermissionBits = 07777;

// Names in error messages, with control bytes made visible-safe.
std::string printable(const std::string& text)
{
    std::string out;
    out.reserve(text.size());
    for (const char c : text) {
        out += (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) ? '?' : c;
    }
    return out;
}

std::string describe(size_t index, const std::string& name)
{
    std::ostringstream text;
    text << "file list entry " << index;
    if (!name.empty()) {
        text << " (\"" << printable(name) << "\")";
    }
    return text.str();
}

// Empty when the component is acceptable, else the reason.
std::string componentProblem(const std::string& component, const FileListLimits& limits)
{
    if (component.empty()) {
        return "has an empty path component";
    }
    if (component == "." || component == "..") {
        return "has a \".\" or \"..\" path component";
    }
    if (component.size() > limits.maxNameBytes) {
        return "has a path component longer than " + std::to_string(limits.maxNameBytes) + " bytes";
    }
    if (component.find('\0') != std::string::npos) {
        return "has a NUL byte in its name";
    }
    return {};
}

std::string pathProblem(const std::string& filePath, const FileListLimits& limits, size_t& depth)
{
    depth = 0;
    if (filePath.empty()) {
        return {};
    }
    size_t start = 0;
    while (true) {
        const size_t slash = filePath.find('/', start);
        const std::string component =
            filePath.substr(start, slash == std::string::npos ? std::string::npos : slash - start);
        std::string problem = componentProblem(component, limits);
        if (!problem.empty()) {
            return problem;
        }
        ++depth;
        if (slash == std::string::npos) {
            return {};
        }
        start = slash + 1;
    }
}

bool readUnsigned(const Json::Value& value, uint64_t max, uint64_t& out)
{
    if (value.isUInt64()) {
        const uint64_t number = value.asUInt64();
        if (number <= max) {
            out = number;
            return true;
        }
    }
    return false;
}

// Fills `entry` from one element of "fileList"; empty string when fine.
std::string readEntry(const Json::Value& element, FileListEntry& entry)
{
    if (!element.isObject()) {
        return "is not an object";
    }
    for (const char* key : {"filePath", "fileName", "attribute", "mode", "fileSize"}) {
        if (!element.isMember(key)) {
            return std::string("lacks \"") + key + "\"";
        }
    }
    const Json::Value& filePath = element["filePath"];
    const Json::Value& fileName = element["fileName"];
    if (!filePath.isString() || !fileName.isString()) {
        return "has a \"filePath\" or \"fileName\" that is not a string";
    }
    entry.filePath = filePath.asString();
    entry.fileName = fileName.asString();
    uint64_t attribute = 0;
    uint64_t mode = 0;
    if (!readUnsigned(element["attribute"], std::numeric_limits<uint32_t>::max(), attribute)) {
        return "has an \"attribute\" that is not a 32-bit unsigned integer";
    }
    if (!readUnsigned(element["mode"], std::numeric_limits<uint32_t>::max(), mode)) {
        return "has a \"mode\" that is not a 32-bit unsigned integer";
    }
    if (!readUnsigned(element["fileSize"], std::numeric_limits<uint64_t>::max(), entry.fileSize)) {
        return "has a \"fileSize\" that is not an unsigned integer";
    }
    entry.isDirectory = (attribute & kAttributeDirectory) != 0;
    entry.mode = static_cast<uint32_t>(mode) & kPermissionBits;
    return {};
}

bool parseJson(const std::string& json, Json::Value& document, std::string& error)
{
    std::string problems;
    if (!detail::ReadStrictJson(json, document, problems)) {
        error = "the file list is not valid JSON: " + printable(problems);
        return false;
    }
    return true;
}

bool parseChecked(const std::string& json, ParsedFileList& out, std::string& error, const FileListLimits& limits)
{
    if (json.size() > limits.maxJsonBytes) {
        error = "the file list is larger than " + std::to_string(limits.maxJsonBytes) + " bytes";
        return false;
    }
    Json::Value document;
    if (!parseJson(json, document, error)) {
        return false;
    }
    if (!document.isObject()) {
        error = "the file list is not a JSON object";
        return false;
    }
    if (document.isMember("root") && !document["root"].isString()) {
        error = "the file list's \"root\" is not a string";
        return false;
    }
    if (!document.isMember("fileList")) {
        return true;  // nothing on offer
    }
    const Json::Value& list = document["fileList"];
    if (!list.isArray()) {
        error = "the file list's \"fileList\" is not an array";
        return false;
    }
    if (list.size() > limits.maxEntries) {
        error = "the file list has more than " + std::to_string(limits.maxEntries) + " entries";
        return false;
    }

    std::unordered_set<std::string> names;
    std::unordered_set<std::string> directories;
    out.entries.reserve(list.size());
    for (Json::ArrayIndex index = 0; index < list.size(); ++index) {
        FileListEntry entry;
        std::string problem = readEntry(list[index], entry);
        const std::string name = problem.empty() ? entry.RequestName() : std::string();
        size_t depth = 0;
        if (problem.empty()) {
            problem = entry.fileName.find('/') != std::string::npos ? "has a \"/\" in its file name"
                                                                     : componentProblem(entry.fileName, limits);
        }
        if (problem.empty()) {
            problem = pathProblem(entry.filePath, limits, depth);
        }
        if (problem.empty() && name.size() > limits.maxPathBytes) {
            problem = "has a path longer than " + std::to_string(limits.maxPathBytes) + " bytes";
        }
        if (problem.empty() && depth + 1 > limits.maxDepth) {
            problem = "is nested deeper than " + std::to_string(limits.maxDepth) + " levels";
        }
        if (problem.empty() && !entry.filePath.empty() && directories.count(entry.filePath) == 0) {
            problem = "is not under a directory listed before it";
        }
        if (problem.empty() && !names.insert(name).second) {
            problem = "repeats a name listed before";
        }
        if (problem.empty() && !entry.isDirectory) {
            if (entry.fileSize > std::numeric_limits<uint64_t>::max() - out.totalFileBytes) {
                problem = "makes the total size overflow";
            }
        }
        if (!problem.empty()) {
            error = describe(index, name) + " " + problem;
            return false;
        }
        if (entry.isDirectory) {
            directories.insert(name);
            ++out.directoryCount;
        } else {
            out.totalFileBytes += entry.fileSize;
            ++out.fileCount;
        }
        out.entries.push_back(std::move(entry));
    }
    return true;
}

}  // namespace

std::string FileListEntry::RequestName() const
{
    return filePath.empty() ? fileName : filePath + "/" + fileName;
}

bool ParseFileList(const std::string& json, ParsedFileList& out, std::string& error, const FileListLimits& limits)
{
    out = ParsedFileList{};
    error.clear();
    bool accepted = false;
    try {
        accepted = parseChecked(json, out, error, limits);
    } catch (const std::exception& failure) {
        // jsoncpp throws for documents past its depth limit, among others.
        error = std::string("the file list cannot be read: ") + printable(failure.what());
        accepted = false;
    } catch (...) {
        error = "the file list cannot be read";
        accepted = false;
    }
    if (!accepted) {
        out = ParsedFileList{};
        if (error.empty()) {
            error = "the file list is malformed";
        }
    }
    return accepted;
}

}  // namespace orin::xfer::host
