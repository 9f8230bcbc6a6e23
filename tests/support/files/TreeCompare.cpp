#include "TreeCompare.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace xferfm::tooltest {
namespace {

bool sameBytes(const std::string& left, const std::string& right)
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

void compareInto(const std::string& expected, const std::string& actual, const std::string& relative,
                 std::vector<std::string>& differences)
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
    if (S_ISDIR(expectedStatus.st_mode) != S_ISDIR(actualStatus.st_mode)) {
        differences.push_back(relative + ": file/directory mismatch");
        return;
    }
    if ((expectedStatus.st_mode & 0777) != (actualStatus.st_mode & 0777)) {
        std::ostringstream text;
        text << relative << ": mode " << std::oct << (expectedStatus.st_mode & 0777) << " became "
             << (actualStatus.st_mode & 0777);
        differences.push_back(text.str());
    }
    if (!S_ISDIR(expectedStatus.st_mode)) {
        if (expectedStatus.st_size != actualStatus.st_size) {
            differences.push_back(relative + ": size " + std::to_string(expectedStatus.st_size) + " became " +
                                  std::to_string(actualStatus.st_size));
        } else if (!sameBytes(expected, actual)) {
            differences.push_back(relative + ": bytes differ");
        }
        return;
    }
    const std::vector<std::string> expectedNames = namesIn(expected);
    const std::vector<std::string> actualNames = namesIn(actual);
    for (const std::string& name : actualNames) {
        if (!std::binary_search(expectedNames.begin(), expectedNames.end(), name)) {
            differences.push_back(relative + "/" + name + ": unexpected in copy");
        }
    }
    for (const std::string& name : expectedNames) {
        compareInto(expected + "/" + name, actual + "/" + name, relative + "/" + name, differences);
    }
}

}  // namespace

std::vector<std::string> namesIn(const std::string& directory)
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

std::vector<std::string> incompleteCopies(const std::string& sourceRoot, const std::string& copyRoot)
{
    std::vector<std::string> incomplete;
    for (const std::string& name : namesIn(copyRoot)) {
        const std::string source = sourceRoot + "/" + name;
        const std::string copy = copyRoot + "/" + name;
        if (isDirectory(copy)) {
            const std::vector<std::string> inner = incompleteCopies(source, copy);
            incomplete.insert(incomplete.end(), inner.begin(), inner.end());
        } else if (isDirectory(source) || !exists(source) || !sameBytes(source, copy)) {
            incomplete.push_back(copy);
        }
    }
    return incomplete;
}

uint64_t bytesUnder(const std::string& root)
{
    struct stat status {};
    if (::stat(root.c_str(), &status) != 0) {
        return 0;
    }
    if (!S_ISDIR(status.st_mode)) {
        return static_cast<uint64_t>(status.st_size);
    }
    uint64_t total = 0;
    for (const std::string& name : namesIn(root)) {
        total += bytesUnder(root + "/" + name);
    }
    return total;
}

std::vector<std::string> treeDifferences(const std::string& expectedRoot, const std::string& actualRoot)
{
    std::vector<std::string> differences;
    compareInto(expectedRoot, actualRoot, ".", differences);
    return differences;
}

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

std::vector<std::string> leftoverCaches(const std::string& root)
{
    std::vector<std::string> found;
    for (const std::string& name : namesIn(root)) {
        const std::string path = root + "/" + name;
        if (name.rfind(".xferfm-cache", 0) == 0) {
            found.push_back(path);
        } else if (isDirectory(path)) {
            const std::vector<std::string> inner = leftoverCaches(path);
            found.insert(found.end(), inner.begin(), inner.end());
        }
    }
    return found;
}

}  // namespace xferfm::tooltest
