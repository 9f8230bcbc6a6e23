// Deleting a whole directory tree, the root included: the one remover of
// the kit (a receiver's private cache) and the tool (its demo tree, the
// cache left by an interrupted copy).
//
// THREADING CONTRACT: safe from any thread; it only touches the file system.
#pragma once

#include <string>

namespace orin::xfer::host {

// Removes `path` and everything beneath it without following symbolic
// links or crossing into other file systems. Directories that lack owner
// write or search permission are opened up first, so a tree that carries
// copied read-only modes can still be removed by a non-root user. Returns
// true when nothing is left (also when `path` did not exist).
bool RemoveTree(const std::string& path);

}  // namespace orin::xfer::host
