// The string buffer behind one log statement. It hands its text to the
// installed sink (or standard output) on sync and when destroyed non-empty.
// A statement that flushes is therefore emitted twice: once at the flush and
// once at its end, with the same text.
//
// Threading: one buffer per statement, used by one thread.
#pragma once

#include <ostream>
#include <sstream>

#include "IFileTransferLogger.h"

namespace orin::xfer {

class LoggerBuffer : public std::stringbuf {
public:
    LoggerBuffer(LoggingLevel level, std::ostream& fallback);
    ~LoggerBuffer() override;

    // Emits the current text: with a sink, levels below 6 get " \n"
    // appended and go to the sink's operation of that level, higher levels
    // are dropped; without a sink the text goes to the fallback stream
    // unchanged and is flushed.
    void DoLog();

protected:
    int sync() override;

private:
    LoggingLevel mLevel;
    std::ostream& mFallback;
};

}  // namespace orin::xfer
