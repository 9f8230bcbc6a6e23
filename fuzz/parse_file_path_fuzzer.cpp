// The engine's ParseFilePath, as the sender's enumeration uses it, on paths
// made of a scratch directory and a name that passes the remote-name guard
// (the engine is only ever given such names). Checked besides not
// crashing: the file name is the last component, and for a path that is
// not a directory, parsed against the scratch directory as root, the
// sub-directory is exactly the name's parent path.
#include <fuzzer/FuzzedDataProvider.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <sys/stat.h>

#include "FuzzSupport.h"

namespace {

using xferfm::fuzz::Violation;

std::string parentOf(const std::string& name)
{
    const size_t slash = name.find_last_of('/');
    return slash == std::string::npos ? std::string() : name.substr(0, slash);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static const auto engine = xferfm::fuzz::MakeQuietEngine();
    const std::string& scratch = xferfm::fuzz::ScratchDirectory();

    FuzzedDataProvider input(data, size);
    const uint8_t rootChoice = input.ConsumeIntegral<uint8_t>();
    const std::string name = input.ConsumeRandomLengthString(512);
    const std::string rootName = input.ConsumeRandomLengthString(64);
    if (!xferfm::fuzz::GuardAccepts(name)) {
        return 0;
    }
    std::string root;
    switch (rootChoice % 4) {
    case 0: root = scratch; break;
    case 1: root.clear(); break;
    case 2: root = scratch + "/dir"; break;
    default: root = xferfm::fuzz::GuardAccepts(rootName) ? scratch + "/" + rootName : scratch; break;
    }
    const std::string path = scratch + "/" + name;

    orin::xfer::FileDescription description;
    engine->ParseFilePath(path, description, root);

    const std::string lastComponent = path.substr(path.find_last_of('/') + 1);
    if (description.fileName != lastComponent) {
        Violation("the file name is not the last component", path + " -> " + description.fileName);
    }
    struct stat status {};
    const bool isDirectory = stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
    if (!isDirectory && root == scratch && description.filePath != parentOf(name)) {
        Violation("the sub-directory is not the name's parent", path + " -> " + description.filePath);
    }
    if (!isDirectory && !root.empty() && description.sourceDir != root) {
        Violation("the source directory is not the root", path + " -> " + description.sourceDir);
    }
    return 0;
}
