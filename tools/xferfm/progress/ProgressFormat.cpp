#include "ProgressFormat.h"

#include <cmath>
#include <cstdio>

namespace xferfm::cli {
namespace {

size_t codePoints(const std::string& text)
{
    size_t count = 0;
    for (unsigned char byte : text) {
        count += (byte & 0xC0) != 0x80 ? 1 : 0;
    }
    return count;
}

int percentOf(const ProgressSnapshot& progress)
{
    if (progress.totalBytes == 0) {
        return progress.filesDone >= progress.totalFiles ? 100 : 0;
    }
    return static_cast<int>(100.0 * static_cast<double>(progress.bytesDone) /
                            static_cast<double>(progress.totalBytes));
}

double etaSeconds(const ProgressSnapshot& progress)
{
    const double rate = averageRate(progress);
    if (rate <= 0.0 || progress.bytesDone > progress.totalBytes) {
        return -1.0;
    }
    return static_cast<double>(progress.totalBytes - progress.bytesDone) / rate;
}

}  // namespace

std::string formatBytes(uint64_t bytes)
{
    static const char* const kUnits[] = {"B", "KiB", "MiB", "GiB", "TiB"};
    double value = static_cast<double>(bytes);
    size_t unit = 0;
    while (value >= 1024.0 && unit + 1 < sizeof kUnits / sizeof kUnits[0]) {
        value /= 1024.0;
        ++unit;
    }
    char text[32];
    if (unit == 0) {
        std::snprintf(text, sizeof text, "%llu B", static_cast<unsigned long long>(bytes));
    } else {
        std::snprintf(text, sizeof text, "%.1f %s", value, kUnits[unit]);
    }
    return text;
}

std::string formatDuration(double seconds)
{
    if (seconds < 0.0 || !std::isfinite(seconds)) {
        return "--:--";
    }
    const auto total = static_cast<unsigned long long>(std::llround(seconds));
    char text[32];
    if (total >= 3600) {
        std::snprintf(text, sizeof text, "%llu:%02llu:%02llu", total / 3600, (total / 60) % 60, total % 60);
    } else {
        std::snprintf(text, sizeof text, "%llu:%02llu", total / 60, total % 60);
    }
    return text;
}

double averageRate(const ProgressSnapshot& progress)
{
    return progress.elapsedSeconds > 0.0 ? static_cast<double>(progress.bytesDone) / progress.elapsedSeconds
                                         : 0.0;
}

std::string fitFromLeft(const std::string& text, size_t columns)
{
    const size_t length = codePoints(text);
    if (length <= columns) {
        return text;
    }
    if (columns <= 3) {
        return std::string(columns, '.');
    }
    // Skip code points from the front until the rest fits after "...".
    size_t toDrop = length - (columns - 3);
    size_t position = 0;
    while (position < text.size() && toDrop > 0) {
        ++position;
        while (position < text.size() && (static_cast<unsigned char>(text[position]) & 0xC0) == 0x80) {
            ++position;
        }
        --toDrop;
    }
    return "..." + text.substr(position);
}

std::string formatBar(const ProgressSnapshot& progress, int columns)
{
    const int percent = percentOf(progress);
    char numbers[160];
    std::snprintf(numbers, sizeof numbers, " %3d%%  %s/%s  %s/s  ETA %s", percent,
                  formatBytes(progress.bytesDone).c_str(), formatBytes(progress.totalBytes).c_str(),
                  formatBytes(static_cast<uint64_t>(averageRate(progress))).c_str(),
                  formatDuration(etaSeconds(progress)).c_str());
    const int barWidth = columns >= 100 ? 30 : 20;
    const int filled = std::min(barWidth, percent * barWidth / 100);
    std::string line = "[" + std::string(static_cast<size_t>(filled), '#') +
                       std::string(static_cast<size_t>(barWidth - filled), '-') + "]" + numbers;
    const size_t used = codePoints(line);
    const size_t limit = columns > 1 ? static_cast<size_t>(columns - 1) : 0;  // no wrap in the last column
    if (used + 2 < limit && !progress.currentFile.empty()) {
        line += "  " + fitFromLeft(progress.currentFile, limit - used - 2);
    }
    return codePoints(line) > limit ? fitFromLeft(line, limit) : line;
}

std::string formatPlainLine(const ProgressSnapshot& progress)
{
    char text[200];
    std::snprintf(text, sizeof text, "xferfm: %d%% (%s of %s, %llu/%llu files), %s/s, ETA %s",
                  percentOf(progress), formatBytes(progress.bytesDone).c_str(),
                  formatBytes(progress.totalBytes).c_str(), static_cast<unsigned long long>(progress.filesDone),
                  static_cast<unsigned long long>(progress.totalFiles),
                  formatBytes(static_cast<uint64_t>(averageRate(progress))).c_str(),
                  formatDuration(etaSeconds(progress)).c_str());
    std::string line = text;
    if (!progress.currentFile.empty()) {
        line += ", " + progress.currentFile;
    }
    return line;
}

}  // namespace xferfm::cli
