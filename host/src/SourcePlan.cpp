// The one walk over the sources a user chose. Both the sender endpoint
// (Offer) and the command-line tool read the plan it makes, so the tree is
// listed, sized and checked once per copy.
#include "xferfm/host/SourcePlan.h"

#include <dirent.h>
#include <fnmatch.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <memory>
#include <set>
#include <utility>

#include "UploadList.h"
#include "xferfm/host/SystemErrorText.h"

namespace orin::xfer::host {

namespace {

constexpr uint32_t kPermissionBits = 07777;

using FileIdentity = std::pair<dev_t, ino_t>;

struct DirCloser {
    void operator()(DIR* dir) const { closedir(dir); }
};

std::string trimTrailingSlashes(std::string path)
{
    while (path.size() > 1 && path.back() == '/') {
        path.pop_back();
    }
    return path;
}

// Where a chosen path lives and what it is called there; false with the
// problem when it has no name to be copied under.
bool resolveRoot(const std::string& given, SourceRoot& root, SourceProblem& problem)
{
    root.given = given;
    std::string path = trimTrailingSlashes(given);
    if (path.empty()) {
        problem.kind = SourceProblemKind::kEmptyPath;
        return false;
    }
    size_t slash = path.find_last_of('/');
    std::string last = slash == std::string::npos ? path : path.substr(slash + 1);
    if (last == "." || last == ".." || path == "/") {
        // "." and ".." name their directory only through its real path.
        std::unique_ptr<char, decltype(&std::free)> resolved(realpath(path.c_str(), nullptr), &std::free);
        if (!resolved) {
            problem.kind = SourceProblemKind::kUnreadable;
            problem.error = errno;
            return false;
        }
        path = resolved.get();
        if (path == "/") {
            problem.kind = SourceProblemKind::kNoName;
            return false;
        }
        slash = path.find_last_of('/');
        last = path.substr(slash + 1);
    }
    root.name = last;
    if (slash == std::string::npos) {
        root.parentDir = ".";
    } else if (slash == 0) {
        root.parentDir = "/";
    } else {
        root.parentDir = path.substr(0, slash);
    }
    root.path = detail::JoinPath(root.parentDir, root.name);
    return true;
}

// What the walk does after one step: go on with the entry, go on without
// it (it was listed as skipped), or stop.
enum class Step { kGo, kSkip, kStop };

class Walker {
public:
    Walker(SourcePlan& plan, SourceProblem& problem, const PlanOptions& options)
        : mPlan(plan), mProblem(problem), mOptions(options)
    {
    }

    // Walks the chosen path `given` (roots walked so far: mPlan.roots).
    bool walkRoot(const std::string& given)
    {
        const size_t index = mPlan.roots.size();
        mPlan.roots.emplace_back();
        SourceRoot& root = mPlan.roots.back();
        mProblem = SourceProblem{};
        mProblem.root = index;
        mProblem.path = given;
        if (given.empty()) {
            mProblem.kind = SourceProblemKind::kEmptyPath;
            return false;
        }
        // Looked up as written, a path must exist before its name counts;
        // otherwise its name is judged first, then looked up by it.
        SourceProblem naming = mProblem;
        const bool named = resolveRoot(given, root, naming);
        struct stat status {};
        if (mOptions.pathsAsWritten) {
            const Step looked = statFollowing(given, true, status);
            if (looked != Step::kGo) {
                return looked == Step::kSkip;
            }
        }
        if (!named) {
            mProblem = naming;
            return false;
        }
        if (!mNames.insert(root.name).second) {
            mProblem.kind = SourceProblemKind::kDuplicateName;
            mProblem.name = root.name;
            return false;
        }
        if (!mOptions.pathsAsWritten) {
            const Step looked = statFollowing(root.path, true, status);
            if (looked != Step::kGo) {
                return looked == Step::kSkip;
            }
        }
        uint64_t size = 0;
        const size_t firstEntry = mPlan.entries.size();
        const Step added = add(index, root.path, root.name, status, size);
        if (added == Step::kGo && mPlan.entries.size() > firstEntry) {
            mPlan.topLevelNames.push_back(root.name);
        }
        return added != Step::kStop;
    }

private:
    bool fail(SourceProblemKind kind, const std::string& path, int error = 0)
    {
        mProblem.kind = kind;
        mProblem.path = path;
        mProblem.error = error;
        mProblem.fileType = 0;
        return false;
    }

