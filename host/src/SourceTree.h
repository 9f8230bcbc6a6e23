// Turns the paths a user chose into the sender's upload list, like `cp -r`
// sees them: every directory (empty ones too) before its children, hidden
// entries included, symbolic links followed.
//
// Each entry is described the way the engine's path parser does for files
// under a copied root: sourceDir = the copied root's parent, filePath = the
// sub-directory relative to it ("" at the top), fileName = the last
// component. destFilePath/destFileName repeat filePath/fileName so that the
// name the engine announces is the request name. attribute is 0x10 or 0x80,
// fileSize a file's size or the sum beneath a directory, mode the
// permission bits from stat.
//
// THREADING CONTRACT: a pure function of the filesystem; safe anywhere.
#pragma once

#include <string>
#include <vector>

#include "FileTransferTypes.h"

namespace orin::xfer::host::detail {

// False with `error` naming the offending path when a path is missing,
// unreadable, neither a file nor a directory, loops back on itself, or
// shares its name with another chosen path.
bool BuildUploadList(const std::vector<std::string>& paths, std::vector<FileDescription>& list,
                     std::string& error);

// The local path an entry of the list was read from.
std::string SourcePathOf(const FileDescription& entry);

}  // namespace orin::xfer::host::detail
