// The one way an endpoint calls its observer: serialised, and never again
// after the last call (OnFinished).
//
// Why a recursive mutex: an observer may call the endpoint's Cancel() from a
// callback, and a cancel may itself report (a failure, the summary) on the
// same thread; a plain mutex would deadlock there, a flag alone would let
// two threads into the observer at once.
//
// THREADING CONTRACT: Notify and NotifyLast may be called from any thread,
// also re-entrantly from inside a callback. Nothing is called when the
// observer is null. The relay neither owns nor outlives the observer.
#pragma once

#include <mutex>
#include <utility>

namespace orin::xfer::host::detail {

template <typename Observer>
class ObserverRelay {
public:
    explicit ObserverRelay(Observer* observer) : mObserver(observer) {}
    ObserverRelay(const ObserverRelay&) = delete;
    ObserverRelay& operator=(const ObserverRelay&) = delete;

    // Calls `call(observer)` unless the last call has been delivered.
    template <typename Call>
    void Notify(Call&& call)
    {
        deliver(std::forward<Call>(call), false);
    }

    // The last call: everything after it (also from inside it) is dropped.
    template <typename Call>
    void NotifyLast(Call&& call)
    {
        deliver(std::forward<Call>(call), true);
    }

    bool LastDelivered() const
    {
        std::lock_guard<std::recursive_mutex> lock(mMutex);
        return mLastDelivered;
    }

private:
    template <typename Call>
    void deliver(Call&& call, bool last)
    {
        if (mObserver == nullptr) {
            return;
        }
        std::lock_guard<std::recursive_mutex> lock(mMutex);
        if (mLastDelivered) {
            return;
        }
        mLastDelivered = last;
        call(*mObserver);
    }

    Observer* const mObserver;
    mutable std::recursive_mutex mMutex;
    bool mLastDelivered = false;  // guarded by mMutex
};

}  // namespace orin::xfer::host::detail
