// What a copy will send: the local paths a user chose, walked once, like
// `cp -r` sees them. Every directory (empty ones too) comes before what it
// holds, hidden entries are included, symbolic links are followed, and
// each entry has the size, permission bits and modification time the copy
// must reproduce. A sender offers a plan (SenderEndpoint::Offer); a tool
// may show its totals, hash its files or compare a copy against it.
//
// Usage: PlanSources(paths, plan, problem); on false `problem` says what
// stops the copy and `plan` holds nothing of use. With
// PlanOptions::skipUncopyable the entries that cannot be copied (special
// files, broken links, unreadable entries, names a copy cannot carry) are
// all found, left out and listed in `plan.skipped`, and the walk goes on;
// only a problem with the request itself (a missing or unnamed path, two
// paths with the same name) still stops it.
//
// THREADING CONTRACT: PlanSources reads the filesystem on the calling
// thread and blocks for as long as the walk takes; it keeps no state, so
// it may run on any thread, also concurrently. A plan is a plain value.
#pragma once

#include <cstdint>
#include <ctime>
#include <string>
#include <vector>

namespace orin::xfer::host {

// One chosen path, as given, and where the walk found it.
struct SourceRoot {
    std::string given;      // the path as the user wrote it
    std::string parentDir;  // the directory it is copied from ("." for a bare name)
    std::string name;       // the name it is copied under
    std::string path;       // where it is read from: parentDir joined with name
};

struct SourceEntry {
    size_t root = 0;           // index into SourcePlan::roots
    std::string relativePath;  // where it goes: "name" for a root, "name/sub/leaf" below it
    std::string sourcePath;    // where it is read from: parentDir joined with relativePath
    bool isDirectory = false;
    uint64_t size = 0;  // a file's bytes; a directory's: the sum of the files beneath it
    uint32_t mode = 0;  // permission bits (07777)
    timespec modified{};
};

struct SourceProblem;

struct SourcePlan {
    std::vector<SourceRoot> roots;           // one per chosen path, in order
    std::vector<SourceEntry> entries;        // each directory before what it holds, names sorted
    std::vector<std::string> topLevelNames;  // roots[i].name, in order
    uint64_t totalBytes = 0;                 // of the files
    uint64_t fileCount = 0;
    uint64_t directoryCount = 0;
    // With PlanOptions::skipUncopyable: what was left out, in walk order (a
    // skipped directory is one entry; nothing below it is listed).
    std::vector<SourceProblem> skipped;
    uint64_t excluded = 0;  // entries left out by PlanOptions::exclude (a directory counts once)
};

enum class SourceProblemKind {
    kEmptyPath,           // an empty string was given
    kNoName,              // the root directory: nothing to copy it under
    kMissing,             // a chosen path does not exist
    kBrokenLink,          // a symbolic link leads nowhere
    kVanished,            // an entry disappeared while its directory was read
    kUnreadable,          // stat, open or listing failed (`error` says why)
    kNotFileOrDirectory,  // a device, FIFO or socket
    kLinkLoop,            // a directory reached again through a link inside itself
    kDuplicateName,       // two chosen paths would be copied under the same name
    kUnsupportedName,     // a name holding a backslash, which the engine reads as a separator
};

struct SourceProblem {
    SourceProblemKind kind = SourceProblemKind::kUnreadable;
    std::string path;  // the offending path, as walked (a chosen path as given)
    int error = 0;     // the errno behind it, 0 when there is none
    // The chosen path the problem is under (index into the roots walked so
    // far), and the name shared with an earlier one (kDuplicateName).
    size_t root = 0;
    std::string name;
    uint32_t fileType = 0;  // kNotFileOrDirectory: the st_mode type bits (S_IFIFO, S_IFSOCK, ...)
};

struct PlanOptions {
    // Open every regular file once, so an unreadable one is reported
    // before anything is sent (kUnreadable).
    bool openEveryFile = false;
    // Look a chosen path up as written: "file/" is then not a directory
    // (kUnreadable). Otherwise it is looked up by its parent and name.
    bool pathsAsWritten = false;
    // Refuse names holding a backslash (kUnsupportedName): the engine would
    // take it for a path separator and fail in the middle of the copy.
    bool refuseBackslashNames = false;
    // Leave out what cannot be copied (kBrokenLink, kVanished, kUnreadable,
    // kNotFileOrDirectory, kLinkLoop, kUnsupportedName) and list it in
    // SourcePlan::skipped instead of stopping.
    bool skipUncopyable = false;
    // Shell globs (fnmatch) of entries to leave out, with what they hold:
    // a pattern holding "/" is matched against the relative path
    // ("top/sub/name", "*" not crossing a "/"), one without against each
    // entry's name at any depth.
    std::vector<std::string> exclude;
};

// Walks `paths` in order. False with `problem` at the first thing that
// stops the copy.
bool PlanSources(const std::vector<std::string>& paths, SourcePlan& plan, SourceProblem& problem,
                 const PlanOptions& options = {});

// The name a chosen path is copied under: its last component, trailing "/"
// ignored ("a/b/" -> "b"); "." and ".." name the real directory (and stay
// as they are when it cannot be resolved). Empty for the root directory
// and an empty path.
std::string TopLevelName(const std::string& path);

// What a kNotFileOrDirectory entry is, in words: "a FIFO (named pipe), not
// a regular file or directory", "a socket, ...".
std::string DescribeFileType(uint32_t fileType);

// "path: reason", the way the sender endpoint reports a problem.
std::string DescribeSourceProblem(const SourceProblem& problem);

}  // namespace orin::xfer::host
