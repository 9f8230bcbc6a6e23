// `copy --dry-run`: walks the sources and the destination exactly as a copy
// would, then says what the copy would do, writing nothing: each top-level
// entry and where it would land (a taken name shows its "name(1)" rename,
// the name the receiver's rule would give now), the totals, what would be
// skipped and why (on stderr, as a copy reports it), and with -v every file.
// With --resume it shows the names the copy would continue under and how
// many files it would keep.
//
// Threading: blocks the calling thread; starts no endpoint.
#pragma once

#include "CommandOptions.h"
#include "ToolContext.h"

namespace xferfm::cli {

// Returns the exit code the copy would end with when nothing fails during
// it: 0, or 11 when entries would be skipped. Throws ToolError as a copy
// would for a missing SOURCE or an unusable DEST_DIR.
int runDryRun(const CopyOptions& options, ToolContext& context);

}  // namespace xferfm::cli
