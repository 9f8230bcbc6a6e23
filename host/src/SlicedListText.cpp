#include "SlicedListText.h"

#include <algorithm>

#include "FileListReader.h"

namespace orin::xfer::host::detail {
namespace {

// Where a slice's entries start and end in its text.
struct EntrySpan {
    size_t count = 0;
    size_t firstOpen = 0;
    size_t lastClose = 0;
};

bool SpanOf(const std::string& text, EntrySpan& span)
{
    FileListLimits unlimited;  // the engine's own text: the receiver applies the limits
    unlimited.maxJsonBytes = static_cast<size_t>(-1);
    unlimited.maxEntries = static_cast<size_t>(-1);
    std::string error;
    const EntrySink sink = [&span](ReadEntry& read, std::string&) {
        if (span.count++ == 0) {
            span.firstOpen = read.openAt;
        }
        span.lastClose = read.closeAt;
        return true;
    };
    return ReadFileListText(text, unlimited, sink, error) && span.count > 0;
}

}  // namespace

std::string SlicedListText(const std::vector<FileDescription>& entries, const SliceWriter& writeSlice,
                           size_t sliceEntries)
{
    if (entries.size() <= sliceEntries) {
        return writeSlice(entries, 0);
    }
    std::string joined;
    std::string ending;
    for (size_t start = 0; start < entries.size(); start += sliceEntries) {
        const size_t end = std::min(entries.size(), start + sliceEntries);
        const std::vector<FileDescription> slice(entries.begin() + static_cast<std::ptrdiff_t>(start),
                                                 entries.begin() + static_cast<std::ptrdiff_t>(end));
        const std::string text = writeSlice(slice, start);
        EntrySpan span;
        if (!SpanOf(text, span) || span.count != slice.size()) {
            return writeSlice(entries, 0);
        }
        if (start == 0) {
            joined.reserve(text.size() / slice.size() * entries.size() + text.size());
            joined.append(text, 0, span.lastClose + 1);
        } else {
            joined += ',';
            joined.append(text, span.firstOpen, span.lastClose + 1 - span.firstOpen);
        }
        ending.assign(text, span.lastClose + 1, std::string::npos);
    }
    joined += ending;
    return joined;
}

}  // namespace orin::xfer::host::detail
