// Where the receiver's entries land: the destination directory and its
// private cache, and the step from a complete cached file (or an announced
// directory) to its final name.
// - A top-level name that exists already is never replaced: the entry
//   takes the first free duplicate name the proposer gives ("name(1).ext",
//   "dir(1)"), and the children of a renamed directory follow it.
// - A file lands by a rename that refuses to replace anything, only after
//   its cached size matched the announced one; its permission bits follow
//   the list (less the permission mask) and its modification time the
//   sender's when it lands.
// - A directory is created with room to receive its children; its listed
//   permission bits and time are applied at the end, children first, so a
//   read-only directory still receives its content and no later arrival
//   moves its time.
// - Resuming, a top-level name listed in the resume names keeps the name it
//   already has: its directories are entered when they exist and its files
//   replace what is there (the caller sends only what is incomplete).
// - With name rules, an entry lands under the name they gave it (its
//   children follow it through their parent's final path).
// The filesystem steps themselves are DestinationFiles'.
//
// THREADING CONTRACT: Prepare, then the Land* calls and ApplyDirectoryModes
// from one thread at a time (the session thread). FinalParentOf,
// DestinationOf and CacheDirectory may be called from any thread: the
// state they read is under the landing's own lock, which is never held
// while calling out.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "DestinationFiles.h"
#include "xferfm/host/FileList.h"

namespace orin::xfer::host::detail {

inline constexpr const char* kReceiverCachePrefix = ".xferfm-cache-";

// The outcome of one landing step: the final path, or the path concerned
// and the message of the failure.
struct LandingResult {
    bool landed = false;
    std::string finalPath;
    std::string failurePath;
    std::string failureMessage;
};

class FileLanding {
public:
    // `propose` gives duplicate names (the engine's rule); the bits of
    // `permissionMask` are cleared from every listed mode (0: exact modes).
    FileLanding(NameProposer propose, uint32_t permissionMask, std::map<std::string, std::string> resumeNames = {});

    // More top-level names to continue under, learnt once the list is in
    // (before anything lands).
    void ContinueUnder(std::map<std::string, std::string> resumeNames);

    // Request name -> the last component it lands under, for the entries
    // whose name the receiver's name rules changed; before they land.
    void UseLandingNames(std::map<std::string, std::string> landingNames);

    // Resolves `destinationDir` and makes the cache directory inside it;
    // `adoptCache` hands the fresh cache to the engine before it becomes
    // visible through CacheDirectory(). False with `error` set when the
    // destination cannot be used.
    bool Prepare(const std::string& destinationDir, const std::function<void(const std::string&)>& adoptCache,
                 std::string& error);

    std::string Destination() const;
    std::string CacheDirectory() const;  // "" before Prepare
    // Where `entry` is received in the cache.
    std::string CachedPathOf(const FileListEntry& entry) const;

    // Where the parent directory of `entry` landed.
    std::string FinalParentOf(const FileListEntry& entry) const;
    // The destination path of the entry with request name `name`, before it
    // has its own final name (its top-level directory may have been renamed).
    std::string DestinationOf(const std::string& name) const;

    // Creates the directory of `entry` under its final name.
    LandingResult LandDirectory(const FileListEntry& entry);
    // Checks the cached file for `expected` bytes; `cachedMode` gets its
    // permission bits. A write error the stream only meets when it is
    // closed leaves a short file behind without a report: the size tells.
    LandingResult CheckCachedFile(const FileListEntry& entry, uint64_t expected, mode_t& cachedMode) const;
    // Why the file with request name `name` could not be written to its
    // `expected` size in the cache, as the system words it ("No space left
    // on device"); "" when the file system has room after all. Any thread.
    std::string WriteFailureReason(const std::string& requestName, uint64_t expected) const;
    // Moves the checked cached file to its final name.
    LandingResult LandFile(const FileListEntry& entry, mode_t cachedMode);

    // Applies the listed modes and times of the landed directories,
    // children first.
    void ApplyDirectoryModes();
    // Removes the cache directory (every exit path calls it).
    void RemoveCache();

private:
    struct LandedDirectory {
        std::string path;
        uint32_t mode = 0;  // 0: leave as created
        bool hasTime = false;
        timespec modified{};
    };

    // The name a resumed top-level entry continues under, or nullptr.
    std::optional<std::string> ResumedName(const std::string& requestName) const;
    // The name `entry` is created under in its parent.
    std::string LandingNameOf(const FileListEntry& entry) const;
    // The listed mode of `entry` less the mask.
    uint32_t WantedMode(const FileListEntry& entry) const;

    const NameProposer mPropose;
    const uint32_t mPermissionMask;
    mutable std::mutex mMutex;  // guards everything below
    std::map<std::string, std::string> mResumeNames;  // top-level request name -> existing name
    std::map<std::string, std::string> mLandingNames;  // request name -> last component
    std::string mDestination;
    std::string mCacheDir;
    std::map<std::string, std::string> mFinalDirectories;  // request name -> final path
    std::vector<LandedDirectory> mDirectories;  // in landing order
};

}  // namespace orin::xfer::host::detail
