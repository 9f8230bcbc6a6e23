#include "FileListTimes.h"

#include "FileListReader.h"

namespace orin::xfer::host::detail {

bool AddModificationTimes(std::string& json, const SourcePlan& plan, std::string& error, size_t firstEntry)
{
    const auto keyFor = [&plan, firstEntry](const ReadEntry& read) {
        const size_t index = firstEntry + read.index;
        if (!read.problem.empty() || read.hasTime || index >= plan.entries.size()) {
            return std::string();
        }
        const SourceEntry& source = plan.entries[index];
        if (read.entry.RequestName() != source.relativePath) {
            return std::string();  // not the plan's entry: left without a time
        }
        return "\"mtime\":[" + std::to_string(static_cast<long long>(source.modified.tv_sec)) + "," +
               std::to_string(static_cast<long long>(source.modified.tv_nsec)) + "]";
    };
    if (!AddKeyToEntries(json, keyFor, error)) {
        error = "the engine's file list cannot be read to add modification times: " + error;
        return false;
    }
    return true;
}

}  // namespace orin::xfer::host::detail
