// File trees for the two-process tests: deterministic file contents, byte-for-byte tree comparison and a fingerprint that changes
// when anything in a tree does.
//
// THREADING CONTRACT: plain functions and a move-free RAII owner; one
// test thread.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "TempDir.h"

namespace xferfm::tcptest {

using orin::xfer::test::TempDir;

// `size` bytes that depend on `seed` and on the position.
std::vector<uint8_t> PatternBytes(size_t size, uint32_t seed);
void WriteFile(const std::string& path, const std::vector<uint8_t>& bytes);
void WriteText(const std::string& path, const std::string& text);

// Empty when `expected` and `actual` hold the same names, types and bytes
// (directories compared recursively); otherwise the first difference.
std::string TreeDifference(const std::string& expected, const std::string& actual);

// Names, types, sizes, modification times and contents of everything
// under `root` (links not followed), folded into one string.
std::string TreeFingerprint(const std::string& root);

// Names directly in `dir`, sorted.
std::vector<std::string> NamesIn(const std::string& dir);

}  // namespace xferfm::tcptest
