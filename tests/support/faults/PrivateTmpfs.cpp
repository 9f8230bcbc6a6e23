#include "PrivateTmpfs.h"

#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace orin::xfer::test {

namespace {

constexpr int kExitPassed = 0;
constexpr int kExitFailed = 1;
constexpr int kExitUnsupported = 77;

[[noreturn]] void finishChild(int fd, const std::string& text, int code)
{
    size_t done = 0;
    while (done < text.size()) {
        const ssize_t written = write(fd, text.data() + done, text.size() - done);
        if (written <= 0) {
            break;
        }
        done += static_cast<size_t>(written);
    }
    _exit(code);
}

[[noreturn]] void runChild(int fd, const std::string& mountPoint, const std::string& size,
                           const std::function<std::string()>& body)
{
    if (unshare(CLONE_NEWNS) != 0) {
        finishChild(fd, std::string("unshare(CLONE_NEWNS): ") + std::strerror(errno), kExitUnsupported);
    }
    // Keep our mounts from propagating back to the machine's namespace.
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
        finishChild(fd, std::string("making / private: ") + std::strerror(errno), kExitUnsupported);
    }
    const std::string options = "size=" + size;
    if (mount("tmpfs", mountPoint.c_str(), "tmpfs", 0, options.c_str()) != 0) {
        finishChild(fd, "mount -t tmpfs -o " + options + ": " + std::strerror(errno), kExitUnsupported);
    }
    const std::string problems = body();
    finishChild(fd, problems, problems.empty() ? kExitPassed : kExitFailed);
}

}  // namespace

ChildOutcome RunWithPrivateTmpfs(const std::string& mountPoint, const std::string& size,
                                 const std::function<std::string()>& body, std::chrono::seconds limit)
{
    ChildOutcome outcome;
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) {
        outcome.text = std::string("pipe: ") + std::strerror(errno);
        return outcome;
    }
    const pid_t child = fork();
    if (child < 0) {
        outcome.text = std::string("fork: ") + std::strerror(errno);
        close(fds[0]);
        close(fds[1]);
        return outcome;
    }
    if (child == 0) {
        close(fds[0]);
        runChild(fds[1], mountPoint, size, body);
    }
    close(fds[1]);

    // Read what the child says until it closes the pipe, within the limit.
    const auto deadline = std::chrono::steady_clock::now() + limit;
    std::string text;
    bool timedOut = false;
    while (true) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline -
                                                                                 std::chrono::steady_clock::now());
        if (left.count() <= 0) {
            timedOut = true;
            break;
        }
        pollfd waiting{fds[0], POLLIN, 0};
        if (poll(&waiting, 1, static_cast<int>(std::min<int64_t>(left.count(), 1000))) <= 0) {
            continue;
        }
        char buffer[4096];
        const ssize_t got = read(fds[0], buffer, sizeof buffer);
        if (got <= 0) {
            break;
        }
        text.append(buffer, static_cast<size_t>(got));
    }
    close(fds[0]);
    if (timedOut) {
        kill(child, SIGKILL);
    }
    int status = 0;
    waitpid(child, &status, 0);
    outcome.text = text;
    if (timedOut) {
        outcome.kind = ChildOutcome::kTimedOut;
    } else if (WIFEXITED(status) && WEXITSTATUS(status) == kExitPassed) {
        outcome.kind = ChildOutcome::kPassed;
    } else if (WIFEXITED(status) && WEXITSTATUS(status) == kExitUnsupported) {
        outcome.kind = ChildOutcome::kUnsupported;
    } else {
        outcome.kind = ChildOutcome::kFailed;
        if (!WIFEXITED(status)) {
            outcome.text += " (the child ended with signal " + std::to_string(WTERMSIG(status)) + ")";
        }
    }
    return outcome;
}

}  // namespace orin::xfer::test
