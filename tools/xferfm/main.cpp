// xferfm: copies files and directory trees through two file-transfer
// engines joined in-process, the way a clipboard paste moves them.
#include <iostream>
#include <memory>

#include "AllocatorTuning.h"
#include "CommandLine.h"
#include "CopyJob.h"
#include "DemoCommand.h"
#include "EngineLogFilter.h"
#include "IFileTransferLogger.h"
#include "NetworkCommands.h"
#include "SchedulingTuning.h"
#include "SignalWatcher.h"
#include "StderrConsole.h"
#include "ToolContext.h"
#include "ToolError.h"
#include "xferfm/host/CallbackLoggerSink.h"

int main(int argc, char** argv)
{
    using namespace xferfm::cli;
    tuneAllocatorForChunkTraffic();
    preferShortSchedulingSlices();
    if (isNetworkCommand(argc, argv)) {
        return runNetworkCommand(argc, argv);  // serve and send: NetworkCommands.cpp
    }
    const ParsedCommandLine parsed = parseCommandLine(argc, argv);
    if (parsed.command == Command::kExit) {
        return parsed.exitCode;
    }

    SignalWatcher signals;  // before any other thread: they inherit the blocked signals
    StderrConsole console;
    EngineLogFilter engineLog(parsed.options.logLevel);
    ToolContext context{signals, console, engineLog};
    // Engine lines share stderr with the progress bar, so they go through the console.
    orin::xfer::IFileTransferLogger::SetLogger(std::make_shared<orin::xfer::host::CallbackLoggerSink>(
        [&console, &engineLog](int level, const std::string& line) {
            if (engineLog.shouldShow(level, line)) {
                console.writeLine(line);
            }
        }));

    int exitCode = toInt(ExitCode::kOk);
    try {
        if (parsed.command == Command::kDemo) {
            exitCode = runDemo(parsed.options, context);
        } else {
            exitCode = reportCopy(runCopyJob(parsed.options, context), console);
        }
    } catch (const ToolError& error) {
        console.writeLine(std::string("xferfm: ") + error.what());
        exitCode = toInt(error.code());
    } catch (const std::exception& error) {
        console.writeLine(std::string("xferfm: unexpected failure: ") + error.what());
        exitCode = toInt(ExitCode::kTransferFailed);
    }
    orin::xfer::IFileTransferLogger::SetLogger(nullptr);
    return exitCode;
}
