// The receiving side's entry-by-entry check of the names in a sender's file
// list: every entry whose name RemoteNameGuard refuses, or which lies
// inside a directory entry refused before it, is taken out of the list,
// and the rest of the list goes on as it was (other keys, such as digests,
// included). What makes a list malformed as a whole (not JSON, wrong
// types, duplicates, limits) is left for the list parser to reject.
//
// Children are matched by their parent path (filePath) alone: the list
// parser accepts an entry only under a directory listed before it, so the
// child of a refused directory that was itself a directory is refused and
// matched in turn.
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
    // Entries taken out, in list order; empty when every name passed (or
    // the list could not be read: it is then left to the parser).
    std::vector<RefusedEntry> refused;
    // With refused entries only: the list without them, and the index in
    // the original list of each entry that is left.
    std::string json;
    std::vector<uint64_t> keptIndices;
};

ScreenedList ScreenFileList(const std::string& json, const std::string& destinationRoot,
                            const FileListLimits& limits);

}  // namespace orin::xfer::host::detail
