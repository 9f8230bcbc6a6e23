// Modification times in the sender's file list. The engine's JSON entry
// has no field for them, so the kit adds its own to each entry,
//   "mtime": [seconds, nanoseconds]   (since the epoch, as stat gives them)
// after the engine has written the list, and the receiver's list reader
// (FileListReader) reads them back into each entry, to give every landed
// file and directory its source's time. A list
// without them (an older sender) simply lands with the current time.
//
// THREADING CONTRACT: pure functions; safe anywhere.
#pragma once

#include <cstddef>
#include <string>

#include "xferfm/host/SourcePlan.h"

namespace orin::xfer::host::detail {

// Adds each plan entry's time to the entry of the same request name in the
// engine's list `json` (the plan's order; the list's first entry is plan
// entry `firstEntry`, so a slice of the list can be given its times on its
// own). False with `error` when the list cannot be read; `json` is then
// unchanged.
bool AddModificationTimes(std::string& json, const SourcePlan& plan, std::string& error, size_t firstEntry = 0);

}  // namespace orin::xfer::host::detail
