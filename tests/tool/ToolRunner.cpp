#include "ToolRunner.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>

#ifndef XFERFM_TOOL_PATH
#error "XFERFM_TOOL_PATH must name the built xferfm binary"
#endif

namespace xferfm::tooltest {
namespace {

using Clock = std::chrono::steady_clock;

void drain(int& fd, std::string& into)
{
    char buffer[65536];
    const ssize_t got = ::read(fd, buffer, sizeof buffer);
    if (got > 0) {
        into.append(buffer, static_cast<size_t>(got));
    } else if (got == 0 || (errno != EINTR && errno != EAGAIN)) {
        ::close(fd);
        fd = -1;
    }
}

}  // namespace

const char* toolPath() { return XFERFM_TOOL_PATH; }

ToolResult runTool(const std::vector<std::string>& args, const RunOptions& options)
{
    int outPipe[2];
    int errPipe[2];
    if (::pipe2(outPipe, O_CLOEXEC) != 0 || ::pipe2(errPipe, O_CLOEXEC) != 0) {
        throw std::runtime_error("pipe failed");
    }
    std::vector<std::string> argvStrings{toolPath()};
    argvStrings.insert(argvStrings.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (std::string& arg : argvStrings) {
        argv.push_back(arg.data());
    }
    argv.push_back(nullptr);
    std::vector<std::string> environmentStrings;
    auto overridden = [&options](const std::string& entry) {
        const std::string name = entry.substr(0, entry.find('=') + 1);
        for (const std::string& extra : options.environment) {
            if (extra.rfind(name, 0) == 0) {
                return true;
            }
        }
        return false;
    };
    for (char** entry = environ; *entry != nullptr; ++entry) {
        if (!overridden(*entry)) {
            environmentStrings.emplace_back(*entry);
        }
    }
    environmentStrings.insert(environmentStrings.end(), options.environment.begin(), options.environment.end());
    std::vector<char*> envp;
    for (std::string& entry : environmentStrings) {
        envp.push_back(entry.data());
    }
    envp.push_back(nullptr);

    const auto started = Clock::now();
    const pid_t child = ::fork();
    if (child < 0) {
        throw std::runtime_error("fork failed");
    }
    if (child == 0) {
        ::dup2(outPipe[1], STDOUT_FILENO);
        ::dup2(errPipe[1], STDERR_FILENO);
        const int devNull = ::open("/dev/null", O_RDONLY);
        ::dup2(devNull, STDIN_FILENO);
        if (!options.workingDir.empty() && ::chdir(options.workingDir.c_str()) != 0) {
            ::_exit(126);
        }
        ::execve(argv[0], argv.data(), envp.data());
        ::_exit(127);
    }
    ::close(outPipe[1]);
    ::close(errPipe[1]);

    ToolResult result;
    int outFd = outPipe[0];
    int errFd = errPipe[0];
    bool watching = static_cast<bool>(options.whileRunning);
    const auto deadline = started + options.timeout;
    while (outFd >= 0 || errFd >= 0) {
        if (Clock::now() > deadline) {
            result.timedOut = true;
            ::kill(child, SIGKILL);
            break;
        }
        pollfd fds[2] = {{outFd, POLLIN, 0}, {errFd, POLLIN, 0}};
        const int ready = ::poll(fds, 2, 20);
        if (ready > 0) {
            if (outFd >= 0 && (fds[0].revents & (POLLIN | POLLHUP | POLLERR)) != 0) {
                drain(outFd, result.out);
            }
            if (errFd >= 0 && (fds[1].revents & (POLLIN | POLLHUP | POLLERR)) != 0) {
                drain(errFd, result.err);
            }
        }
        if (watching) {
            watching = options.whileRunning(child);
        }
    }
    if (outFd >= 0) {
        ::close(outFd);
    }
    if (errFd >= 0) {
        ::close(errFd);
    }
    int status = 0;
    while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    result.seconds = std::chrono::duration<double>(Clock::now() - started).count();
    if (WIFEXITED(status)) {
        result.exitCode = WEXITSTATUS(status);
    } else if (WIFSIGNALED(status)) {
        result.signal = WTERMSIG(status);
    }
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

}  // namespace xferfm::tooltest
