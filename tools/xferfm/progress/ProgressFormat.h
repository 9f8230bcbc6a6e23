// Pure text formatting of progress: sizes, rates, durations, the terminal
// bar and the plain line used when stderr is not a terminal.
#pragma once

#include <cstdint>
#include <string>

#include "ProgressTracker.h"

namespace xferfm::cli {

// 1536 -> "1.5 KiB"; below 1 KiB in bytes ("512 B").
std::string formatBytes(uint64_t bytes);
// Seconds as "m:ss" or "h:mm:ss"; "--:--" when unknown (negative).
std::string formatDuration(double seconds);
// Bytes per second over the elapsed time; 0 before any time has passed.
double averageRate(const ProgressSnapshot& progress);
// Shortens `text` from the left to at most `columns` characters (UTF-8 code
// points), marking the cut with "...".
std::string fitFromLeft(const std::string& text, size_t columns);

// "[#####-----]  42%  12.0 MiB/28.6 MiB  95.1 MiB/s  ETA 0:01  dir/file",
// at most `columns` characters wide.
std::string formatBar(const ProgressSnapshot& progress, int columns);
// "xferfm: 42% (12.0 MiB of 28.6 MiB, 3/10 files), 95.1 MiB/s, ETA 0:01, dir/file"
std::string formatPlainLine(const ProgressSnapshot& progress);

}  // namespace xferfm::cli
