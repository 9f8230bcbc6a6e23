#include "ChildProcess.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <thread>

extern char** environ;

namespace orin::xfer::test {
namespace {

std::string ReadWhole(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

// The test's environment with `extra` entries added or replacing theirs.
std::vector<std::string> EnvironmentWith(const std::vector<std::string>& extra)
{
    auto overridden = [&extra](const std::string& entry) {
        const std::string name = entry.substr(0, entry.find('=') + 1);
        for (const std::string& added : extra) {
            if (added.rfind(name, 0) == 0) {
                return true;
            }
        }
        return false;
    };
    std::vector<std::string> entries;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        if (!overridden(*entry)) {
            entries.emplace_back(*entry);
        }
    }
    entries.insert(entries.end(), extra.begin(), extra.end());
    return entries;
}

std::vector<char*> PointersTo(std::vector<std::string>& strings)
{
    std::vector<char*> pointers;
    for (std::string& text : strings) {
        pointers.push_back(text.data());
    }
    pointers.push_back(nullptr);
    return pointers;
}

}  // namespace

ChildProcess::ChildProcess(const std::string& program, const std::vector<std::string>& args,
                           const std::string& outputPrefix, const ChildOptions& options)
    : mOutPath(outputPrefix + ".out"), mErrPath(outputPrefix + ".err")
{
    std::vector<std::string> all{program};
    all.insert(all.end(), args.begin(), args.end());
    const std::vector<char*> argv = PointersTo(all);
    std::vector<std::string> environment = EnvironmentWith(options.environment);
    const std::vector<char*> envp = PointersTo(environment);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    if (options.standardInput >= 0) {
        posix_spawn_file_actions_adddup2(&actions, options.standardInput, STDIN_FILENO);
    } else {
        posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    }
    if (options.standardOutput >= 0) {
        posix_spawn_file_actions_adddup2(&actions, options.standardOutput, STDOUT_FILENO);
    } else {
        posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, mOutPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                         0644);
    }
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, mErrPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (!options.workingDir.empty()) {
        posix_spawn_file_actions_addchdir_np(&actions, options.workingDir.c_str());
    }
    // The child must not inherit a blocked signal mask from a test thread.
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    sigset_t none;
    sigemptyset(&none);
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK);
    pid_t pid = -1;
    if (posix_spawn(&pid, program.c_str(), &actions, &attributes, argv.data(), envp.data()) == 0) {
        mPid = pid;
    }
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&actions);
}

ChildProcess::~ChildProcess()
{
    if (mPid > 0 && !mExited) {
        ::kill(mPid, SIGKILL);
        Reap(true);
    }
}

bool ChildProcess::Reap(bool block)
{
    int status = 0;
    struct rusage usage {};
    const pid_t done = ::wait4(mPid, &status, block ? 0 : WNOHANG, &usage);
    if (done != mPid) {
        return false;
    }
    mExited = true;
    mPeakKiB = static_cast<uint64_t>(usage.ru_maxrss);  // KiB on Linux
    if (WIFEXITED(status)) {
        mExitCode = WEXITSTATUS(status);
    } else if (WIFSIGNALED(status)) {
        mTermSignal = WTERMSIG(status);
    }
    return true;
}

bool ChildProcess::WaitExit(std::chrono::milliseconds timeout)
{
    if (mPid <= 0) {
        return false;
    }
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!mExited && !Reap(false)) {
        if (std::chrono::steady_clock::now() >= deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return true;
}

void ChildProcess::Signal(int signal) const
{
    if (mPid > 0 && !mExited) {
        ::kill(mPid, signal);
    }
}

std::string ChildProcess::Stdout() const { return ReadWhole(mOutPath); }

std::string ChildProcess::Stderr() const { return ReadWhole(mErrPath); }

std::string ChildProcess::Describe() const
{
    std::string state = !mExited ? "still running" : mTermSignal != 0 ? "killed by signal " + std::to_string(mTermSignal)
                                                                      : "exit " + std::to_string(mExitCode);
    return state + "\n--- stdout:\n" + Stdout() + "--- stderr:\n" + Stderr();
}

}  // namespace orin::xfer::test
