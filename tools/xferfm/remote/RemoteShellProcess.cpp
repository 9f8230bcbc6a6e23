// The child is started with posix_spawnp: no code runs between fork and
// exec in a process whose other threads may hold locks. Every pipe end is
// made close-on-exec, so the child keeps only the three it is given and no
// later child inherits one of this one's.
#include "RemoteShellProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <thread>
#include <utility>

#include "ToolError.h"

extern char** environ;

namespace xferfm::cli {
namespace {

constexpr std::chrono::milliseconds kGracePeriod{2000};

// A pipe whose two ends are closed when it goes, unless moved out.
struct Pipe {
    OwnedFd readEnd;
    OwnedFd writeEnd;
    Pipe()
    {
        int ends[2] = {-1, -1};
        if (::pipe2(ends, O_CLOEXEC) != 0) {
            throw ToolError(ExitCode::kRemoteUnavailable,
                            "cannot start the remote shell: no pipe: " + SystemErrorText(errno));
        }
        readEnd.Reset(ends[0]);
        writeEnd.Reset(ends[1]);
    }
};

// posix_spawn's attribute and action objects, destroyed with the scope.
struct SpawnSetup {
    posix_spawnattr_t attributes;
    posix_spawn_file_actions_t actions;
    SpawnSetup()
    {
        posix_spawnattr_init(&attributes);
        posix_spawn_file_actions_init(&actions);
    }
    ~SpawnSetup()
    {
        posix_spawn_file_actions_destroy(&actions);
        posix_spawnattr_destroy(&attributes);
    }
};

}  // namespace

std::string ChildEnd::describe() const
{
    return signal != 0 ? "signal " + std::to_string(signal) : "exit code " + std::to_string(exitCode);
}

RemoteShellProcess::RemoteShellProcess(const std::vector<std::string>& argv)
{
    Pipe input;
    Pipe output;
    Pipe errors;
    SpawnSetup setup;
    // dup2 clears close-on-exec on the copy the child keeps.
    posix_spawn_file_actions_adddup2(&setup.actions, input.readEnd.Fd(), STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&setup.actions, output.writeEnd.Fd(), STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&setup.actions, errors.writeEnd.Fd(), STDERR_FILENO);

    sigset_t none;
    sigemptyset(&none);
    posix_spawnattr_setsigmask(&setup.attributes, &none);
    sigset_t defaults;
    sigemptyset(&defaults);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGPIPE, SIGQUIT}) {
        sigaddset(&defaults, signal);
    }
    posix_spawnattr_setsigdefault(&setup.attributes, &defaults);
    posix_spawnattr_setflags(&setup.attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);

    std::vector<char*> args;
    for (const std::string& arg : argv) {
        args.push_back(const_cast<char*>(arg.c_str()));
    }
    args.push_back(nullptr);
    const int error = ::posix_spawnp(&mPid, args[0], &setup.actions, &setup.attributes, args.data(), environ);
    if (error != 0) {
        mPid = -1;
        throw ToolError(ExitCode::kRemoteUnavailable,
                        "cannot run the remote shell '" + argv[0] + "': " + SystemErrorText(error));
    }
    // The child's ends close here, with the pipes: only the child holds them.
    mInput = std::move(input.writeEnd);
    mOutput = std::move(output.readEnd);
    mErrors = std::move(errors.readEnd);
}

RemoteShellProcess::~RemoteShellProcess()
{
    mInput.Reset();
    mOutput.Reset();
    mErrors.Reset();
    if (mPid <= 0 || mReaped) {
        return;
    }
    // The copy is over: the child has had its end of stream; give it a
    // moment to leave by itself, then make it.
    if (!waitEnd(std::chrono::milliseconds(200))) {
        terminate();
        if (!waitEnd(kGracePeriod)) {
            ::kill(mPid, SIGKILL);
            reap(true);
        }
    }
}

RemoteShellProcess::FirstWord RemoteShellProcess::waitForFirstWord(const std::function<bool()>& stop)
{
    while (!stop()) {
        pollfd watched{mOutput.Fd(), POLLIN, 0};
        const int ready = ::poll(&watched, 1, 100);
        if (ready < 0 && errno != EINTR) {
            return FirstWord::kEnded;
        }
        if (ready > 0) {
            // POLLIN with bytes waiting wins over a hang-up that follows them.
            return (watched.revents & POLLIN) != 0 ? FirstWord::kSpoke : FirstWord::kEnded;
        }
    }
    return FirstWord::kInterrupted;
}

bool RemoteShellProcess::reap(bool block)
{
    if (mReaped) {
        return true;
    }
    int status = 0;
    pid_t done = 0;
    do {
        done = ::waitpid(mPid, &status, block ? 0 : WNOHANG);
    } while (done < 0 && errno == EINTR);
    if (done != mPid) {
        return false;
    }
    ChildEnd end;
    if (WIFEXITED(status)) {
        end.exitCode = WEXITSTATUS(status);
    } else if (WIFSIGNALED(status)) {
        end.signal = WTERMSIG(status);
    }
    mEnd = end;
    mReaped = true;
    return true;
}

std::optional<ChildEnd> RemoteShellProcess::waitEnd(std::chrono::milliseconds timeout)
{
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!reap(false)) {
        if (std::chrono::steady_clock::now() >= deadline) {
            return std::nullopt;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return mEnd;
}

void RemoteShellProcess::terminate()
{
    if (mPid > 0 && !mReaped) {
        ::kill(mPid, SIGTERM);
    }
}

}  // namespace xferfm::cli
