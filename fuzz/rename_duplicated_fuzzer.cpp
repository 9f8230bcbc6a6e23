// The engine's RenameDuplicatedFilePath on lists of names that pass the
// remote-name guard, against a scratch directory that already holds some
// of them. Checked besides not crashing or hanging: every entry gets a
// destination name, a name that does not exist keeps its own name (unless
// a renamed directory above it moved it), and a renamed top-level entry
// lands on a name that did not exist.
#include <fuzzer/FuzzedDataProvider.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "FuzzSupport.h"

namespace {

using xferfm::fuzz::Violation;

constexpr uint32_t kDirectory = 0x10;
constexpr uint32_t kFile = 0x80;

bool exists(const std::string& path)
{
    return access(path.c_str(), F_OK) == 0;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static const auto engine = xferfm::fuzz::MakeQuietEngine();
    const std::string& scratch = xferfm::fuzz::ScratchDirectory();

    FuzzedDataProvider input(data, size);
    std::vector<orin::xfer::FileDescription> files;
    while (input.remaining_bytes() > 0 && files.size() < 16) {
        orin::xfer::FileDescription file;
        file.attribute = input.ConsumeBool() ? kDirectory : kFile;
        file.fileName = input.ConsumeRandomLengthString(128);
        file.destDir = scratch;
        if (xferfm::fuzz::GuardAccepts(file.fileName)) {
            files.push_back(file);
        }
    }
    const std::vector<orin::xfer::FileDescription> before = files;
    engine->RenameDuplicatedFilePath(files);

    bool anyDirectoryRenamed = false;
    for (size_t index = 0; index < files.size(); ++index) {
        const auto& file = files[index];
        if (file.destFileName.empty()) {
            Violation("an entry got no destination name", file.fileName);
        }
        const bool renamed = file.destFileName != file.fileName;
        const bool topLevel = file.fileName.find('/') == std::string::npos;
        if (!anyDirectoryRenamed && !exists(scratch + "/" + file.fileName) && renamed) {
            Violation("a free name was renamed", file.fileName + " -> " + file.destFileName);
        }
        if (renamed && topLevel && exists(scratch + "/" + file.destFileName)) {
            Violation("renamed onto an existing name", file.fileName + " -> " + file.destFileName);
        }
        if (!renamed && exists(scratch + "/" + file.fileName) && !anyDirectoryRenamed) {
            Violation("an existing name was kept", file.fileName);
        }
        if (before[index].fileName != file.fileName || before[index].attribute != file.attribute) {
            Violation("the entry itself was changed", before[index].fileName);
        }
        anyDirectoryRenamed = anyDirectoryRenamed || (renamed && (file.attribute & kDirectory) != 0);
    }
    return 0;
}
