// One log statement: an output stream that collects one line and emits it
// when the statement ends.
//
// Threading: one object per statement, used by one thread.
#pragma once

#include <ostream>

#include "LoggerBuffer.h"

namespace orin::xfer {

class LoggerInternal : public std::ostream {
public:
    explicit LoggerInternal(LoggingLevel level);
    ~LoggerInternal() override;

    LoggerInternal(const LoggerInternal&) = delete;
    LoggerInternal& operator=(const LoggerInternal&) = delete;

    // The statement as an lvalue stream, so that a temporary can be streamed into.
    std::ostream& Stream() { return *this; }

private:
    LoggerBuffer mBuffer;
};

}  // namespace orin::xfer
