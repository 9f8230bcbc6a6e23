// An eventfd that one thread signals to wake another out of poll().
//
// THREADING CONTRACT: Signal and Fd from any thread; the descriptor closes
// with the object.
#pragma once

#include <sys/eventfd.h>
#include <unistd.h>

#include <cstdint>

namespace orin::xfer::host {

class WakeEvent {
public:
    WakeEvent() : mFd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}
    ~WakeEvent()
    {
        if (mFd >= 0) {
            ::close(mFd);
        }
    }
    WakeEvent(const WakeEvent&) = delete;
    WakeEvent& operator=(const WakeEvent&) = delete;

    bool Valid() const { return mFd >= 0; }
    int Fd() const { return mFd; }
    void Signal()
    {
        const uint64_t one = 1;
        // The counter only ever needs to be non-zero; a full counter is fine.
        [[maybe_unused]] const ssize_t written = ::write(mFd, &one, sizeof one);
    }

private:
    int mFd;
};

}  // namespace orin::xfer::host
