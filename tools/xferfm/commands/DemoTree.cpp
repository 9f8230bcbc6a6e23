#include "DemoTree.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "ToolError.h"

namespace xferfm::cli {
namespace {

[[noreturn]] void failed(const std::string& path)
{
    throw ToolError(ExitCode::kTransferFailed,
                    "demo: cannot create '" + path + "': " + SystemErrorText(errno));
}

void makeDirectory(const std::string& path)
{
    if (::mkdir(path.c_str(), 0755) != 0) {
        failed(path);
    }
}

void writeText(const std::string& path, const std::string& text, mode_t mode = 0644)
{
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode);
    if (fd < 0 || ::write(fd, text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
        failed(path);
    }
    ::close(fd);
    ::chmod(path.c_str(), mode);  // exact bits, whatever the umask
}

}  // namespace

void writePatternFile(const std::string& path, unsigned long long size, unsigned seed)
{
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) {
        failed(path);
    }
    std::vector<unsigned char> block(1024 * 1024);
    uint32_t state = seed * 2654435761u + 1;
    unsigned long long left = size;
    while (left > 0) {
        for (unsigned char& byte : block) {
            state = state * 1664525u + 1013904223u;  // a cheap LCG: the bytes only need to vary
            byte = static_cast<unsigned char>(state >> 24);
        }
        const size_t piece = left < block.size() ? static_cast<size_t>(left) : block.size();
        if (::write(fd, block.data(), piece) != static_cast<ssize_t>(piece)) {
            ::close(fd);
            failed(path);
        }
        left -= piece;
    }
    ::close(fd);
}

DemoLayout makeDemoTree()
{
    const char* tmp = std::getenv("TMPDIR");
    std::string pattern = std::string(tmp != nullptr && *tmp != '\0' ? tmp : "/tmp") + "/xferfm-demo-XXXXXX";
    std::vector<char> buffer(pattern.begin(), pattern.end());
    buffer.push_back('\0');
    if (::mkdtemp(buffer.data()) == nullptr) {
        failed(pattern);
    }
    DemoLayout layout;
    layout.root = buffer.data();
    const std::string source = layout.root + "/source";
    const std::string tree = source + "/holiday photos";
    layout.destinationDir = layout.root + "/destination";
    layout.clashingName = "notes.txt";

    makeDirectory(source);
    makeDirectory(tree);
    makeDirectory(tree + "/2024");
    makeDirectory(tree + "/2024/März — Zürich");
    makeDirectory(tree + "/empty album");
    makeDirectory(tree + "/scripts");
    writePatternFile(tree + "/2024/März — Zürich/see panorama.raw", 5ull * 1024 * 1024 + 12345, 1);
    writePatternFile(tree + "/2024/exactly one chunk.bin", 65536, 2);
    writePatternFile(tree + "/2024/日本の写真.jpg", 200000, 3);
    writeText(tree + "/empty file.txt", "");
    writeText(tree + "/.album-settings", "sort=date\n");
    writeText(tree + "/scripts/resize.sh", "#!/bin/sh\necho resizing \"$@\"\n", 0755);
    writeText(source + "/notes.txt", "notes from the source side\n");

    makeDirectory(layout.destinationDir);
    writeText(layout.destinationDir + "/notes.txt", "notes that were already at the destination\n");

    layout.sources = {tree, source + "/notes.txt"};
    return layout;
}

}  // namespace xferfm::cli
