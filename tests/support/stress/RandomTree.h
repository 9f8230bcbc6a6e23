// Small random source trees for the stress and fault tests, drawn from a
// seeded generator so a failing run can be replayed, and the checks that
// a destination holds nothing but whole copies of them.
//
// THREADING CONTRACT: plain functions; a tree is used by one thread.
#pragma once

#include <cstdint>
#include <random>
#include <string>
#include <vector>

namespace orin::xfer::test {

struct RandomTree {
    std::string parent;                    // the directory the tree's top entries are in
    std::vector<std::string> topEntries;   // names directly under `parent`
    std::vector<std::string> directories;  // relative to `parent`, parents first
    std::vector<std::string> files;        // relative to `parent`
    uint64_t fileBytes = 0;
    uint64_t largestFile = 0;
};

// 1 to 8 files (sizes from empty through the 64 KiB chunk edges to a few
// chunks) in up to 3 directories under `parent`, which must exist. With
// `multiChunkFile` one file spans several chunks.
RandomTree MakeRandomTree(const std::string& parent, std::mt19937_64& rng, bool multiChunkFile);

// Empty when every regular file under `destination` is a whole copy of the
// file at the same relative path under `tree.parent` and no cache directory
// is left behind; otherwise the first problem.
std::string CheckOnlyWholeCopies(const RandomTree& tree, const std::string& destination);

}  // namespace orin::xfer::test
