// Why the sender builds its upload list itself, and how it matches the
// engine:
//
// - List: the engine's enumeration (getTotalSize) skips hidden entries and
//   never lists directories, and ValidateFileList leaves top-level
//   directories as entries with their files in `expanded`. To copy like
//   `cp -r` (hidden files and empty directories included) the list is
//   built here, directories before their children: for each entry
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
#include "SourceTree.h"

#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <set>
#include <utility>

namespace orin::xfer::host::detail {

namespace {

constexpr uint32_t kPermissionBits = 07777;

struct DirCloser {
    void operator()(DIR* dir) const { closedir(dir); }
};

std::string systemError(const std::string& path, int error)
{
    return path + ": " + std::strerror(error);
}

// Where a chosen path lives and what it is called there.
bool splitChosenPath(const std::string& given, std::string& parent, std::string& name, std::string& error)
{
    std::string path = given;
    while (path.size() > 1 && path.back() == '/') {
        path.pop_back();
    }
    if (path.empty()) {
        error = "an empty path cannot be copied";
        return false;
    }
    size_t slash = path.find_last_of('/');
    std::string last = slash == std::string::npos ? path : path.substr(slash + 1);
    if (last == "." || last == ".." || path == "/") {
        // "." and ".." name their directory only through its real path.
        std::unique_ptr<char, decltype(&std::free)> resolved(realpath(path.c_str(), nullptr), &std::free);
        if (!resolved) {
            error = systemError(given, errno);
            return false;
        }
        path = resolved.get();
        if (path == "/") {
            error = "the root directory cannot be copied";
            return false;
        }
        slash = path.find_last_of('/');
        last = path.substr(slash + 1);
    }
    name = last;
    if (slash == std::string::npos) {
        parent = ".";
    } else if (slash == 0) {
        parent = "/";
    } else {
        parent = path.substr(0, slash);
    }
    return true;
}

std::string joinPath(const std::string& left, const std::string& right)
{
    if (left.empty()) {
        return right;
    }
    if (left.back() == '/') {
        return left + right;
    }
    return left + "/" + right;
}

class TreeWalker {
public:
    TreeWalker(std::vector<FileDescription>& list, std::string& error) : mList(list), mError(error) {}

    // Adds `name` (found at `path`) and, for a directory, everything below.
    bool add(const std::string& path, const std::string& sourceDir, const std::string& filePath,
             const std::string& name, uint64_t& size)
    {
        struct stat status {};
        if (stat(path.c_str(), &status) != 0) {
            mError = systemError(path, errno);
            return false;
        }
        FileDescription entry;
        entry.sourceDir = sourceDir;
        entry.filePath = filePath;
        entry.fileName = name;
        entry.destFilePath = filePath;
        entry.destFileName = name;
        entry.mode = static_cast<uint32_t>(status.st_mode) & kPermissionBits;
        if (S_ISREG(status.st_mode)) {
            entry.attribute = kAttributeNormal;
            entry.fileSize = static_cast<uint64_t>(status.st_size);
            size = entry.fileSize;
            mList.push_back(std::move(entry));
            return true;
        }
        if (!S_ISDIR(status.st_mode)) {
            mError = path + ": not a regular file or directory";
            return false;
        }
        const std::pair<dev_t, ino_t> identity{status.st_dev, status.st_ino};
        if (!mAncestors.insert(identity).second) {
            mError = path + ": the directory contains itself (symbolic link loop)";
            return false;
        }
        entry.attribute = kAttributeDirectory;
        const size_t slot = mList.size();
        mList.push_back(std::move(entry));

        std::vector<std::string> children;
        if (!readNames(path, children)) {
            return false;
        }
        const std::string childPath = filePath.empty() ? name : filePath + "/" + name;
        uint64_t total = 0;
        for (const std::string& child : children) {
            uint64_t childSize = 0;
            if (!add(joinPath(path, child), sourceDir, childPath, child, childSize)) {
                return false;
            }
            total += childSize;
        }
        mList[slot].fileSize = total;
        size = total;
        mAncestors.erase(identity);
        return true;
    }

private:
    bool readNames(const std::string& path, std::vector<std::string>& names)
    {
        std::unique_ptr<DIR, DirCloser> dir(opendir(path.c_str()));
        if (!dir) {
            mError = systemError(path, errno);
            return false;
        }
        errno = 0;
        while (const dirent* item = readdir(dir.get())) {
            const std::string child = item->d_name;
            if (child != "." && child != "..") {
                names.push_back(child);
            }
        }
        if (errno != 0) {
            mError = systemError(path, errno);
            return false;
        }
        std::sort(names.begin(), names.end());
        return true;
    }

    std::vector<FileDescription>& mList;
    std::string& mError;
    std::set<std::pair<dev_t, ino_t>> mAncestors;
};

}  // namespace

bool BuildUploadList(const std::vector<std::string>& paths, std::vector<FileDescription>& list, std::string& error)
{
    list.clear();
    std::set<std::string> topNames;
    TreeWalker walker(list, error);
    for (const std::string& given : paths) {
        std::string parent;
        std::string name;
        if (!splitChosenPath(given, parent, name, error)) {
            list.clear();
            return false;
        }
        if (!topNames.insert(name).second) {
            error = given + ": another chosen path is also named \"" + name + "\"";
            list.clear();
            return false;
        }
        uint64_t size = 0;
        if (!walker.add(joinPath(parent, name), parent, "", name, size)) {
            list.clear();
            return false;
        }
    }
    return true;
}

std::string SourcePathOf(const FileDescription& entry)
{
    const std::string relative = entry.filePath.empty() ? entry.fileName : entry.filePath + "/" + entry.fileName;
    return joinPath(entry.sourceDir, relative);
}

}  // namespace orin::xfer::host::detail
