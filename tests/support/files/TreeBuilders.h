// Small builders for the trees the tool's end-to-end tests copy: large
// pattern files written in pieces, text files and directories with chosen
// modes.
//
// Threading: plain functions; one test thread.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>

namespace orin::xfer::test {

// Writes `size` pattern bytes (seeded) to `path`, streaming, any size.
void writePatternFile(const std::string& path, uint64_t size, uint32_t seed);
void writeTextFile(const std::string& path, const std::string& text, mode_t mode = 0644);
void makeDirectory(const std::string& path, mode_t mode = 0755);
std::string readTextFile(const std::string& path);
bool exists(const std::string& path);
bool isDirectory(const std::string& path);

}  // namespace orin::xfer::test
