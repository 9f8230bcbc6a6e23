// Runs the built xferfm binary as a child process and collects what it did:
// exit code, stdout, stderr. Every run has a deadline after which the child
// is killed and the run counts as timed out, so a hang fails a test instead
// of stalling the suite.
//
// Threading: one ToolRun per test thread; nothing is shared.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

namespace orin::xfer::test {

// Path of the binary under test, from the build.
const char* toolPath();

struct ToolResult {
    int exitCode = -1;    // -1 when killed by a signal or timed out
    int signal = 0;       // the signal that ended it, if any
    bool timedOut = false;
    std::string out;
    std::string err;
    double seconds = 0.0;  // wall time of the run
};

struct RunOptions {
    std::chrono::seconds timeout{120};
    std::string workingDir;  // empty: inherit
    std::vector<std::string> environment;  // extra "NAME=value" entries for the child
    // Called every ~20 ms while the child runs, with its pid; return false
    // to stop calling it (used to send signals at a chosen moment).
    std::function<bool(pid_t)> whileRunning;
};

ToolResult runTool(const std::vector<std::string>& args, const RunOptions& options = {});

// "exit 3, stderr: ..." for assertion messages.
std::string describe(const ToolResult& result);

}  // namespace orin::xfer::test
