// The check of a DEST_DIR before anything is written into it: it exists, is
// a directory and, when asked, this process may create entries in it. The
// one place the tool decides whether a destination is usable, so `copy` and
// `serve` refuse the same directories with the same words.
//
// Threading: any thread; only looks at the file system.
#pragma once

#include <string>

namespace xferfm::cli {

enum class DestinationNeed {
    kDirectory,          // exists and is a directory
    kWritableDirectory,  // and this process may create entries in it
};

// Returns DEST_DIR as an absolute path with symbolic links resolved. Throws
// ToolError(kDestinationUnusable) when it falls short of `need`, with the
// message "<refusal> '<destinationDir>': <reason>", e.g. refusal
// "cannot copy into".
std::string usableDestinationDir(const std::string& destinationDir, DestinationNeed need,
                                 const std::string& refusal);

}  // namespace xferfm::cli
