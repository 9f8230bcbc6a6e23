// A directory that must never change, beside the destination of hostile
// copies: its fingerprint covers every entry's name, type and mode, every
// file's bytes and every symbolic link's target, so a single byte written
// outside the destination shows.
//
// THREADING CONTRACT: plain functions; call while nothing writes the tree.
#pragma once

#include <cstdint>
#include <string>

namespace orin::xfer::host::test {

// Fills `root` (an existing, empty directory) with files, a sub-directory
// and symbolic links.
void MakeCanaryTree(const std::string& root);

// FNV-1a over the tree's listing and contents, without following links.
uint64_t FingerprintTree(const std::string& root);

}  // namespace orin::xfer::host::test
