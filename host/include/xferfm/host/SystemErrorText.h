// The text of an errno value (strerror without its thread-safety worries):
// the one place the kit and the tool turn errno into words.
//
// THREADING CONTRACT: safe from any thread.
#pragma once

#include <cstring>
#include <string>

namespace orin::xfer::host {

inline std::string SystemErrorText(int error)
{
    char buffer[256];
    // The GNU strerror_r may return a static string instead of filling the buffer.
    const char* text = strerror_r(error, buffer, sizeof buffer);
    return text ? text : "unknown error " + std::to_string(error);
}

}  // namespace orin::xfer::host
