// A file of a given size filled with a pattern, in /dev/shm when it exists
// (so reads hit memory, not a disk), removed when the object goes.
#pragma once

#include <cstdint>
#include <string>

namespace xferfm::bench {

class ScratchFile {
public:
    ScratchFile(const std::string& name, uint64_t size);
    ~ScratchFile();
    ScratchFile(const ScratchFile&) = delete;
    ScratchFile& operator=(const ScratchFile&) = delete;

    const std::string& Dir() const { return mDir; }
    const std::string& Name() const { return mName; }
    std::string Path() const { return mDir + "/" + mName; }

private:
    std::string mDir;
    std::string mName;
};

}  // namespace xferfm::bench
