#include "ShellCommand.h"

#include <sys/wait.h>

#include <cstdio>

namespace orin::xfer::test {

ShellResult RunShell(const std::string& command)
{
    ShellResult result;
    FILE* pipe = ::popen(command.c_str(), "r");
    if (pipe == nullptr) {
        return result;
    }
    char buffer[4096];
    size_t got = 0;
    while ((got = std::fread(buffer, 1, sizeof buffer, pipe)) > 0) {
        result.out.append(buffer, got);
    }
    const int status = ::pclose(pipe);
    result.exitCode = status != -1 && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return result;
}

}  // namespace orin::xfer::test
