// The file list a sender offers, as the engine's JSON document:
//   {"fileList": [{"filePath": "dir/sub", "fileName": "a.txt",
//                  "attribute": 128, "mode": 420, "fileSize": 5}, ...],
//    "root": "/source/parent"}
// attribute 16 marks a directory, 128 a regular file; "mode" carries the
// permission bits; "fileSize" of a directory is the sum of the files
// beneath it.
//
// ParseFileList is the receiver's gate against malformed or hostile lists:
// it never throws and never crashes, and it rejects (with a message naming
// the entry) anything the receiver could not copy safely: wrong types,
// names that are empty, ".", "..", absolute or hold a NUL, paths beyond the
// limits, duplicate names, an entry under a path that is not a directory
// listed before it, sizes that overflow.
//
// Memory: the text is read in one pass that builds nothing but the
// entries (no document tree), with the list's shape checked before it;
// the duplicate and parent checks use a table of 4 bytes a slot.
//
// THREADING CONTRACT: pure functions, safe from any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <string>
#include <vector>

namespace orin::xfer::host {

// 128 bytes, and no more while names fit in a string's own buffer (15
// bytes): a list of a million entries holds 128 MB of them.
struct FileListEntry {
    std::string filePath;  // sub-directory relative to the copied roots' parent, "" at the top
    std::string fileName;  // last path component
    std::string sha256;    // the content digest the sender offered (64 hex digits), or ""
    uint64_t fileSize = 0;  // bytes; for a directory the sum beneath it
    timespec modified{};    // the source's modification time, when hasModified
    uint32_t mode = 0;      // permission bits (0 when the sender did not say)
    bool isDirectory = false;
    bool hasModified = false;  // the list carried a well-formed "mtime"

    // filePath + "/" + fileName, or fileName alone at the top.
    std::string RequestName() const;
};

struct FileListLimits {
    size_t maxJsonBytes = 256u << 20;
    size_t maxEntries = 1000000;
    size_t maxPathBytes = 4096;  // a whole request name
    size_t maxNameBytes = 255;   // one component
    size_t maxDepth = 256;       // components in a request name
};

struct ParsedFileList {
    std::vector<FileListEntry> entries;
    uint64_t totalFileBytes = 0;  // sum of the regular files
    size_t fileCount = 0;
    size_t directoryCount = 0;
};

// True and `out` filled when the list is acceptable; false and `error` set
// otherwise (`out` is then left empty).
bool ParseFileList(const std::string& json, ParsedFileList& out, std::string& error,
                   const FileListLimits& limits = {});

}  // namespace orin::xfer::host
