// What every command runs inside, set up once for all of them: the signal
// watcher, the stderr console, engine log lines routed through the console
// at the chosen level, and the mapping of a thrown ToolError (or any other
// exception) to a message on stderr and the process exit code.
//
// Threading: call from main before any other thread starts (the signal
// watcher must block its signals before threads inherit the mask). The
// command runs on the calling thread; runCommand returns when it has, after
// the engine's logger is detached again.
#pragma once

#include <functional>

#include "ToolContext.h"

namespace xferfm::cli {

// The body of one command: returns the exit code, or throws ToolError.
using CommandBody = std::function<int(ToolContext&)>;

// Runs `command` with engine lines at `engineLogLevel` and above shown.
// Returns the process exit code.
int runCommand(int engineLogLevel, const CommandBody& command);

}  // namespace xferfm::cli
