// A command line run through /bin/sh, for tests that need a real shell's
// reading of words or a pipeline: one reader of its output for every suite.
#pragma once

#include <string>

namespace orin::xfer::test {

struct ShellResult {
    std::string out;    // standard output, whole
    int exitCode = -1;  // -1: it could not start, or a signal ended it
};

// Runs `command` with `sh -c` and waits for it. Standard error is left
// alone: redirect it inside the command to capture it.
ShellResult RunShell(const std::string& command);

}  // namespace orin::xfer::test
