// The one reader of a file list's text: a single pass over the JSON that
// hands each entry over as it is read, so the list never exists as a
// document tree (one costs tens of times its text). It is strict in the
// same way everywhere (no comments, no trailing text, unique keys, the
// list's shape checked first; see StrictJson.h), and it gives each caller
// the byte where every entry ends, so a sender can add a key to each entry
// without reading the list into anything.
//
// Memory: nothing but the entry being read and the caller's sink.
//
// THREADING CONTRACT: pure functions; safe from any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "xferfm/host/FileList.h"
#include "xferfm/host/RemoteNameGuardTransport.h"

namespace orin::xfer::host::detail {

// One entry as read, before any rule about names or order is applied.
struct ReadEntry {
    size_t index = 0;       // in the list as written
    size_t openAt = 0;      // byte offset where the entry's value starts
    size_t closeAt = 0;     // byte offset of the entry's closing '}'
    bool empty = true;      // the object has no keys at all
    bool hasTime = false;   // an "mtime" key is present (well-formed or not)
    bool hasDigest = false; // a "sha256" key is present (well-formed or not)
    // Empty when the entry has the keys and types of a list entry;
    // otherwise what is wrong ("lacks \"filePath\"", ...).
    std::string problem;
    FileListEntry entry;  // filled when `problem` is empty
};

// Called once per entry, in list order. Return false to stop reading, with
// `error` set to the reason.
using EntrySink = std::function<bool(ReadEntry& read, std::string& error)>;

// Reads `json` and hands every entry of its "fileList" to `sink`. False
// with `error` set when the text is not a list (not strict JSON, wrong
// shape, wrong types at the top) or when the sink stops. Entries with a
// `problem` are handed over too: the sink decides. Never throws.
// `entriesHint` gets an upper bound of the entry count (for reserving).
bool ReadFileListText(const std::string& json, const FileListLimits& limits, const EntrySink& sink,
                      std::string& error, size_t* entriesHint = nullptr);

// Adds a key to entries of the list in `json`: `keyFor` gives, for each
// entry as read, the text to add ("\"key\":value") or "" for none. The rest
// of the text is kept byte for byte. False with `error` when the list
// cannot be read; `json` is then unchanged.
using KeyForEntry = std::function<std::string(const ReadEntry& read)>;
bool AddKeyToEntries(std::string& json, const KeyForEntry& keyFor, std::string& error);

// The parse the receiving side does once per session: ParseFileList's
// rules, with every entry first offered to `refuse` (empty: keep it). A
// refused entry is left out of `out` and recorded in `refused`; with any
// refused, `keptIndices` gets the index in the offered list of each entry
// kept. The rules about order and duplicates apply to the kept entries.
using EntryRefusal = std::function<std::string(size_t index, const FileListEntry& entry)>;
bool ParseScreenedFileList(const std::string& json, const FileListLimits& limits, const EntryRefusal& refuse,
                           ParsedFileList& out, std::vector<RefusedEntry>& refused,
                           std::vector<uint64_t>& keptIndices, std::string& error);

}  // namespace orin::xfer::host::detail
