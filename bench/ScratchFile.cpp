#include "ScratchFile.h"

#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <stdexcept>
#include <vector>

namespace xferfm::bench {

namespace {
std::string scratchDir()
{
    return access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp";
}
}  // namespace

ScratchFile::ScratchFile(const std::string& name, uint64_t size)
    : mDir(scratchDir()), mName(name + "." + std::to_string(getpid()))
{
    std::ofstream out(Path(), std::ios::binary | std::ios::trunc);
    std::vector<char> block(1 << 20);
    for (size_t i = 0; i < block.size(); ++i) {
        block[i] = static_cast<char>(i * 131 + 7);
    }
    for (uint64_t left = size; left > 0;) {
        const uint64_t piece = std::min<uint64_t>(left, block.size());
        out.write(block.data(), static_cast<std::streamsize>(piece));
        left -= piece;
    }
    if (!out) {
        throw std::runtime_error("cannot write scratch file " + Path());
    }
}

ScratchFile::~ScratchFile()
{
    unlink(Path().c_str());
}

}  // namespace xferfm::bench