    // A problem with one entry: left out when skipping, the end otherwise.
    Step skip(SourceProblemKind kind, const std::string& path, int error = 0, uint32_t fileType = 0)
    {
        fail(kind, path, error);
        mProblem.fileType = fileType;
        if (!mOptions.skipUncopyable) {
            return Step::kStop;
        }
        mPlan.skipped.push_back(mProblem);
        return Step::kSkip;
    }

    // stat that follows links, telling a broken link from a missing path.
    Step statFollowing(const std::string& path, bool topLevel, struct stat& status)
    {
        if (::stat(path.c_str(), &status) == 0) {
            return Step::kGo;
        }
        const int error = errno;
        struct stat linkStatus {};
        if (error == ENOENT && ::lstat(path.c_str(), &linkStatus) == 0 && S_ISLNK(linkStatus.st_mode)) {
            return skip(SourceProblemKind::kBrokenLink, path, error);
        }
        if (error == ENOENT && topLevel) {
            fail(SourceProblemKind::kMissing, path, error);
            return Step::kStop;
        }
        if (error == ENOENT) {
            return skip(SourceProblemKind::kVanished, path, error);
        }
        return skip(SourceProblemKind::kUnreadable, path, error);
    }

    // Adds the entry at `path` (already stat'ed) and, for a directory,
    // everything below it. `size` receives its size (0 when skipped).
    Step add(size_t root, const std::string& path, const std::string& relativePath, const struct stat& status,
             uint64_t& size)
    {
        size = 0;
        if (excluded(relativePath)) {
            ++mPlan.excluded;
            return Step::kSkip;
        }
        if (mOptions.refuseBackslashNames &&
            relativePath.find('\\', relativePath.find_last_of('/') + 1) != std::string::npos) {
            return skip(SourceProblemKind::kUnsupportedName, path);
        }
        SourceEntry entry;
        entry.root = root;
        entry.relativePath = relativePath;
        entry.sourcePath = path;
        entry.mode = static_cast<uint32_t>(status.st_mode) & kPermissionBits;
        entry.modified = status.st_mtim;
        if (S_ISREG(status.st_mode)) {
            if (mOptions.openEveryFile) {
                const Step readable = checkReadable(path);
                if (readable != Step::kGo) {
                    return readable;
                }
            }
            entry.size = static_cast<uint64_t>(status.st_size);
            size = entry.size;
            mPlan.totalBytes += entry.size;
            ++mPlan.fileCount;
            mPlan.entries.push_back(std::move(entry));
            return Step::kGo;
        }
        if (!S_ISDIR(status.st_mode)) {
            return skip(SourceProblemKind::kNotFileOrDirectory, path, 0,
                        static_cast<uint32_t>(status.st_mode) & S_IFMT);
        }
        const FileIdentity identity{status.st_dev, status.st_ino};
        if (!mAncestors.insert(identity).second) {
            return skip(SourceProblemKind::kLinkLoop, path);
        }
        entry.isDirectory = true;
        const size_t slot = mPlan.entries.size();
        mPlan.entries.push_back(std::move(entry));
        ++mPlan.directoryCount;
        std::vector<std::string> children;
        const Step listed = readNames(path, children);
        if (listed != Step::kGo) {
            // Nothing of it can be copied: not even the directory itself.
            mPlan.entries.pop_back();
            --mPlan.directoryCount;
            mAncestors.erase(identity);
            return listed;
        }
        uint64_t total = 0;
        for (const std::string& child : children) {
            const std::string childPath = detail::JoinPath(path, child);
            struct stat childStatus {};
            uint64_t childSize = 0;
            Step step = statFollowing(childPath, false, childStatus);
            if (step == Step::kGo) {
                step = add(root, childPath, relativePath + "/" + child, childStatus, childSize);
            }
            if (step == Step::kStop) {
                return Step::kStop;
            }
            total += childSize;
        }
        mPlan.entries[slot].size = total;
        size = total;
        mAncestors.erase(identity);
        return Step::kGo;
    }

