#include "FileLanding.h"

#include <limits.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>

#include "xferfm/host/SystemErrorText.h"
#include "xferfm/host/TreeRemoval.h"

namespace orin::xfer::host::detail {

FileLanding::FileLanding(NameProposer propose, uint32_t permissionMask, std::map<std::string, std::string> resumeNames)
    : mPropose(std::move(propose)), mPermissionMask(permissionMask), mResumeNames(std::move(resumeNames))
{
}

std::optional<std::string> FileLanding::ResumedName(const std::string& requestName) const
{
    std::lock_guard<std::mutex> lock(mMutex);
    const auto found = mResumeNames.find(requestName.substr(0, requestName.find('/')));
    return found != mResumeNames.end() ? std::optional<std::string>(found->second) : std::nullopt;
}

void FileLanding::ContinueUnder(std::map<std::string, std::string> resumeNames)
{
    std::lock_guard<std::mutex> lock(mMutex);
    mResumeNames.merge(resumeNames);
}

void FileLanding::UseLandingNames(std::map<std::string, std::string> landingNames)
{
    std::lock_guard<std::mutex> lock(mMutex);
    mLandingNames = std::move(landingNames);
}

std::string FileLanding::LandingNameOf(const FileListEntry& entry) const
{
    std::lock_guard<std::mutex> lock(mMutex);
    const auto found = mLandingNames.find(entry.RequestName());
    return found != mLandingNames.end() ? found->second : entry.fileName;
}

uint32_t FileLanding::WantedMode(const FileListEntry& entry) const
{
    return entry.mode & 0777 & ~mPermissionMask;
}

bool FileLanding::Prepare(const std::string& destinationDir,
                          const std::function<void(const std::string&)>& adoptCache, std::string& error)
{
    char resolved[PATH_MAX];
    struct stat status {};
    if (realpath(destinationDir.c_str(), resolved) == nullptr || stat(resolved, &status) != 0) {
        error = destinationDir + ": " + SystemErrorText(errno);
        return false;
    }
    if (!S_ISDIR(status.st_mode)) {
        error = destinationDir + ": not a directory";
        return false;
    }
    {
        std::lock_guard<std::mutex> lock(mMutex);
        mDestination = resolved;
    }
    std::string cache;
    if (!MakePrivateDirectory(resolved, kReceiverCachePrefix, cache, error)) {
        return false;
    }
    adoptCache(cache);
    std::lock_guard<std::mutex> lock(mMutex);
    mCacheDir = cache;
    return true;
}

std::string FileLanding::Destination() const
{
    std::lock_guard<std::mutex> lock(mMutex);
    return mDestination;
}

std::string FileLanding::CacheDirectory() const
{
    std::lock_guard<std::mutex> lock(mMutex);
    return mCacheDir;
}

std::string FileLanding::CachedPathOf(const FileListEntry& entry) const
{
    return CacheDirectory() + "/" + entry.RequestName();
}

std::string FileLanding::FinalParentOf(const FileListEntry& entry) const
{
    std::lock_guard<std::mutex> lock(mMutex);
    if (entry.filePath.empty()) {
        return mDestination;
    }
    auto found = mFinalDirectories.find(entry.filePath);
    return found != mFinalDirectories.end() ? found->second : mDestination + "/" + entry.filePath;
}

std::string FileLanding::DestinationOf(const std::string& name) const
{
    std::lock_guard<std::mutex> lock(mMutex);
    const size_t slash = name.find('/');
    if (slash == std::string::npos) {
        return mDestination + "/" + name;
    }
    auto top = mFinalDirectories.find(name.substr(0, slash));
    const std::string root = top != mFinalDirectories.end() ? top->second : mDestination + "/" + name.substr(0, slash);
    return root + name.substr(slash);
}

LandingResult FileLanding::LandDirectory(const FileListEntry& entry)
{
    const std::string name = entry.RequestName();
    // Owner access until the end, when the listed mode is applied.
    const mode_t createMode = entry.mode != 0 ? 0700 : 0777;
    const std::string landingName = LandingNameOf(entry);
    LandingResult result;
    int error = 0;
    const std::optional<std::string> resumed = ResumedName(name);
    if (resumed) {
        // Continued: the directory may exist from the interrupted copy.
        result.finalPath = entry.filePath.empty() ? Destination() + "/" + *resumed
                                                  : FinalParentOf(entry) + "/" + landingName;
        struct stat status {};
        error = MakeDirectory(result.finalPath, createMode);
        if (error == EEXIST && stat(result.finalPath.c_str(), &status) == 0 && S_ISDIR(status.st_mode)) {
            error = entry.mode != 0 ? (chmod(result.finalPath.c_str(), status.st_mode | 0700) == 0 ? 0 : errno) : 0;
        }
    } else if (entry.filePath.empty()) {
        error = ClaimName(
            Destination(), landingName, true, mPropose,
            [createMode](const std::string& path) { return MakeDirectory(path, createMode); }, result.finalPath);
    } else {
        result.finalPath = FinalParentOf(entry) + "/" + landingName;
        error = MakeDirectory(result.finalPath, createMode);
    }
    if (error != 0) {
        result.failurePath = result.finalPath.empty() ? Destination() + "/" + name : result.finalPath;
        result.failureMessage = result.failurePath + ": " + SystemErrorText(error);
        return result;
    }
    LandedDirectory landed;
    landed.path = result.finalPath;
    landed.mode = entry.mode != 0 ? WantedMode(entry) : 0;
    landed.hasTime = entry.hasModified;
    landed.modified = entry.modified;
    std::lock_guard<std::mutex> lock(mMutex);
    mFinalDirectories[name] = result.finalPath;
    if (landed.mode != 0 || landed.hasTime) {
        mDirectories.push_back(std::move(landed));
    }
    result.landed = true;
    return result;
}

namespace {

// The engine's stream reports a failed write without its errno. Asking the
// file system for room for the next bytes, in the same file, gives the
// reason back ("No space left on device", a quota, an I/O error); 0 when
// the room is there after all (the probe's blocks are given back). At most
// 1 MiB is asked for: a full disk refuses the first block already.
int ReasonForShortFile(const std::string& cached, uint64_t expected)
{
    constexpr uint64_t kProbeBytes = 1u << 20;
    const int fd = ::open(cached.c_str(), O_WRONLY | O_CLOEXEC | O_NOCTTY);
    if (fd < 0) {
        return errno == ENOENT ? 0 : errno;
    }
    struct stat status {};
    int error = fstat(fd, &status) != 0 ? errno : 0;
    const uint64_t got = static_cast<uint64_t>(status.st_size);
    if (error == 0) {
        const uint64_t probe = expected > got ? std::min(expected - got, kProbeBytes) : 1;
        error = posix_fallocate(fd, static_cast<off_t>(got), static_cast<off_t>(probe));
        if (error == 0) {
            (void)ftruncate(fd, static_cast<off_t>(got));
        }
    }
    ::close(fd);
    return error;
}

}  // namespace

std::string FileLanding::WriteFailureReason(const std::string& requestName, uint64_t expected) const
{
    const int reason = ReasonForShortFile(CacheDirectory() + "/" + requestName, expected);
    return reason != 0 ? SystemErrorText(reason) : std::string();
}

LandingResult FileLanding::CheckCachedFile(const FileListEntry& entry, uint64_t expected, mode_t& cachedMode) const
{
    LandingResult result;
    struct stat status {};
    const bool present = stat(CachedPathOf(entry).c_str(), &status) == 0;
    if (present && static_cast<uint64_t>(status.st_size) == expected) {
        cachedMode = status.st_mode & 07777;
        result.landed = true;
        return result;
    }
    const uint64_t got = present ? static_cast<uint64_t>(status.st_size) : 0;
    const std::string reason = present && got < expected ? WriteFailureReason(entry.RequestName(), expected) : "";
    result.failurePath = FinalParentOf(entry) + "/" + LandingNameOf(entry);
    result.failureMessage = result.failurePath + ": writing failed" + (reason.empty() ? "" : ": " + reason) + " (" +
                            std::to_string(got) + " of " + std::to_string(expected) + " bytes reached the disk)";
    return result;
}

LandingResult FileLanding::LandFile(const FileListEntry& entry, mode_t cachedMode)
{
    const std::string cached = CachedPathOf(entry);
    const std::string landingName = LandingNameOf(entry);
    LandingResult result;
    int error = 0;
    if (const std::optional<std::string> resumed = ResumedName(entry.RequestName())) {
        // Continued: what is there under this name is an older or other
        // version the caller chose to replace.
        result.finalPath = entry.filePath.empty() ? Destination() + "/" + *resumed
                                                  : FinalParentOf(entry) + "/" + landingName;
        error = rename(cached.c_str(), result.finalPath.c_str()) == 0 ? 0 : errno;
    } else {
        error = ClaimName(
            FinalParentOf(entry), landingName, false, mPropose,
            [&cached](const std::string& path) { return MoveNoReplace(cached, path); }, result.finalPath);
    }
    if (error != 0) {
        result.failurePath = FinalParentOf(entry) + "/" + landingName;
        result.failureMessage = result.failurePath + ": cannot be moved into place: " + SystemErrorText(error);
        return result;
    }
    // The file was created with the process's default mode: change it only
    // when that is not already the one wanted.
    if (entry.mode != 0 && cachedMode != WantedMode(entry)) {
        chmod(result.finalPath.c_str(), WantedMode(entry));
    }
    if (entry.hasModified) {
        const timespec times[2] = {{0, UTIME_OMIT}, entry.modified};
        utimensat(AT_FDCWD, result.finalPath.c_str(), times, 0);
    }
    result.landed = true;
    return result;
}

void FileLanding::ApplyDirectoryModes()
{
    std::vector<LandedDirectory> directories;
    {
        std::lock_guard<std::mutex> lock(mMutex);
        directories = mDirectories;
    }
    // Children first, so a read-only directory does not block its parent's.
    for (auto it = directories.rbegin(); it != directories.rend(); ++it) {
        if (it->mode != 0) {
            chmod(it->path.c_str(), it->mode);
        }
        if (it->hasTime) {
            const timespec times[2] = {{0, UTIME_OMIT}, it->modified};
            utimensat(AT_FDCWD, it->path.c_str(), times, 0);
        }
    }
}

void FileLanding::RemoveCache()
{
    RemoveTree(CacheDirectory());
}

}  // namespace orin::xfer::host::detail
