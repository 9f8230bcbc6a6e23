// Engine lines share stderr with the progress bar, so the logger installed
// here writes them through the console, which keeps them above the bar.
// The logger is a process-wide engine setting: it is installed before the
// command starts any engine and detached after every engine has stopped
// (the command's endpoints are gone when its body returns or throws).
#include "CommandRunner.h"

#include <exception>
#include <memory>
#include <string>

#include "EngineLogFilter.h"
#include "ExitCode.h"
#include "IFileTransferLogger.h"
#include "SignalWatcher.h"
#include "StderrConsole.h"
#include "ToolError.h"
#include "xferfm/host/CallbackLoggerSink.h"

namespace xferfm::cli {

int runCommand(int engineLogLevel, const CommandBody& command)
{
    SignalWatcher signals;  // before any other thread: they inherit the blocked signals
    StderrConsole console;
    EngineLogFilter engineLog(engineLogLevel);
    ToolContext context{signals, console, engineLog};
    orin::xfer::IFileTransferLogger::SetLogger(std::make_shared<orin::xfer::host::CallbackLoggerSink>(
        [&console, &engineLog](int level, const std::string& line) {
            if (engineLog.shouldShow(level, line)) {
                console.writeLine(line);
            }
        }));

    int exitCode = toInt(ExitCode::kOk);
    try {
        exitCode = command(context);
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

}  // namespace xferfm::cli
