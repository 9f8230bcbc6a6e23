// Byte-for-byte comparison of two directory trees, plus small builders for
// the trees the end-to-end tests copy.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

namespace xferfm::tooltest {

// Every difference between the trees: entries present on one side only, a
// file against a directory, differing bytes, differing permission bits.
// Empty when the trees are identical. Symbolic links are followed.
std::vector<std::string> treeDifferences(const std::string& expectedRoot, const std::string& actualRoot);

// Files under `copyRoot` that are not byte-identical to the file at the
// same relative path under `sourceRoot` (a half-written or foreign file).
std::vector<std::string> incompleteCopies(const std::string& sourceRoot, const std::string& copyRoot);

// Bytes in regular files anywhere under `root` (0 when it does not exist).
uint64_t bytesUnder(const std::string& root);

// Sorted names directly inside `directory`.
std::vector<std::string> namesIn(const std::string& directory);

// Writes `size` pattern bytes (seeded) to `path`, streaming, any size.
void writePatternFile(const std::string& path, uint64_t size, uint32_t seed);
void writeTextFile(const std::string& path, const std::string& text, mode_t mode = 0644);
void makeDirectory(const std::string& path, mode_t mode = 0755);
std::string readTextFile(const std::string& path);
bool exists(const std::string& path);
bool isDirectory(const std::string& path);
// Entries whose name starts with ".xferfm-cache" anywhere under `root`.
std::vector<std::string> leftoverCaches(const std::string& root);

}  // namespace xferfm::tooltest
