// What a copy will bring: every directory and regular file under the
// SOURCE arguments, hidden ones included, with the size, mode and time that
// the copy must reproduce. Symbolic links are followed (a paste copies what
// a link points to); a link that leads back into its own parent
// directories cannot be copied and is refused.
//
// The walk is the host kit's (xferfm/host/SourcePlan.h); this is the tool's
// view of it: paths as the user wrote them, problems as ToolErrors.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <ctime>
#include <string>
#include <vector>

namespace xferfm::cli {

struct SourceEntry {
    std::string sourcePath;    // where it is read from
    std::string relativePath;  // where it goes, relative to DEST_DIR ("top/sub/name")
    bool isDirectory = false;
    uint64_t size = 0;
    mode_t mode = 0;
    timespec modified{};
};

struct SourcePlan {
    std::vector<SourceEntry> entries;       // each directory before what it holds
    std::vector<std::string> topLevelNames;  // one per SOURCE argument, in order
    uint64_t totalBytes = 0;
    uint64_t fileCount = 0;
    uint64_t directoryCount = 0;
};

// Walks the sources. Throws ToolError: source missing (the path does not
// exist), source unreadable (cannot be opened or listed, is a device, FIFO
// or socket, a broken link or a link back into its parents), usage (two
// sources with the same name).
// Every regular file is opened once here so that an unreadable file is
// reported before anything is written.
SourcePlan planSources(const std::vector<std::string>& sources);

// The last component of a SOURCE argument, trailing "/" ignored ("a/b/" ->
// "b"); "." and "/" resolve to the real directory's name.
std::string topLevelName(const std::string& source);

}  // namespace xferfm::cli
