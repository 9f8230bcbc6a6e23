// One-line log statements for the engine's sources (internal to the library):
//   XLOG_D << "Parse file " << path;
// The line is "[XFERFM]: <source file name>:<line>: <message>".
#pragma once

#include "LoggerInternal.h"

namespace orin::xfer::logging {

// The compile-time path cut after its last '/'.
constexpr const char* BaseName(const char* path)
{
    const char* base = path;
    for (const char* p = path; *p != '\0'; ++p) {
        if (*p == '/') {
            base = p + 1;
        }
    }
    return base;
}

}  // namespace orin::xfer::logging

#define XFERFM_LOG(level)                                                                    \
    ::orin::xfer::LoggerInternal(level).Stream()                                             \
        << "[XFERFM]: " << ::orin::xfer::logging::BaseName(__FILE__) << ":" << __LINE__ << ": "

#define XLOG_D XFERFM_LOG(::orin::xfer::kDebug)
#define XLOG_I XFERFM_LOG(::orin::xfer::kInfo)
#define XLOG_W XFERFM_LOG(::orin::xfer::kWarning)
#define XLOG_E XFERFM_LOG(::orin::xfer::kError)
