// `xferfm demo`: builds the sample tree, copies it exactly as
// `xferfm copy --verify` would, shows the result and removes everything it
// made.
//
// Threading: runs on the calling thread (the copy starts its own threads).
#pragma once

#include "CommandOptions.h"
#include "ToolContext.h"

namespace xferfm::cli {

// Returns the exit code; throws ToolError like a copy.
int runDemo(const CopyOptions& options, ToolContext& context);

}  // namespace xferfm::cli
