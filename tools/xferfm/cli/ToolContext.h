// The process-wide services a command runs with, made once per run by
// runCommand (CommandRunner.h) and lent to the command for its duration.
#pragma once

#include "EngineLogFilter.h"
#include "SignalWatcher.h"
#include "StderrConsole.h"

namespace xferfm::cli {

struct ToolContext {
    SignalWatcher& signals;
    StderrConsole& console;
    EngineLogFilter& engineLog;
};

}  // namespace xferfm::cli
