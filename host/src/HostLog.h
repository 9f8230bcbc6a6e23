// Log lines of the host kit, delivered through the engine's logger sink in
// the engine's own line format: "[XFERFM]: <file>:<line>: <message>".
#pragma once

#include "LoggerInternal.h"

namespace orin::xfer::host::detail {

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

}  // namespace orin::xfer::host::detail

#define XFERFM_HOST_LOG(level)                                                                 \
    ::orin::xfer::LoggerInternal(level).Stream()                                               \
        << "[XFERFM]: " << ::orin::xfer::host::detail::BaseName(__FILE__) << ":" << __LINE__ << ": "

#define HOST_LOG_D XFERFM_HOST_LOG(::orin::xfer::kDebug)
#define HOST_LOG_I XFERFM_HOST_LOG(::orin::xfer::kInfo)
#define HOST_LOG_W XFERFM_HOST_LOG(::orin::xfer::kWarning)
#define HOST_LOG_E XFERFM_HOST_LOG(::orin::xfer::kError)
