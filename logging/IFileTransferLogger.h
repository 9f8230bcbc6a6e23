// Logger sink the host may install for the engine's diagnostics.
//
// Each engine statement produces one line, "[XFERFM]: <file>:<line>: <text>",
// delivered to the operation of its level with " \n" appended. Without a
// sink, lines go to standard output as they are, with no line feed added.
//
// Threading: the sink is called from any thread (host calls, loopers, upload
// workers) and must cope with that. Install it before creating a manager and
// leave it in place while transfers run.
#pragma once

#include <memory>

namespace orin::xfer {

enum LoggingLevel : int {
    kVerbose = 0,
    kDebug = 1,
    kInfo = 2,
    kWarning = 3,
    kError = 4,
    kFatal = 5,
};

class IFileTransferLogger {
public:
    virtual ~IFileTransferLogger() = default;
    virtual void OnVerbose(const char* line) { (void)line; }
    virtual void OnDebug(const char* line) { (void)line; }
    virtual void OnInfo(const char* line) { (void)line; }
    virtual void OnWarning(const char* line) { (void)line; }
    virtual void OnError(const char* line) { (void)line; }
    virtual void OnFatal(const char* line) { (void)line; }

    // Replaces the process-wide sink; an empty pointer restores standard output.
    static void SetLogger(std::shared_ptr<IFileTransferLogger> logger);
};

}  // namespace orin::xfer
