// What the shaped link looks like: the same in both directions, each
// direction shaped on its own (a full upstream never slows the downstream).
#pragma once

#include <chrono>
#include <cstddef>

namespace xferfm::link {

using Clock = std::chrono::steady_clock;

struct LinkProfile {
    // Time from a byte leaving one end of the link to it arriving at the other.
    std::chrono::nanoseconds oneWayDelay{0};
    // Line rate of each direction; 0 means unlimited.
    double bytesPerSecond = 0;
    // Bytes one direction holds (on the wire plus waiting for the line)
    // before it stops reading from its sender; 0 picks twice the
    // bandwidth-delay product plus 1 MiB (room for a late wake-up), so the line can stay full.
    std::size_t queueLimit = 0;
    // Logs every state change of every direction on stderr.
    bool verbose = false;
};

}  // namespace xferfm::link