    bool excluded(const std::string& relativePath) const
    {
        const std::string name = relativePath.substr(relativePath.find_last_of('/') + 1);
        for (const std::string& pattern : mOptions.exclude) {
            const bool byPath = pattern.find('/') != std::string::npos;
            if (fnmatch(pattern.c_str(), (byPath ? relativePath : name).c_str(), FNM_PATHNAME) == 0) {
                return true;
            }
        }
        return false;
    }

    Step checkReadable(const std::string& path)
    {
        const int descriptor = ::open(path.c_str(), O_RDONLY | O_NOCTTY | O_CLOEXEC);
        if (descriptor < 0) {
            return skip(SourceProblemKind::kUnreadable, path, errno);
        }
        ::close(descriptor);
        return Step::kGo;
    }

    Step readNames(const std::string& path, std::vector<std::string>& names)
    {
        std::unique_ptr<DIR, DirCloser> dir(opendir(path.c_str()));
        if (!dir) {
            return skip(SourceProblemKind::kUnreadable, path, errno);
        }
        errno = 0;
        while (const dirent* item = readdir(dir.get())) {
            const std::string child = item->d_name;
            if (child != "." && child != "..") {
                names.push_back(child);
            }
        }
        if (errno != 0) {
            return skip(SourceProblemKind::kUnreadable, path, errno);
        }
        std::sort(names.begin(), names.end());
        return Step::kGo;
    }

    SourcePlan& mPlan;
    SourceProblem& mProblem;
    const PlanOptions& mOptions;
    std::set<FileIdentity> mAncestors;
    std::set<std::string> mNames;
};

}  // namespace

bool PlanSources(const std::vector<std::string>& paths, SourcePlan& plan, SourceProblem& problem,
                 const PlanOptions& options)
{
    plan = SourcePlan{};
    Walker walker(plan, problem, options);
    for (const std::string& given : paths) {
        if (!walker.walkRoot(given)) {
            return false;
        }
    }
    return true;
}

std::string TopLevelName(const std::string& path)
{
    const std::string trimmed = trimTrailingSlashes(path);
    std::string name = trimmed.substr(trimmed.find_last_of('/') + 1);
    if (name.empty() || name == "." || name == "..") {
        std::unique_ptr<char, decltype(&std::free)> resolved(realpath(trimmed.c_str(), nullptr), &std::free);
        if (resolved) {
            const std::string real = resolved.get();
            name = real.substr(real.find_last_of('/') + 1);
        }
    }
    return name;
}

std::string DescribeFileType(uint32_t fileType)
{
    switch (fileType) {
    case S_IFIFO:
        return "a FIFO (named pipe), not a regular file or directory";
    case S_IFSOCK:
        return "a socket, not a regular file or directory";
    case S_IFCHR:
        return "a character device, not a regular file or directory";
    case S_IFBLK:
        return "a block device, not a regular file or directory";
    default:
        return "not a regular file or directory";
    }
}

std::string DescribeSourceProblem(const SourceProblem& problem)
{
    switch (problem.kind) {
    case SourceProblemKind::kEmptyPath:
        return "an empty path cannot be copied";
    case SourceProblemKind::kNoName:
        return "the root directory cannot be copied";
    case SourceProblemKind::kDuplicateName:
        return problem.path + ": another chosen path is also named \"" + problem.name + "\"";
    case SourceProblemKind::kNotFileOrDirectory:
        return problem.path + ": " + DescribeFileType(problem.fileType);
    case SourceProblemKind::kUnsupportedName:
        return problem.path + ": the name holds a backslash, which a copy cannot carry";
    case SourceProblemKind::kLinkLoop:
        return problem.path + ": the directory contains itself (symbolic link loop)";
    case SourceProblemKind::kMissing:
    case SourceProblemKind::kBrokenLink:
    case SourceProblemKind::kVanished:
    case SourceProblemKind::kUnreadable:
        break;
    }
    return problem.path + ": " + SystemErrorText(problem.error);
}

}  // namespace orin::xfer::host
