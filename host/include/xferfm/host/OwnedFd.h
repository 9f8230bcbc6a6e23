// An owned file descriptor: closed when the owner goes, moved, never
// copied. A socket, one end of a pipe, a duplicate of standard input.
//
// THREADING CONTRACT: a move-only owner with no locking; give each one to a
// single thread at a time.
#pragma once

#include <unistd.h>

namespace orin::xfer::host {

class OwnedFd {
public:
    OwnedFd() = default;
    explicit OwnedFd(int fd) : mFd(fd) {}
    ~OwnedFd() { Reset(); }
    OwnedFd(OwnedFd&& other) noexcept : mFd(other.Release()) {}
    OwnedFd& operator=(OwnedFd&& other) noexcept
    {
        if (this != &other) {
            Reset(other.Release());
        }
        return *this;
    }
    OwnedFd(const OwnedFd&) = delete;
    OwnedFd& operator=(const OwnedFd&) = delete;

    int Fd() const { return mFd; }
    bool Valid() const { return mFd >= 0; }
    int Release()
    {
        const int fd = mFd;
        mFd = -1;
        return fd;
    }
    void Reset(int fd = -1)
    {
        if (mFd >= 0) {
            ::close(mFd);
        }
        mFd = fd;
    }

private:
    int mFd = -1;
};

}  // namespace orin::xfer::host
