// Runs a program as a child process with its stdout and stderr going to
// files: the one way tests start another process (`xferfm serve` and
// `xferfm send`, a sender killed mid-file, the tool run to its end by
// ToolRunner). Every wait has a deadline; a child still running when its
// ChildProcess is destroyed is killed and reaped. The child starts with no
// signal blocked, whatever the mask of the test thread that starts it.
//
// THREADING CONTRACT: one ChildProcess belongs to one test thread.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

namespace orin::xfer::test {

struct ChildOptions {
    std::string workingDir;                // empty: the test's own
    std::vector<std::string> environment;  // "NAME=value" entries added to, or replacing, the test's
    // When set, the child's standard input and output are these descriptors
    // (pipe ends, say) instead of /dev/null and the ".out" file; the test
    // keeps its own copies and closes them.
    int standardInput = -1;
    int standardOutput = -1;
};

class ChildProcess {
public:
    // Starts `program` with `args`; output goes to `outputPrefix` + ".out"
    // and ".err". Check Started().
    ChildProcess(const std::string& program, const std::vector<std::string>& args, const std::string& outputPrefix,
                 const ChildOptions& options = {});
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    bool Started() const { return mPid > 0; }
    pid_t Pid() const { return mPid; }
    // True once the child has ended (within `timeout`).
    bool WaitExit(std::chrono::milliseconds timeout);
    bool Exited() const { return mExited; }
    int ExitCode() const { return mExitCode; }        // -1 when ended by a signal
    int TermSignal() const { return mTermSignal; }    // 0 when it exited
    // The child's peak resident memory (its VmHWM) in KiB, once it has ended.
    uint64_t PeakKiB() const { return mPeakKiB; }
    void Signal(int signal) const;
    std::string Stdout() const;
    std::string Stderr() const;
    // "exit 1, stdout: ..., stderr: ..." for assertion messages.
    std::string Describe() const;

private:
    bool Reap(bool block);

    pid_t mPid = -1;
    bool mExited = false;
    int mExitCode = -1;
    int mTermSignal = 0;
    uint64_t mPeakKiB = 0;
    std::string mOutPath;
    std::string mErrPath;
};

}  // namespace orin::xfer::test
