// The receiving side's one reading of a sender's file list, with every
// entry's name checked on the way: an entry whose name RemoteNameGuard
// refuses, which lies inside a directory entry refused before it, or whose
// name clashes with an entry before it (announced twice, or inside an
// entry announced as a file) is taken out, and the rest of the list is
// kept as it was read (digests and times included). What makes a list
// malformed as a whole (not JSON, wrong types, an entry under no listed
// directory, limits) makes it unreadable: the caller leaves it for the
// endpoint, which refuses it with the same reason.
//
// Children are matched by their parent path (filePath) alone: an entry is
// accepted only under a directory listed before it, so the child of a
// refused directory that was itself a directory is refused and matched in
// turn.
//
// THREADING CONTRACT: a pure function apart from the file system reads of
// the symbolic-link check; safe from any thread.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "xferfm/host/FileList.h"
#include "xferfm/host/RemoteNameGuardTransport.h"

namespace orin::xfer::host::detail {

struct ScreenedList {
    bool readable = false;
    std::string error;      // why not, when not readable
    ParsedFileList list;    // the entries kept
    // Entries taken out, in list order.
    std::vector<RefusedEntry> refused;
    // With refused entries only: the index in the offered list of each
    // entry kept.
    std::vector<uint64_t> keptIndices;
};

ScreenedList ScreenFileList(const std::string& json, const std::string& destinationRoot,
                            const FileListLimits& limits);

}  // namespace orin::xfer::host::detail
