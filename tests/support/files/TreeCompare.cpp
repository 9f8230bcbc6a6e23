#include "TreeCompare.h"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>

namespace orin::xfer::test {
namespace {

bool SameBytes(const std::string& left, const std::string& right)
{
    std::ifstream a(left, std::ios::binary);
    std::ifstream b(right, std::ios::binary);
    if (!a || !b) {
        return false;
    }
    std::vector<char> bufferA(1 << 20);
    std::vector<char> bufferB(1 << 20);
    while (true) {
        a.read(bufferA.data(), static_cast<std::streamsize>(bufferA.size()));
        b.read(bufferB.data(), static_cast<std::streamsize>(bufferB.size()));
        if (a.gcount() != b.gcount()) {
            return false;
        }
        if (std::memcmp(bufferA.data(), bufferB.data(), static_cast<size_t>(a.gcount())) != 0) {
            return false;
        }
        if (a.gcount() == 0 || !a || !b) {
            return a.eof() == b.eof();
        }
    }
}

bool IsDirectoryPath(const std::string& path)
{
    struct stat status {};
    return ::stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

void CompareInto(const std::string& expected, const std::string& actual, const std::string& relative,
                 TreeCompare how, std::vector<std::string>& differences)
{
    struct stat expectedStatus {};
    struct stat actualStatus {};
    if (::stat(expected.c_str(), &expectedStatus) != 0) {
        differences.push_back(relative + ": expected side unreadable");
        return;
    }
    if (::stat(actual.c_str(), &actualStatus) != 0) {
        differences.push_back(relative + ": missing in copy");
        return;
    }
    if (S_ISDIR(expectedStatus.st_mode) != S_ISDIR(actualStatus.st_mode) ||
        S_ISREG(expectedStatus.st_mode) != S_ISREG(actualStatus.st_mode)) {
        differences.push_back(relative + ": file/directory mismatch");
        return;
    }
    if (how == TreeCompare::kBytesAndModes && (expectedStatus.st_mode & 07777) != (actualStatus.st_mode & 07777)) {
        std::ostringstream text;
        text << relative << ": mode " << std::oct << (expectedStatus.st_mode & 07777) << " became "
             << (actualStatus.st_mode & 07777);
        differences.push_back(text.str());
    }
    if (!S_ISDIR(expectedStatus.st_mode)) {
        if (expectedStatus.st_size != actualStatus.st_size) {
            differences.push_back(relative + ": size " + std::to_string(expectedStatus.st_size) + " became " +
                                  std::to_string(actualStatus.st_size));
        } else if (!SameBytes(expected, actual)) {
            differences.push_back(relative + ": bytes differ");
        }
        return;
    }
    const std::vector<std::string> expectedNames = NamesIn(expected);
    const std::vector<std::string> actualNames = NamesIn(actual);
    for (const std::string& name : actualNames) {
        if (!std::binary_search(expectedNames.begin(), expectedNames.end(), name)) {
            differences.push_back(relative + "/" + name + ": unexpected in copy");
        }
    }
    for (const std::string& name : expectedNames) {
        CompareInto(expected + "/" + name, actual + "/" + name, relative + "/" + name, how, differences);
    }
}

uint64_t Fnv1a(std::istream& in)
{
    uint64_t hash = 1469598103934665603ull;
    for (auto it = std::istreambuf_iterator<char>(in); it != std::istreambuf_iterator<char>(); ++it) {
        hash = (hash ^ static_cast<uint8_t>(*it)) * 1099511628211ull;
    }
    return hash;
}

}  // namespace

std::vector<std::string> NamesIn(const std::string& directory)
{
    std::vector<std::string> names;
    DIR* handle = ::opendir(directory.c_str());
    if (handle == nullptr) {
        return names;
    }
    while (const dirent* entry = ::readdir(handle)) {
        const std::string name = entry->d_name;
        if (name != "." && name != "..") {
            names.push_back(name);
        }
    }
    ::closedir(handle);
    std::sort(names.begin(), names.end());
    return names;
}

std::vector<std::string> TreeDifferences(const std::string& expected, const std::string& actual, TreeCompare how)
{
    std::vector<std::string> differences;
    CompareInto(expected, actual, ".", how, differences);
    return differences;
}

std::string TreeDifference(const std::string& expected, const std::string& actual, TreeCompare how)
{
    const std::vector<std::string> differences = TreeDifferences(expected, actual, how);
    return differences.empty() ? "" : differences.front();
}

std::string TreeFingerprint(const std::string& root, FingerprintTimes times)
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
        fingerprint += relative + ":" + std::to_string(info.st_mode) + ":" + std::to_string(info.st_size);
        if (times == FingerprintTimes::kIncluded) {
            fingerprint += ":" + std::to_string(info.st_mtim.tv_sec) + "." + std::to_string(info.st_mtim.tv_nsec);
        }
        if (S_ISREG(info.st_mode)) {
            std::ifstream in(path, std::ios::binary);
            fingerprint += ":" + std::to_string(Fnv1a(in));
        } else if (S_ISLNK(info.st_mode)) {
            char target[4096];
            const ssize_t length = ::readlink(path.c_str(), target, sizeof target);
            fingerprint += ":-> " + std::string(target, length > 0 ? static_cast<size_t>(length) : 0);
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

std::vector<std::string> IncompleteCopies(const std::string& sourceRoot, const std::string& copyRoot)
{
    std::vector<std::string> incomplete;
    for (const std::string& name : NamesIn(copyRoot)) {
        const std::string source = sourceRoot + "/" + name;
        const std::string copy = copyRoot + "/" + name;
        struct stat status {};
        if (IsDirectoryPath(copy)) {
            const std::vector<std::string> inner = IncompleteCopies(source, copy);
            incomplete.insert(incomplete.end(), inner.begin(), inner.end());
        } else if (IsDirectoryPath(source) || ::lstat(source.c_str(), &status) != 0 || !SameBytes(source, copy)) {
            incomplete.push_back(copy);
        }
    }
    return incomplete;
}

std::vector<std::string> LeftoverCaches(const std::string& root)
{
    std::vector<std::string> found;
    for (const std::string& name : NamesIn(root)) {
        const std::string path = root + "/" + name;
        if (name.rfind(".xferfm-cache", 0) == 0) {
            found.push_back(path);
        } else if (IsDirectoryPath(path)) {
            const std::vector<std::string> inner = LeftoverCaches(path);
            found.insert(found.end(), inner.begin(), inner.end());
        }
    }
    return found;
}

size_t FilesUnder(const std::string& root)
{
    size_t count = 0;
    std::error_code error;
    for (auto it = std::filesystem::recursive_directory_iterator(root, error);
         !error && it != std::filesystem::recursive_directory_iterator(); it.increment(error)) {
        std::error_code vanished;
        count += it->is_regular_file(vanished) ? 1 : 0;
    }
    return count;
}

uint64_t BytesUnder(const std::string& root)
{
    struct stat status {};
    if (::stat(root.c_str(), &status) != 0) {
        return 0;
    }
    if (!S_ISDIR(status.st_mode)) {
        return static_cast<uint64_t>(status.st_size);
    }
    uint64_t total = 0;
    for (const std::string& name : NamesIn(root)) {
        total += BytesUnder(root + "/" + name);
    }
    return total;
}

}  // namespace orin::xfer::test
