// Deleting a whole directory tree, the root included.
#pragma once

#include <string>

namespace xferfm::cli {

// Removes `path` and everything beneath it without following symbolic
// links or crossing into other file systems. Directories that lack owner
// write or search permission are opened up first, so a tree that carries
// copied read-only modes can still be removed by a non-root user. Returns
// true when nothing is left (also when `path` did not exist).
bool removeTree(const std::string& path);

}  // namespace xferfm::cli
