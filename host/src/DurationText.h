// A time limit as people read it in a message: "10 s", "0.5 s".
#pragma once

#include <chrono>
#include <string>

namespace orin::xfer::host::detail {

// Tenths of a second are kept: tests run with short limits.
inline std::string DurationText(std::chrono::milliseconds duration)
{
    const auto tenths = duration.count() / 100;
    return std::to_string(tenths / 10) + (tenths % 10 ? "." + std::to_string(tenths % 10) : "") + " s";
}

}  // namespace orin::xfer::host::detail
