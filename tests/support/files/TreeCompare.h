// The one place tests look at whole directory trees: byte-for-byte
// comparison of a copy with its source, a fingerprint that changes when
// anything in a tree does, and the checks that a destination holds only
// whole copies and no leftover cache.
//
// Threading: plain functions; call while nothing writes the trees.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace orin::xfer::test {

enum class TreeCompare {
    kBytes,          // names, kinds and contents
    kBytesAndModes,  // the same, and permission bits (07777)
};

// Every difference between the trees: entries present on one side only, a
// file against a directory, differing bytes and, with kBytesAndModes,
// differing permission bits. Empty when the trees are the same. Symbolic
// links are followed. `expected` and `actual` may also be two files.
std::vector<std::string> TreeDifferences(const std::string& expected, const std::string& actual,
                                         TreeCompare how = TreeCompare::kBytesAndModes);

// The first of TreeDifferences(), or "" when there is none.
std::string TreeDifference(const std::string& expected, const std::string& actual,
                           TreeCompare how = TreeCompare::kBytesAndModes);

enum class FingerprintTimes {
    kIncluded,  // rewriting a file with the same bytes shows
    kLeftOut,   // an entry made and removed again leaves no trace
};

// Names, types, modes, sizes, contents, symbolic link targets and (unless
// left out) modification times of everything under `root` (links not
// followed), folded into one string: equal strings mean an untouched tree.
std::string TreeFingerprint(const std::string& root, FingerprintTimes times = FingerprintTimes::kIncluded);

// Files under `copyRoot` that are not byte-identical to the file at the
// same relative path under `sourceRoot` (a half-written or foreign file).
std::vector<std::string> IncompleteCopies(const std::string& sourceRoot, const std::string& copyRoot);

// Entries whose name starts with ".xferfm-cache" anywhere under `root`.
std::vector<std::string> LeftoverCaches(const std::string& root);

// Bytes in regular files anywhere under `root` (0 when it does not exist).
uint64_t BytesUnder(const std::string& root);

// Regular files anywhere under `root` (0 when it does not exist); entries
// that vanish while it is read (a cache being removed) are not counted.
size_t FilesUnder(const std::string& root);

// Sorted names directly inside `directory` (none when it cannot be read).
std::vector<std::string> NamesIn(const std::string& directory);

}  // namespace orin::xfer::test
