#include "CanaryTree.h"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <vector>

#include "HostTestSupport.h"
#include "TestSupport.h"

namespace orin::xfer::host::test {

namespace {

constexpr uint64_t kFnvOffset = 1469598103934665603ull;
constexpr uint64_t kFnvPrime = 1099511628211ull;

void mix(uint64_t& hash, const std::string& bytes)
{
    for (const char c : bytes) {
        hash = (hash ^ static_cast<unsigned char>(c)) * kFnvPrime;
    }
    hash = (hash ^ 0xFFu) * kFnvPrime;  // a separator, so "ab"+"c" differs from "a"+"bc"
}

void fingerprint(const std::string& path, const std::string& relative, uint64_t& hash)
{
    struct stat status {};
    if (lstat(path.c_str(), &status) != 0) {
        mix(hash, "missing:" + relative);
        return;
    }
    mix(hash, relative + ":" + std::to_string(status.st_mode) + ":" + std::to_string(status.st_size));
    if (S_ISLNK(status.st_mode)) {
        char target[4096];
        const ssize_t length = readlink(path.c_str(), target, sizeof target);
        mix(hash, std::string(target, length > 0 ? static_cast<size_t>(length) : 0));
    } else if (S_ISREG(status.st_mode)) {
        std::ifstream in(path, std::ios::binary);
        mix(hash, std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()));
    } else if (S_ISDIR(status.st_mode)) {
        std::vector<std::string> names;
        if (DIR* dir = opendir(path.c_str())) {
            while (const dirent* entry = readdir(dir)) {
                const std::string name = entry->d_name;
                if (name != "." && name != "..") {
                    names.push_back(name);
                }
            }
            closedir(dir);
        }
        std::sort(names.begin(), names.end());
        for (const auto& name : names) {
            fingerprint(path + "/" + name, relative + "/" + name, hash);
        }
    }
}

}  // namespace

void MakeCanaryTree(const std::string& root)
{
    WriteFile(root + "/victim.txt", orin::xfer::test::PatternBytes(1000, 77), 0644);
    MakeDirectory(root + "/sub");
    WriteFile(root + "/sub/file.bin", orin::xfer::test::PatternBytes(70000, 78), 0600);
    symlink("victim.txt", (root + "/link-to-victim").c_str());
    symlink("/nonexistent-target", (root + "/dangling-link").c_str());
}

uint64_t FingerprintTree(const std::string& root)
{
    uint64_t hash = kFnvOffset;
    fingerprint(root, ".", hash);
    return hash;
}

}  // namespace orin::xfer::host::test
