// The two descriptors of a StreamTransport and the system calls made on
// them: which one is written, how the write side ends (shutdown for a
// socket, close for a pipe), and the reads that must never block.
//
// THREADING CONTRACT: Write and WaitWritable from the writer thread only;
// ReadReady, ReadNow and DrainUntilPeerCloses from one reading thread at a
// time; EndWriteSide from either, once the writer has stopped using the
// write end (it acts once; later calls do nothing).
#pragma once

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>

#include "xferfm/host/StreamTransport.h"

namespace orin::xfer::host::detail {

class StreamDescriptors {
public:
    // Takes both ends and puts the write end in non-blocking mode until the
    // write side ends or the object goes (the flag is the open file's,
    // shared with every duplicate, so it is given back as it was).
    explicit StreamDescriptors(StreamEnds& ends);
    ~StreamDescriptors();
    StreamDescriptors(const StreamDescriptors&) = delete;
    StreamDescriptors& operator=(const StreamDescriptors&) = delete;

    int ReadFd() const { return mReadEnd.Fd(); }
    bool WriteIsSocket() const { return mWriteIsSocket; }

    // One write() attempt: bytes written, or -1 with errno (EAGAIN when full).
    ssize_t Write(const uint8_t* bytes, size_t size) const;
    // True when the write end can take bytes within `wait`.
    bool WaitWritable(std::chrono::milliseconds wait) const;
    // A read() of what is waiting; 0 at the end of the stream, -1 with errno
    // (EAGAIN when nothing is waiting).
    ssize_t ReadNow(uint8_t* buffer, size_t size) const;
    // True when a read would not block now.
    bool ReadReady() const;

    void EndWriteSide();
    // After our end of the stream went out, reads (and drops) what the
    // peer still sends until it closes too or `limit` passes, so that
    // closing a socket with unread bytes does not reset the connection and
    // destroy the frames sent last.
    void DrainUntilPeerCloses(std::chrono::milliseconds limit) const;

private:
    void RestoreWriteFlags();

    OwnedFd mReadEnd;
    OwnedFd mWriteEnd;  // invalid when the read end carries both directions
    int mWriteFd;
    bool mWriteIsSocket;
    int mWriteFlags = -1;  // as found, while O_NONBLOCK is ours to take back
    std::atomic<bool> mWriteSideEnded{false};
};

}  // namespace orin::xfer::host::detail
