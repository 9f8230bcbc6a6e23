// The tool's one command line: `copy`, `demo`, `serve` and `send`, their
// options and help texts, defined in one place. Turns argv into the command
// to run and its options. Prints --help, --version and usage errors itself
// (help and version on stdout, errors on stderr).
//
// Threading: call once from main before any other thread starts.
#pragma once

#include "CommandOptions.h"

namespace xferfm::cli {

enum class Command { kCopy, kDemo, kServe, kSend, kExit };

struct ParsedCommandLine {
    Command command = Command::kExit;
    CopyOptions copy;    // kCopy and kDemo
    ServeOptions serve;  // kServe
    SendOptions send;    // kSend
    int exitCode = 0;    // kExit: what the process returns
};

ParsedCommandLine parseCommandLine(int argc, char** argv);

}  // namespace xferfm::cli
