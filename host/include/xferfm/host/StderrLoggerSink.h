// Logger sink that writes the engine's lines at or above a level threshold
// to standard error. Each line goes out with a single write(2) so that
// lines from different threads never interleave.
//
// THREADING CONTRACT: safe from any thread; it keeps no mutable state.
#pragma once

#include "IFileTransferLogger.h"

namespace orin::xfer::host {

class StderrLoggerSink final : public IFileTransferLogger {
public:
    explicit StderrLoggerSink(LoggingLevel threshold = kWarning, int fd = 2);

    void OnVerbose(const char* line) override { emit(kVerbose, line); }
    void OnDebug(const char* line) override { emit(kDebug, line); }
    void OnInfo(const char* line) override { emit(kInfo, line); }
    void OnWarning(const char* line) override { emit(kWarning, line); }
    void OnError(const char* line) override { emit(kError, line); }
    void OnFatal(const char* line) override { emit(kFatal, line); }

    LoggingLevel Threshold() const { return mThreshold; }

private:
    void emit(LoggingLevel level, const char* line) const;

    LoggingLevel mThreshold;
    int mFd;
};

}  // namespace orin::xfer::host
