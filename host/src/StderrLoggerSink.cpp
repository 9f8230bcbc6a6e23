#include "xferfm/host/StderrLoggerSink.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace orin::xfer::host {

StderrLoggerSink::StderrLoggerSink(LoggingLevel threshold, int fd) : mThreshold(threshold), mFd(fd) {}

void StderrLoggerSink::emit(LoggingLevel level, const char* line) const
{
    if (level < mThreshold || line == nullptr) {
        return;
    }
    // One write per line keeps lines whole across threads; only a short
    // write (a full pipe, a signal) needs the loop.
    const char* next = line;
    size_t left = std::strlen(line);
    while (left > 0) {
        const ssize_t written = ::write(mFd, next, left);
        if (written < 0) {
            if (errno == EINTR) {
                continue;
            }
            return;
        }
        next += written;
        left -= static_cast<size_t>(written);
    }
}

}  // namespace orin::xfer::host
