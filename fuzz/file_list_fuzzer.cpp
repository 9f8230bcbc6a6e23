// The receiver's file-list parser on arbitrary bytes. Besides not crashing,
// a list it accepts must be one the receiver can copy safely: every name
// relative and free of "." and "..", within the limits, every entry under
// a directory listed before it, no name twice, and the totals adding up.
#include <cstddef>
#include <cstdint>
#include <set>
#include <string>

#include "FuzzSupport.h"
#include "xferfm/host/FileList.h"

namespace {

using orin::xfer::host::FileListLimits;
using orin::xfer::host::ParsedFileList;
using xferfm::fuzz::Violation;

void checkComponent(const std::string& component, const FileListLimits& limits, const std::string& name)
{
    if (component.empty() || component == "." || component == ".." || component.size() > limits.maxNameBytes ||
        component.find('\0') != std::string::npos) {
        Violation("accepted a bad component", name);
    }
}

void checkAccepted(const ParsedFileList& list, const FileListLimits& limits)
{
    std::set<std::string> names;
    std::set<std::string> directories;
    uint64_t fileBytes = 0;
    size_t files = 0;
    for (const auto& entry : list.entries) {
        const std::string name = entry.RequestName();
        if (name.size() > limits.maxPathBytes) {
            Violation("accepted an over-long path", name);
        }
        if (entry.fileName.find('/') != std::string::npos) {
            Violation("accepted a separator in a file name", name);
        }
        size_t depth = 0;
        size_t start = 0;
        while (true) {
            const size_t slash = name.find('/', start);
            checkComponent(name.substr(start, slash == std::string::npos ? std::string::npos : slash - start), limits,
                           name);
            ++depth;
            if (slash == std::string::npos) {
                break;
            }
            start = slash + 1;
        }
        if (depth > limits.maxDepth) {
            Violation("accepted a path nested too deep", name);
        }
        if (!entry.filePath.empty() && directories.count(entry.filePath) == 0) {
            Violation("accepted an entry before its directory", name);
        }
        if (!names.insert(name).second) {
            Violation("accepted a repeated name", name);
        }
        if ((entry.mode & ~07777u) != 0) {
            Violation("kept bits beyond the permission bits", name);
        }
        if (entry.isDirectory) {
            directories.insert(name);
        } else {
            fileBytes += entry.fileSize;
            ++files;
        }
    }
    if (fileBytes != list.totalFileBytes || files != list.fileCount ||
        list.directoryCount != list.entries.size() - files) {
        Violation("totals do not add up", std::to_string(list.entries.size()) + " entries");
    }
}

void parseWith(const std::string& json, const FileListLimits& limits)
{
    ParsedFileList list;
    std::string error;
    if (orin::xfer::host::ParseFileList(json, list, error, limits)) {
        if (!error.empty()) {
            Violation("accepted with an error message", error);
        }
        checkAccepted(list, limits);
    } else if (error.empty() || !list.entries.empty()) {
        Violation("refused without a message or kept entries", error);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::string json(reinterpret_cast<const char*>(data), size);
    parseWith(json, FileListLimits{});
    // Small limits make every limit reachable by short inputs.
    FileListLimits tight;
    tight.maxJsonBytes = 4096;
    tight.maxEntries = 8;
    tight.maxPathBytes = 40;
    tight.maxNameBytes = 12;
    tight.maxDepth = 3;
    parseWith(json, tight);
    return 0;
}
