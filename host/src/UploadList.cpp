// The sender's upload list, made from a source plan, and why the sender
// builds it itself rather than letting the engine enumerate:
//
// - List: the engine's enumeration (getTotalSize) skips hidden entries and
//   never lists directories, and ValidateFileList leaves top-level
//   directories as entries with their files in `expanded`. To copy like
//   `cp -r` (hidden files and empty directories included) the list is
//   built here from the plan (SourcePlan.cpp walks the tree once),
//   directories before their children: for each entry
//   sourceDir = the copied root's parent, filePath = the relative
//   sub-directory ("" at the top), fileName = the last component,
//   attribute 0x10 (directory) or 0x80 (file), fileSize (a directory: the
//   sum beneath it) and mode = the permission bits from stat (the engine's
//   enumeration leaves mode 0). Symbolic links are followed; anything that
//   is neither a file nor a directory is refused.
// - Names: UploadFiles announces destFilePath + "/" + destFileName (or
//   destFileName alone), so every entry gets destFilePath = filePath and
//   destFileName = fileName: the announced name is then the request name
//   the receiver's engine matches its records and marker tasks against.
#include "UploadList.h"

#include <utility>

namespace orin::xfer::host::detail {

std::string JoinPath(const std::string& left, const std::string& right)
{
    if (left.empty()) {
        return right;
    }
    if (left.back() == '/') {
        return left + right;
    }
    return left + "/" + right;
}

std::vector<FileDescription> UploadListOf(const SourcePlan& plan)
{
    std::vector<FileDescription> list;
    list.reserve(plan.entries.size());
    for (const SourceEntry& source : plan.entries) {
        const size_t slash = source.relativePath.find_last_of('/');
        FileDescription entry;
        entry.sourceDir = plan.roots[source.root].parentDir;
        entry.filePath = slash == std::string::npos ? std::string() : source.relativePath.substr(0, slash);
        entry.fileName = slash == std::string::npos ? source.relativePath : source.relativePath.substr(slash + 1);
        entry.destFilePath = entry.filePath;
        entry.destFileName = entry.fileName;
        entry.attribute = source.isDirectory ? kAttributeDirectory : kAttributeNormal;
        entry.mode = source.mode;
        entry.fileSize = source.size;
        list.push_back(std::move(entry));
    }
    return list;
}

std::string SourcePathOf(const FileDescription& entry)
{
    const std::string relative = entry.filePath.empty() ? entry.fileName : entry.filePath + "/" + entry.fileName;
    return JoinPath(entry.sourceDir, relative);
}

}  // namespace orin::xfer::host::detail
