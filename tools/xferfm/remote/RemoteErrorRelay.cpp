#include "RemoteErrorRelay.h"

#include <poll.h>
#include <unistd.h>

#include <cerrno>

#include "xferfm/host/RemoteNameGuard.h"  // PrintableText

namespace xferfm::cli {
namespace {

constexpr size_t kKeptLines = 5;
// A longer line is shown in pieces: a far side that never ends a line
// cannot make the relay hold an unbounded buffer.
constexpr size_t kLongestLine = 4096;

}  // namespace

RemoteErrorRelay::RemoteErrorRelay(orin::xfer::host::OwnedFd fd, std::string hostLabel, StderrConsole& console)
    : mFd(std::move(fd)), mPrefix(std::move(hostLabel) + ": "), mConsole(console), mThread([this] { run(); })
{
}

RemoteErrorRelay::~RemoteErrorRelay()
{
    finish(std::chrono::milliseconds(500));
}

void RemoteErrorRelay::finish(std::chrono::milliseconds timeout)
{
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!mClosed && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    mStop = true;
    if (mThread.joinable()) {
        mThread.join();
    }
}

std::vector<std::string> RemoteErrorRelay::lastLines() const
{
    std::lock_guard<std::mutex> lock(mMutex);
    return {mLast.begin(), mLast.end()};
}

void RemoteErrorRelay::show(const std::string& line)
{
    std::string text = line;
    if (!text.empty() && text.back() == '\r') {
        text.pop_back();
    }
    const std::string printable = orin::xfer::host::PrintableText(text);
    mConsole.writeLine(mPrefix + printable);
    std::lock_guard<std::mutex> lock(mMutex);
    mLast.push_back(printable);
    if (mLast.size() > kKeptLines) {
        mLast.pop_front();
    }
}

void RemoteErrorRelay::run()
{
    std::string pending;
    char buffer[4096];
    while (!mStop) {
        pollfd watched{mFd.Fd(), POLLIN, 0};
        const int ready = ::poll(&watched, 1, 50);
        if (ready < 0 && errno != EINTR) {
            break;
        }
        if (ready <= 0) {
            continue;
        }
        const ssize_t got = ::read(mFd.Fd(), buffer, sizeof buffer);
        if (got < 0 && (errno == EINTR || errno == EAGAIN)) {
            continue;
        }
        if (got <= 0) {
            break;
        }
        pending.append(buffer, static_cast<size_t>(got));
        size_t newline = 0;
        while ((newline = pending.find('\n')) != std::string::npos) {
            show(pending.substr(0, newline));
            pending.erase(0, newline + 1);
        }
        while (pending.size() > kLongestLine) {
            show(pending.substr(0, kLongestLine));
            pending.erase(0, kLongestLine);
        }
    }
    if (!pending.empty()) {
        show(pending);
    }
    mClosed = true;
}

}  // namespace xferfm::cli
