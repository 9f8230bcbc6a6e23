// What a copy will bring: every directory and regular file under the
// SOURCE arguments, hidden ones included, with the size, mode and time that
// the copy must reproduce. Symbolic links are followed (a paste copies what
// a link points to); a link that leads back into its own parent
// directories cannot be copied and is refused.
//
// Entries that cannot be copied (a device, FIFO or socket, a broken link, an
// unreadable entry, a name holding a backslash) are all found here, before
// anything is written: left out and listed with their reason, or, strictly,
// the first of them refuses the whole copy.
//
// The walk is the host kit's (xferfm/host/SourcePlan.h); this is the tool's
// view of it: paths as the user wrote them, problems as ToolErrors.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <ctime>
#include <string>
#include <vector>

#include "xferfm/host/SourcePlan.h"

namespace xferfm::cli {

// An entry left out of the copy, and why.
struct SkippedSource {
    std::string path;    // as the user wrote it ("dir/sub/fifo")
    std::string reason;  // "a FIFO (named pipe), not a regular file or directory", "Permission denied"
};

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
    std::vector<SkippedSource> skipped;      // in walk order; empty when strict
    uint64_t excluded = 0;                   // entries left out by an --exclude pattern
    orin::xfer::host::SourcePlan walked;     // the kit's plan, as a sender offers it
};

enum class Uncopyable { kSkip, kRefuse };

// Walks the sources. Throws ToolError: source missing (the path does not
// exist), usage (two sources with the same name), and with kRefuse source
// unreadable (cannot be opened or listed, is a device, FIFO or socket, a
// broken link, a link back into its parents, or its name holds a
// backslash); with kSkip those are in `skipped` instead.
// Every regular file is opened once here so that an unreadable file is
// found before anything is written.
// Entries matching an `excludes` glob are left out (see PlanOptions::exclude).
SourcePlan planSources(const std::vector<std::string>& sources, Uncopyable uncopyable = Uncopyable::kRefuse,
                       const std::vector<std::string>& excludes = {});

// The last component of a SOURCE argument, trailing "/" ignored ("a/b/" ->
// "b"); "." and "/" resolve to the real directory's name.
std::string topLevelName(const std::string& source);

}  // namespace xferfm::cli
