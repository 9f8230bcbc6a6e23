#include "xferfm/host/FileListDigests.h"

#include <json/json.h>

#include <exception>

#include "FileTransferTypes.h"
#include "StrictJson.h"
#include "xferfm/host/Sha256.h"

namespace orin::xfer::host {
namespace {

constexpr const char* kDigestKey = "sha256";

bool ReadList(const std::string& json, Json::Value& document, std::string& error)
{
    std::string problems;
    try {
        if (!detail::ReadStrictJson(json, document, problems)) {
            error = "the file list is not valid JSON: " + problems;
            return false;
        }
    } catch (const std::exception& failure) {
        error = std::string("the file list cannot be read: ") + failure.what();
        return false;
    }
    if (!document.isObject() || !document["fileList"].isArray()) {
        error = "the file list has no \"fileList\" array";
        return false;
    }
    return true;
}

// The entry's request name, or "" for a directory or a malformed entry.
std::string FileNameOf(const Json::Value& entry)
{
    if (!entry.isObject() || !entry["filePath"].isString() || !entry["fileName"].isString() ||
        !entry["attribute"].isUInt() || (entry["attribute"].asUInt() & kAttributeDirectory) != 0) {
        return "";
    }
    const std::string filePath = entry["filePath"].asString();
    const std::string fileName = entry["fileName"].asString();
    return filePath.empty() ? fileName : filePath + "/" + fileName;
}

bool IsHexDigest(const std::string& text)
{
    return text.size() == 64 && text.find_first_not_of("0123456789abcdef") == std::string::npos;
}

}  // namespace

bool AddFileDigests(std::string& json, const FileDigests& digests, std::string& error)
{
    Json::Value document;
    if (!ReadList(json, document, error)) {
        return false;
    }
    for (Json::Value& entry : document["fileList"]) {
        const auto found = digests.find(FileNameOf(entry));
        if (found != digests.end()) {
            entry[kDigestKey] = found->second;
        }
    }
    Json::StreamWriterBuilder writer;
    writer["indentation"] = "";
    json = Json::writeString(writer, document);
    return true;
}

FileDigests FileDigestsOf(const std::string& json)
{
    Json::Value document;
    std::string error;
    FileDigests digests;
    if (!ReadList(json, document, error)) {
        return digests;
    }
    for (const Json::Value& entry : document["fileList"]) {
        const std::string name = FileNameOf(entry);
        if (!name.empty() && entry.isMember(kDigestKey) && entry[kDigestKey].isString() &&
            IsHexDigest(entry[kDigestKey].asString())) {
            digests[name] = entry[kDigestKey].asString();
        }
    }
    return digests;
}

std::optional<FileDigests> DigestSourceFiles(const SourcePlan& plan, std::string& error)
{
    FileDigests digests;
    for (const SourceEntry& entry : plan.entries) {
        if (entry.isDirectory) {
            continue;
        }
        std::string why;
        const std::optional<std::string> digest = Sha256OfFile(entry.sourcePath, why);
        if (!digest) {
            error = "cannot read '" + entry.sourcePath + "': " + why;
            return std::nullopt;
        }
        digests[entry.relativePath] = *digest;
    }
    return digests;
}

}  // namespace orin::xfer::host
