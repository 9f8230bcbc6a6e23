#include "NetworkCommands.h"

#include <memory>

#include "EngineLogFilter.h"
#include "IFileTransferLogger.h"
#include "NetworkCommandLine.h"
#include "SendCommand.h"
#include "ServeCommand.h"
#include "SignalWatcher.h"
#include "StderrConsole.h"
#include "ToolContext.h"
#include "ToolError.h"
#include "xferfm/host/CallbackLoggerSink.h"

namespace xferfm::cli {

int runNetworkCommand(int argc, char** argv)
{
    const ParsedNetworkCommand parsed = parseNetworkCommandLine(argc, argv);
    if (parsed.command == NetworkCommand::kExit) {
        return parsed.exitCode;
    }
    const int logLevel = parsed.command == NetworkCommand::kServe ? parsed.serve.logLevel : parsed.send.logLevel;

    SignalWatcher signals;  // before any other thread: they inherit the blocked signals
    StderrConsole console;
    EngineLogFilter engineLog(logLevel);
    ToolContext context{signals, console, engineLog};
    orin::xfer::IFileTransferLogger::SetLogger(std::make_shared<orin::xfer::host::CallbackLoggerSink>(
        [&console, &engineLog](int level, const std::string& line) {
            if (engineLog.shouldShow(level, line)) {
                console.writeLine(line);
            }
        }));

    int exitCode = toInt(ExitCode::kOk);
    try {
        exitCode = parsed.command == NetworkCommand::kServe ? runServe(parsed.serve, context)
                                                            : runSend(parsed.send, context);
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
