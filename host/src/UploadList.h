// The sender's upload list: a source plan (xferfm/host/SourcePlan.h) as
// the engine's FileDescription entries, and back from an entry to the
// local path it is read from.
//
// Each entry is described the way the engine's path parser does for files
// under a copied root: sourceDir = the copied root's parent, filePath = the
// sub-directory relative to it ("" at the top), fileName = the last
// component. destFilePath/destFileName repeat filePath/fileName so that the
// name the engine announces is the request name. attribute is 0x10 or 0x80,
// fileSize a file's size or the sum beneath a directory, mode the
// permission bits.
//
// THREADING CONTRACT: pure functions; safe anywhere.
#pragma once

#include <string>
#include <vector>

#include "FileTransferTypes.h"
#include "xferfm/host/SourcePlan.h"

namespace orin::xfer::host::detail {

// The plan's entries, in its order, as the engine's upload list.
std::vector<FileDescription> UploadListOf(const SourcePlan& plan);

// The local path an entry of the list was read from.
std::string SourcePathOf(const FileDescription& entry);

// "left/right", without doubling a "/" that ends `left`; `right` alone
// when `left` is empty.
std::string JoinPath(const std::string& left, const std::string& right);

}  // namespace orin::xfer::host::detail
