// A directory that must never change, beside the destination of hostile
// copies: files, a sub-directory and symbolic links, so that
// TreeFingerprint() of it (times left out) shows a single byte written outside the
// destination.
//
// THREADING CONTRACT: plain functions; call while nothing writes the tree.
#pragma once

#include <cstdint>
#include <string>

namespace orin::xfer::test {

// Fills `root` (an existing, empty directory) with files, a sub-directory
// and symbolic links.
void MakeCanaryTree(const std::string& root);

}  // namespace orin::xfer::test
