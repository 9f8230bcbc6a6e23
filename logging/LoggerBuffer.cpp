#include "LoggerBuffer.h"

#include <atomic>
#include <string>

#include "LoggerSink.h"

namespace orin::xfer {

LoggerBuffer::LoggerBuffer(LoggingLevel level, std::ostream& fallback)
    : std::stringbuf(std::ios_base::in | std::ios_base::out), mLevel(level), mFallback(fallback)
{
}

LoggerBuffer::~LoggerBuffer()
{
    if (!str().empty()) {
        DoLog();
    }
}

int LoggerBuffer::sync()
{
    DoLog();
    return 0;
}

void LoggerBuffer::DoLog()
{
    const std::string text = str();
    const std::shared_ptr<IFileTransferLogger> sink = logging::CurrentSink();
    if (!sink) {
        mFallback << text;
        mFallback.flush();
        return;
    }
    if (mLevel >= 6) {
        return;
    }
    const std::string line = text + " \n";
    switch (mLevel) {
    case kVerbose: sink->OnVerbose(line.c_str()); break;
    case kDebug: sink->OnDebug(line.c_str()); break;
    case kInfo: sink->OnInfo(line.c_str()); break;
    case kWarning: sink->OnWarning(line.c_str()); break;
    case kError: sink->OnError(line.c_str()); break;
    default: sink->OnFatal(line.c_str()); break;
    }
}

}  // namespace orin::xfer
