// The duplicates land at 3 or above, so they can never be the 0 or 1 that
// are replaced right after. Every step that can fail comes before the
// first one that changes the process.
#include "xferfm/host/StandardStreams.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "xferfm/host/SystemErrorText.h"

namespace orin::xfer::host {

bool TakeStandardStreams(StreamEnds& ends, std::string& error)
{
    // Frames on a terminal would only garble it (and a terminal's line
    // discipline would garble the frames).
    if (::isatty(STDOUT_FILENO) == 1 || ::isatty(STDIN_FILENO) == 1) {
        error = "standard input or output is a terminal: the link needs pipes or a socket to another program";
        return false;
    }
    std::fflush(stdout);
    OwnedFd input(::fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 3));
    OwnedFd output(::fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3));
    OwnedFd nothing(::open("/dev/null", O_RDONLY | O_CLOEXEC));
    if (!input.Valid() || !output.Valid() || !nothing.Valid()) {
        error = "cannot take standard input and output for the link: " + SystemErrorText(errno);
        return false;
    }
    if (::dup2(STDERR_FILENO, STDOUT_FILENO) < 0 || ::dup2(nothing.Fd(), STDIN_FILENO) < 0) {
        error = "cannot set standard input and output aside: " + SystemErrorText(errno);
        return false;
    }
    ends.readEnd = std::move(input);
    ends.writeEnd = std::move(output);
    ends.peer = kStandardStreamsLabel;
    return true;
}

}  // namespace orin::xfer::host
