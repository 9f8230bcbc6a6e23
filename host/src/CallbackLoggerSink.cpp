#include "xferfm/host/CallbackLoggerSink.h"

#include <cstring>
#include <utility>

namespace orin::xfer::host {

CallbackLoggerSink::CallbackLoggerSink(Callback callback) : mCallback(std::move(callback)) {}

void CallbackLoggerSink::emit(LoggingLevel level, const char* line) const
{
    if (!mCallback || line == nullptr) {
        return;
    }
    size_t length = std::strlen(line);
    // The engine appends " \n" for sinks; the host gets the bare line.
    if (length >= 2 && line[length - 2] == ' ' && line[length - 1] == '\n') {
        length -= 2;
    }
    mCallback(static_cast<int>(level), std::string(line, length));
}

}  // namespace orin::xfer::host
