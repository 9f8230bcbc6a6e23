// One direction of a shaped connection: bytes read from the sending socket
// are cut into segments, each stamped with the time it reaches the other
// end (departure from the token bucket plus the one-way delay), and written
// to the receiving socket no earlier than that. The sender's end of stream
// travels the same way: the receiving socket is shut for writing only when
// everything before it has arrived.
//
// Threading: used by the shaper's one event-loop thread only.
#pragma once

#include <cstddef>
#include <deque>
#include <optional>
#include <string>
#include <vector>

#include "LinkProfile.h"
#include "TokenBucket.h"

namespace xferfm::link {

class ShapedDirection {
public:
    enum class State {
        kOpen,      // reading from the sender
        kDraining,  // the sender has ended; what it sent is still on its way
        kDone,      // everything delivered and the receiver's socket shut for writing
        kFailed,    // a socket error: the connection must go
    };

    // `name` labels the log lines; nothing leaves before `notBefore` (the
    // emulated handshake).
    ShapedDirection(std::string name, const LinkProfile& profile, Clock::time_point notBefore);

    // Reads what `fd` holds while there is room; stamps each segment.
    void ReadFrom(int fd, Clock::time_point now);
    // Writes every segment due by `now` to `fd`, and the end of stream when due.
    void WriteDue(int fd, Clock::time_point now);

    State GetState() const { return state_; }
    // True while the sender may be read: open and under the queue limit.
    bool WantsRead() const;
    // True when due bytes wait for room in the receiver's socket.
    bool BlockedOnWrite() const { return blocked_; }
    // Arrival time of the first segment still to write, unless blocked.
    std::optional<Clock::time_point> NextDue() const;

private:
    struct Segment {
        Clock::time_point due;
        std::vector<char> bytes;  // empty: the sender's end of stream
        std::size_t written = 0;
    };

    void Stamp(const char* data, std::size_t size, Clock::time_point now);
    void SetState(State next, const char* why);

    std::string name_;
    LinkProfile profile_;
    TokenBucket bucket_;
    std::size_t segmentBytes_;
    std::size_t queueLimit_;
    std::deque<Segment> queue_;
    std::size_t queuedBytes_ = 0;
    bool blocked_ = false;
    State state_ = State::kOpen;
};

const char* ToString(ShapedDirection::State state);

}  // namespace xferfm::link
