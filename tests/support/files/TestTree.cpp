#include "TestTree.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>

namespace xferfm::tcptest {
namespace {

namespace fs = std::filesystem;

std::string ReadBytes(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

uint64_t Fnv1a(const std::string& bytes)
{
    uint64_t hash = 1469598103934665603ull;
    for (const char c : bytes) {
        hash = (hash ^ static_cast<uint8_t>(c)) * 1099511628211ull;
    }
    return hash;
}

}  // namespace

std::vector<uint8_t> PatternBytes(size_t size, uint32_t seed)
{
    std::vector<uint8_t> bytes(size);
    uint32_t state = seed * 2654435761u + 1;
    for (size_t index = 0; index < size; ++index) {
        state = state * 1664525u + 1013904223u;
        bytes[index] = static_cast<uint8_t>(state >> 24);
    }
    return bytes;
}

void WriteFile(const std::string& path, const std::vector<uint8_t>& bytes)
{
    fs::create_directories(fs::path(path).parent_path());
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

void WriteText(const std::string& path, const std::string& text)
{
    WriteFile(path, std::vector<uint8_t>(text.begin(), text.end()));
}

std::vector<std::string> NamesIn(const std::string& dir)
{
    std::vector<std::string> names;
    std::error_code ignored;
    for (const auto& entry : fs::directory_iterator(dir, ignored)) {
        names.push_back(entry.path().filename().string());
    }
    std::sort(names.begin(), names.end());
    return names;
}

std::string TreeDifference(const std::string& expected, const std::string& actual)
{
    struct stat want {};
    struct stat got {};
    if (::lstat(expected.c_str(), &want) != 0) {
        return expected + " is missing";
    }
    if (::lstat(actual.c_str(), &got) != 0) {
        return actual + " is missing";
    }
    if (S_ISDIR(want.st_mode) != S_ISDIR(got.st_mode) || S_ISREG(want.st_mode) != S_ISREG(got.st_mode)) {
        return actual + " is not the same kind of entry as " + expected;
    }
    if (S_ISREG(want.st_mode)) {
        return ReadBytes(expected) == ReadBytes(actual) ? "" : actual + " differs from " + expected;
    }
    const std::vector<std::string> names = NamesIn(expected);
    if (names != NamesIn(actual)) {
        return actual + " does not hold the same names as " + expected;
    }
    for (const std::string& name : names) {
        const std::string difference = TreeDifference(expected + "/" + name, actual + "/" + name);
        if (!difference.empty()) {
            return difference;
        }
    }
    return "";
}

std::string TreeFingerprint(const std::string& root)
{
    std::string fingerprint;
    std::vector<std::string> pending{""};
    while (!pending.empty()) {
        const std::string relative = pending.back();
        pending.pop_back();
        const std::string path = relative.empty() ? root : root + "/" + relative;
        struct stat info {};
        if (::lstat(path.c_str(), &info) != 0) {
            fingerprint += relative + ":missing\n";
            continue;
        }
        fingerprint += relative + ":" + std::to_string(info.st_mode) + ":" + std::to_string(info.st_size) + ":" +
                       std::to_string(info.st_mtim.tv_sec) + "." + std::to_string(info.st_mtim.tv_nsec);
        if (S_ISREG(info.st_mode)) {
            fingerprint += ":" + std::to_string(Fnv1a(ReadBytes(path)));
        }
        fingerprint += "\n";
        if (S_ISDIR(info.st_mode)) {
            for (const std::string& name : NamesIn(path)) {
                pending.push_back(relative.empty() ? name : relative + "/" + name);
            }
        }
    }
    return fingerprint;
}

}  // namespace xferfm::tcptest
