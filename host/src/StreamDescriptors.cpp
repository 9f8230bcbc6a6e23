#include "StreamDescriptors.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <vector>

namespace orin::xfer::host::detail {
namespace {

using Clock = std::chrono::steady_clock;

bool IsSocket(int fd)
{
    struct stat status {};
    return ::fstat(fd, &status) == 0 && S_ISSOCK(status.st_mode);
}

}  // namespace

StreamDescriptors::StreamDescriptors(StreamEnds& ends)
    : mReadEnd(std::move(ends.readEnd)),
      mWriteEnd(std::move(ends.writeEnd)),
      mWriteFd(mWriteEnd.Valid() ? mWriteEnd.Fd() : mReadEnd.Fd()),
      mWriteIsSocket(IsSocket(mWriteFd))
{
    const int flags = ::fcntl(mWriteFd, F_GETFL);
    if (flags >= 0 && (flags & O_NONBLOCK) == 0 && ::fcntl(mWriteFd, F_SETFL, flags | O_NONBLOCK) == 0) {
        mWriteFlags = flags;
    }
}

StreamDescriptors::~StreamDescriptors() { RestoreWriteFlags(); }

void StreamDescriptors::RestoreWriteFlags()
{
    if (mWriteFlags >= 0) {
        ::fcntl(mWriteFd, F_SETFL, mWriteFlags);
        mWriteFlags = -1;
    }
}

ssize_t StreamDescriptors::Write(const uint8_t* bytes, size_t size) const { return ::write(mWriteFd, bytes, size); }

bool StreamDescriptors::WaitWritable(std::chrono::milliseconds wait) const
{
    pollfd writable{mWriteFd, POLLOUT, 0};
    return ::poll(&writable, 1, static_cast<int>(wait.count())) > 0;
}

ssize_t StreamDescriptors::ReadNow(uint8_t* buffer, size_t size) const
{
    if (!ReadReady()) {
        errno = EAGAIN;
        return -1;
    }
    return ::read(mReadEnd.Fd(), buffer, size);
}

bool StreamDescriptors::ReadReady() const
{
    pollfd readable{mReadEnd.Fd(), POLLIN, 0};
    return ::poll(&readable, 1, 0) > 0;
}

// A socket is shut for writing (its read side stays open); a pipe's end
// can only be closed.
void StreamDescriptors::EndWriteSide()
{
    if (mWriteSideEnded.exchange(true)) {
        return;
    }
    RestoreWriteFlags();
    if (mWriteIsSocket) {
        ::shutdown(mWriteFd, SHUT_WR);
    } else {
        mWriteEnd.Reset();
    }
}

void StreamDescriptors::DrainUntilPeerCloses(std::chrono::milliseconds limit) const
{
    std::vector<uint8_t> sink(64u << 10);
    const auto deadline = Clock::now() + limit;
    for (;;) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
        if (left.count() <= 0) {
            return;
        }
        pollfd watched{mReadEnd.Fd(), POLLIN, 0};
        const int ready = ::poll(&watched, 1, static_cast<int>(left.count()));
        if (ready < 0 && errno == EINTR) {
            continue;
        }
        if (ready <= 0) {
            return;
        }
        const ssize_t received = ::read(mReadEnd.Fd(), sink.data(), sink.size());
        if (received == 0 || (received < 0 && errno != EINTR && errno != EAGAIN)) {
            return;
        }
    }
}

}  // namespace orin::xfer::host::detail
