// Logger sink that hands every engine line to a host callback together with
// its level (0 verbose .. 5 fatal). The line is passed without the " \n"
// that the engine appends for sinks.
//
// THREADING CONTRACT: the callback is called on whatever thread logged the
// line (host threads, loopers, upload workers), possibly concurrently; it
// must be thread-safe itself. The sink adds no locking of its own.
#pragma once

#include <functional>
#include <string>

#include "IFileTransferLogger.h"

namespace orin::xfer::host {

class CallbackLoggerSink final : public IFileTransferLogger {
public:
    using Callback = std::function<void(int level, const std::string& line)>;

    explicit CallbackLoggerSink(Callback callback);

    void OnVerbose(const char* line) override { emit(kVerbose, line); }
    void OnDebug(const char* line) override { emit(kDebug, line); }
    void OnInfo(const char* line) override { emit(kInfo, line); }
    void OnWarning(const char* line) override { emit(kWarning, line); }
    void OnError(const char* line) override { emit(kError, line); }
    void OnFatal(const char* line) override { emit(kFatal, line); }

private:
    void emit(LoggingLevel level, const char* line) const;

    Callback mCallback;
};

}  // namespace orin::xfer::host
