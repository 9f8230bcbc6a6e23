// The process-wide services a command runs with, made once in main.
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
