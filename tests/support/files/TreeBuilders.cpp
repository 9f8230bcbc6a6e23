#include "TreeBuilders.h"

#include <sys/stat.h>

#include <algorithm>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <vector>

namespace orin::xfer::test {

void writePatternFile(const std::string& path, uint64_t size, uint32_t seed)
{
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    std::vector<char> block(1 << 20);
    uint32_t state = seed * 2654435761u + 7u;
    uint64_t left = size;
    while (left > 0) {
        for (char& byte : block) {
            state = state * 1664525u + 1013904223u;
            byte = static_cast<char>(state >> 24);
        }
        const size_t piece = static_cast<size_t>(std::min<uint64_t>(left, block.size()));
        out.write(block.data(), static_cast<std::streamsize>(piece));
        left -= piece;
    }
    if (!out) {
        throw std::runtime_error("cannot write " + path);
    }
}

void writeTextFile(const std::string& path, const std::string& text, mode_t mode)
{
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << text;
    out.close();
    if (!out || ::chmod(path.c_str(), mode) != 0) {
        throw std::runtime_error("cannot write " + path);
    }
}

void makeDirectory(const std::string& path, mode_t mode)
{
    if (::mkdir(path.c_str(), mode) != 0 || ::chmod(path.c_str(), mode) != 0) {
        throw std::runtime_error("cannot make " + path);
    }
}

std::string readTextFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

bool exists(const std::string& path)
{
    struct stat status {};
    return ::lstat(path.c_str(), &status) == 0;
}

bool isDirectory(const std::string& path)
{
    struct stat status {};
    return ::stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

}  // namespace orin::xfer::test
