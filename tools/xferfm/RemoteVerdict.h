// The outcome of `send --verify` as the two ends of a network copy agree on
// it. The receiver sends it as a VerifyVerdict in its closing Disconnect
// (and a TransferError first when files differ: TransportMessages.h), so
// that the sender can tell a verification failure from any other.
//
// Threading: a RemoteVerdict is filled on a link's delivery thread and read
// by the command's thread; every access takes its mutex.
#pragma once

#include <mutex>
#include <string>

namespace xferfm::cli {

class RemoteVerdict {
public:
    enum class State { kNone, kVerified, kFailed };

    void set(State state, const std::string& text)
    {
        std::lock_guard<std::mutex> lock(mMutex);
        if (mState == State::kNone || state == State::kFailed) {
            mState = state;
            mText = text;
        }
    }
    State state() const
    {
        std::lock_guard<std::mutex> lock(mMutex);
        return mState;
    }
    std::string text() const
    {
        std::lock_guard<std::mutex> lock(mMutex);
        return mText;
    }

private:
    mutable std::mutex mMutex;
    State mState = State::kNone;
    std::string mText;
};

}  // namespace xferfm::cli
