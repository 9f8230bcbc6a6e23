#include "StderrConsole.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>

namespace xferfm::cli {

StderrConsole::StderrConsole() : mIsTerminal(isatty(STDERR_FILENO) == 1) {}

int StderrConsole::width() const
{
    winsize size{};
    if (mIsTerminal && ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0) {
        return size.ws_col;
    }
    return 80;
}

void StderrConsole::writeRaw(const std::string& text)
{
    const char* data = text.data();
    size_t left = text.size();
    while (left > 0) {
        const ssize_t written = ::write(STDERR_FILENO, data, left);
        if (written < 0) {
            if (errno == EINTR) {
                continue;
            }
            return;  // nowhere left to report a broken stderr
        }
        data += written;
        left -= static_cast<size_t>(written);
    }
}

void StderrConsole::eraseStatusLocked()
{
    if (!mStatus.empty()) {
        writeRaw("\r\x1b[K");
    }
}

void StderrConsole::writeLine(const std::string& line)
{
    std::lock_guard<std::mutex> lock(mMutex);
    eraseStatusLocked();
    std::string text = line;
    if (text.empty() || text.back() != '\n') {
        text += '\n';
    }
    if (!mStatus.empty()) {
        text += mStatus;
    }
    writeRaw(text);
}

void StderrConsole::setStatus(const std::string& status)
{
    std::lock_guard<std::mutex> lock(mMutex);
    if (!mIsTerminal) {
        return;
    }
    mStatus = status;
    writeRaw("\r\x1b[K" + mStatus);
}

void StderrConsole::finishStatus()
{
    std::lock_guard<std::mutex> lock(mMutex);
    if (!mStatus.empty()) {
        writeRaw("\n");
        mStatus.clear();
    }
}

}  // namespace xferfm::cli
