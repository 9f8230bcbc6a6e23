// Segments are small enough that delivery is smooth (about 200 us of line
// time, 8 to 64 KiB), large enough that 800 Mbit/s costs a few thousand
// wake-ups a second. Reading stops at the queue limit, so a fast sender
// meets backpressure from its socket as it would from a real link, and the
// shaper never holds a whole file.
#include "ShapedDirection.h"

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>

namespace xferfm::link {
namespace {

constexpr std::size_t kReadBytes = 256 * 1024;

std::size_t SegmentBytesFor(double bytesPerSecond)
{
    if (bytesPerSecond <= 0) {
        return 64 * 1024;
    }
    const auto bytes = static_cast<std::size_t>(bytesPerSecond * 200e-6);
    return std::clamp<std::size_t>(bytes, 8 * 1024, 64 * 1024);
}

std::size_t QueueLimitFor(const LinkProfile& profile)
{
    if (profile.queueLimit > 0) {
        return profile.queueLimit;
    }
    const double seconds = std::chrono::duration<double>(profile.oneWayDelay).count();
    const double rate = profile.bytesPerSecond > 0 ? profile.bytesPerSecond : 1e9;
    return static_cast<std::size_t>(2 * rate * seconds) + 1024 * 1024;
}

}  // namespace

const char* ToString(ShapedDirection::State state)
{
    switch (state) {
        case ShapedDirection::State::kOpen: return "open";
        case ShapedDirection::State::kDraining: return "draining";
        case ShapedDirection::State::kDone: return "done";
        case ShapedDirection::State::kFailed: return "failed";
    }
    return "unknown";
}

ShapedDirection::ShapedDirection(std::string name, const LinkProfile& profile, Clock::time_point notBefore)
    : name_(std::move(name)),
      profile_(profile),
      bucket_(profile.bytesPerSecond, static_cast<double>(SegmentBytesFor(profile.bytesPerSecond)), notBefore),
      segmentBytes_(SegmentBytesFor(profile.bytesPerSecond)),
      queueLimit_(QueueLimitFor(profile))
{
}

void ShapedDirection::SetState(State next, const char* why)
{
    if (profile_.verbose) {
        std::fprintf(stderr, "xferfm-link: %s: %s -> %s (%s)\n", name_.c_str(), ToString(state_), ToString(next), why);
    }
    state_ = next;
}

bool ShapedDirection::WantsRead() const
{
    return state_ == State::kOpen && queuedBytes_ < queueLimit_;
}

std::optional<Clock::time_point> ShapedDirection::NextDue() const
{
    if (blocked_ || queue_.empty() || state_ == State::kFailed) {
        return std::nullopt;
    }
    return queue_.front().due;
}

void ShapedDirection::Stamp(const char* data, std::size_t size, Clock::time_point now)
{
    while (size > 0) {
        const std::size_t take = std::min(size, segmentBytes_);
        Segment segment;
        segment.due = bucket_.Depart(take, now) + profile_.oneWayDelay;
        segment.bytes.assign(data, data + take);
        queue_.push_back(std::move(segment));
        queuedBytes_ += take;
        data += take;
        size -= take;
    }
}

void ShapedDirection::ReadFrom(int fd, Clock::time_point now)
{
    static thread_local std::vector<char> buffer(kReadBytes);
    while (WantsRead()) {
        const std::size_t room = std::min(kReadBytes, queueLimit_ - queuedBytes_);
        const ssize_t got = ::read(fd, buffer.data(), room);
        if (got > 0) {
            Stamp(buffer.data(), static_cast<std::size_t>(got), now);
            continue;
        }
        if (got == 0) {
            // The end of stream leaves after the last byte and arrives a delay later.
            Segment end;
            end.due = bucket_.Depart(0, now) + profile_.oneWayDelay;
            queue_.push_back(std::move(end));
            SetState(State::kDraining, "the sender ended its stream");
            return;
        }
        if (errno == EINTR) {
            continue;
        }
        if (errno != EAGAIN && errno != EWOULDBLOCK) {
            SetState(State::kFailed, "read failed");
        }
        return;
    }
}

void ShapedDirection::WriteDue(int fd, Clock::time_point now)
{
    blocked_ = false;
    while (!queue_.empty() && queue_.front().due <= now && state_ != State::kFailed) {
        Segment& head = queue_.front();
        if (head.bytes.empty()) {
            ::shutdown(fd, SHUT_WR);
            queue_.pop_front();
            SetState(State::kDone, "the end of stream arrived");
            return;
        }
        const ssize_t put = ::send(fd, head.bytes.data() + head.written, head.bytes.size() - head.written,
                                   MSG_NOSIGNAL | MSG_DONTWAIT);
        if (put < 0) {
            if (errno == EINTR) {
                continue;
            }
            if (errno == EAGAIN || errno == EWOULDBLOCK) {
                blocked_ = true;
            } else {
                SetState(State::kFailed, "write failed");
            }
            return;
        }
        head.written += static_cast<std::size_t>(put);
        if (head.written == head.bytes.size()) {
            queuedBytes_ -= head.bytes.size();
            queue_.pop_front();
        }
    }
}

}  // namespace xferfm::link
