#include "SourcePlan.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <set>
#include <utility>

#include "ToolError.h"

namespace xferfm::cli {
namespace {

using FileIdentity = std::pair<dev_t, ino_t>;

[[noreturn]] void unreadable(const std::string& path, const std::string& reason)
{
    throw ToolError(ExitCode::kSourceUnreadable, "cannot read '" + path + "': " + reason);
}

// stat that follows links, telling a broken link from a missing path.
struct stat statFollowing(const std::string& path, bool topLevel)
{
    struct stat status {};
    if (::stat(path.c_str(), &status) == 0) {
        return status;
    }
    const int error = errno;
    struct stat linkStatus {};
    if (error == ENOENT && ::lstat(path.c_str(), &linkStatus) == 0 && S_ISLNK(linkStatus.st_mode)) {
        unreadable(path, "broken symbolic link");
    }
    if (error == ENOENT && topLevel) {
        throw ToolError(ExitCode::kSourceMissing, "cannot copy '" + path + "': " + systemErrorText(error));
    }
    if (error == ENOENT) {
        unreadable(path, "it vanished while being listed");
    }
    unreadable(path, systemErrorText(error));
}

void checkReadable(const std::string& path)
{
    const int descriptor = ::open(path.c_str(), O_RDONLY | O_NOCTTY | O_CLOEXEC);
    if (descriptor < 0) {
        unreadable(path, systemErrorText(errno));
    }
    ::close(descriptor);
}

class Walker {
public:
    explicit Walker(SourcePlan& plan) : mPlan(plan) {}

    void add(const std::string& sourcePath, const std::string& relativePath, const struct stat& status)
    {
        SourceEntry entry;
        entry.sourcePath = sourcePath;
        entry.relativePath = relativePath;
        entry.mode = status.st_mode & 07777;
        entry.modified = status.st_mtim;
        if (S_ISDIR(status.st_mode)) {
            entry.isDirectory = true;
            mPlan.entries.push_back(std::move(entry));
            ++mPlan.directoryCount;
            walkDirectory(sourcePath, relativePath, status);
        } else if (S_ISREG(status.st_mode)) {
            checkReadable(sourcePath);
            entry.size = static_cast<uint64_t>(status.st_size);
            mPlan.totalBytes += entry.size;
            ++mPlan.fileCount;
            mPlan.entries.push_back(std::move(entry));
        } else {
            unreadable(sourcePath, "not a regular file or directory");
        }
    }

private:
    void walkDirectory(const std::string& path, const std::string& relativePath, const struct stat& status)
    {
        const FileIdentity identity{status.st_dev, status.st_ino};
        mAncestors.insert(identity);
        for (const std::string& name : sortedNames(path)) {
            const std::string childPath = path + "/" + name;
            const struct stat childStatus = statFollowing(childPath, false);
            if (S_ISDIR(childStatus.st_mode) && mAncestors.count({childStatus.st_dev, childStatus.st_ino}) > 0) {
                unreadable(childPath, "it links back into its own parent directories");
            }
            add(childPath, relativePath + "/" + name, childStatus);
        }
        mAncestors.erase(identity);
    }

    static std::vector<std::string> sortedNames(const std::string& path)
    {
        DIR* directory = ::opendir(path.c_str());
        if (directory == nullptr) {
            unreadable(path, systemErrorText(errno));
        }
        std::vector<std::string> names;
        errno = 0;
        while (const dirent* entry = ::readdir(directory)) {
            const std::string name = entry->d_name;
            if (name != "." && name != "..") {
                names.push_back(name);
            }
        }
        const int error = errno;
        ::closedir(directory);
        if (error != 0) {
            unreadable(path, systemErrorText(error));
        }
        std::sort(names.begin(), names.end());
        return names;
    }

    SourcePlan& mPlan;
    std::set<FileIdentity> mAncestors;
};

}  // namespace

std::string topLevelName(const std::string& source)
{
    std::string trimmed = source;
    while (trimmed.size() > 1 && trimmed.back() == '/') {
        trimmed.pop_back();
    }
    std::string name = trimmed.substr(trimmed.find_last_of('/') + 1);
    if (name.empty() || name == "." || name == "..") {
        char resolved[PATH_MAX];
        if (::realpath(trimmed.c_str(), resolved) != nullptr) {
            const std::string real = resolved;
            name = real.substr(real.find_last_of('/') + 1);
        }
    }
    return name;
}

SourcePlan planSources(const std::vector<std::string>& sources)
{
    SourcePlan plan;
    Walker walker(plan);
    std::set<std::string> seenNames;
    for (const std::string& source : sources) {
        const struct stat status = statFollowing(source, true);
        const std::string name = topLevelName(source);
        if (name.empty()) {
            throw ToolError(ExitCode::kUsage, "cannot copy '" + source + "': it has no name to copy it under");
        }
        if (!seenNames.insert(name).second) {
            throw ToolError(ExitCode::kUsage,
                            "cannot copy '" + source + "': another SOURCE is also named '" + name + "'");
        }
        plan.topLevelNames.push_back(name);
        walker.add(source, name, status);
    }
    return plan;
}

}  // namespace xferfm::cli
