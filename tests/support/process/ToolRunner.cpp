#include "ToolRunner.h"

#include <signal.h>

#include <stdexcept>

#include "ChildProcess.h"
#include "TempDir.h"

#ifndef XFERFM_TOOL_PATH
#error "XFERFM_TOOL_PATH must name the built xferfm binary"
#endif

// A run is a ChildProcess whose output files live in a scratch directory of
// their own, read back once the child has ended.

namespace orin::xfer::test {

using Clock = std::chrono::steady_clock;

const char* toolPath() { return XFERFM_TOOL_PATH; }

ToolResult runTool(const std::vector<std::string>& args, const RunOptions& options)
{
    const TempDir output;
    const auto started = Clock::now();
    ChildProcess child(toolPath(), args, output.Join("tool"), {options.workingDir, options.environment});
    if (!child.Started()) {
        throw std::runtime_error(std::string("cannot start ") + toolPath());
    }
    ToolResult result;
    bool watching = static_cast<bool>(options.whileRunning);
    const auto deadline = started + options.timeout;
    while (!child.WaitExit(std::chrono::milliseconds(20))) {
        if (Clock::now() > deadline) {
            result.timedOut = true;
            child.Signal(SIGKILL);
            child.WaitExit(std::chrono::hours(1));
            break;
        }
        if (watching) {
            watching = options.whileRunning(child.Pid());
        }
    }
    result.seconds = std::chrono::duration<double>(Clock::now() - started).count();
    result.exitCode = child.ExitCode();
    result.signal = child.TermSignal();
    result.out = child.Stdout();
    result.err = child.Stderr();
    return result;
}

std::string describe(const ToolResult& result)
{
    std::string text = result.timedOut ? "timed out" : "exit " + std::to_string(result.exitCode);
    if (result.signal != 0) {
        text += ", signal " + std::to_string(result.signal);
    }
    return text + "\nstdout:\n" + result.out + "\nstderr:\n" + result.err;
}

}  // namespace orin::xfer::test
