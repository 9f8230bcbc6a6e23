#include "xferfm/host/FileListDigests.h"

#include "FileListReader.h"
#include "xferfm/host/Sha256.h"

namespace orin::xfer::host {
namespace {

constexpr const char* kDigestKey = "sha256";

}  // namespace

bool AddFileDigests(std::string& json, const FileDigests& digests, std::string& error)
{
    // An entry that has a digest already keeps it (a key may appear once).
    const auto keyFor = [&digests](const detail::ReadEntry& read) {
        if (!read.problem.empty() || read.entry.isDirectory || read.hasDigest) {
            return std::string();
        }
        const auto found = digests.find(read.entry.RequestName());
        return found == digests.end() ? std::string()
                                      : std::string("\"") + kDigestKey + "\":\"" + found->second + "\"";
    };
    return detail::AddKeyToEntries(json, keyFor, error);
}

FileDigests FileDigestsOf(const ParsedFileList& list)
{
    FileDigests digests;
    for (const FileListEntry& entry : list.entries) {
        if (!entry.isDirectory && !entry.sha256.empty()) {
            digests.emplace(entry.RequestName(), entry.sha256);
        }
    }
    return digests;
}

FileDigests FileDigestsOf(const std::string& json)
{
    FileDigests digests;
    std::string error;
    FileListLimits unlimited;
    unlimited.maxJsonBytes = static_cast<size_t>(-1);
    unlimited.maxEntries = static_cast<size_t>(-1);
    const detail::EntrySink sink = [&digests](detail::ReadEntry& read, std::string&) {
        if (read.problem.empty() && !read.entry.isDirectory && !read.entry.sha256.empty()) {
            digests.emplace(read.entry.RequestName(), std::move(read.entry.sha256));
        }
        return true;
    };
    if (!detail::ReadFileListText(json, unlimited, sink, error)) {
        digests.clear();
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
