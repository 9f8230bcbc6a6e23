// The sample tree of `xferfm demo`: everything a paste has to get right in a
// few MiB (nested and empty directories, an empty file, a file of exactly
// one 64 KiB chunk, a multi-MiB file, names with spaces and non-ASCII
// characters, a hidden file, an executable, and a name that already exists
// at the destination).
#pragma once

#include <string>
#include <vector>

namespace xferfm::cli {

struct DemoLayout {
    std::string root;                   // temporary directory holding everything
    std::vector<std::string> sources;   // SOURCE arguments of the copy
    std::string destinationDir;         // DEST_DIR, already holding `clashingName`
    std::string clashingName;           // a top-level source name present in DEST_DIR
};

// Builds the tree under a new directory in $TMPDIR (or /tmp). Throws
// ToolError on failure.
DemoLayout makeDemoTree();

// Writes `size` bytes of a fixed pseudo-random pattern (seeded by `seed`).
void writePatternFile(const std::string& path, unsigned long long size, unsigned seed);

}  // namespace xferfm::cli
