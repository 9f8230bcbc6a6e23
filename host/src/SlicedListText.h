// The sender's JSON list for a long upload list, written by the engine a
// slice at a time. The engine writes its list (SendFileDesc) by building a
// whole document tree first, about 2 KiB an entry, so a list of a million
// entries would cost gigabytes at once; handed the list a slice at a time
// it writes each slice's entries as it always does, and the slices are
// joined into one document: the first slice's text up to its last entry,
// the entries of every later slice, and the last slice's ending (its
// "root", which is the last entry's source directory: the whole list's).
//
// THREADING CONTRACT: a plain function; `writeSlice` runs on the caller's
// thread, once per slice, in order.
#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

#include "FileTransferTypes.h"

namespace orin::xfer::host::detail {

// Entries the engine is handed at a time while it writes the list.
inline constexpr size_t kListSliceEntries = 4096;

// `writeSlice` hands the engine a slice (whose first entry is entry
// `first` of the list) and returns the text the engine wrote for it, with
// whatever the caller adds to it. A slice whose text cannot be read ends the slicing: the
// whole list is then written in one go, as the engine always could.
using SliceWriter = std::function<std::string(const std::vector<FileDescription>& slice, size_t first)>;
std::string SlicedListText(const std::vector<FileDescription>& entries, const SliceWriter& writeSlice,
                           size_t sliceEntries = kListSliceEntries);

}  // namespace orin::xfer::host::detail
