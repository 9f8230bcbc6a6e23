// One proxied connection: the client's socket, the socket to the target,
// and the two shaped directions between them. The client-to-server
// direction starts two one-way delays after the accept (the SYN and the
// SYN-ACK), the other one delay after (the server answers the SYN).
//
// Threading: owned and used by the shaper's event-loop thread only.
#pragma once

#include <sys/epoll.h>

#include <algorithm>
#include <cstdint>
#include <optional>
#include <string>

#include "LinkProfile.h"
#include "ShapedDirection.h"
#include "UniqueFd.h"

namespace xferfm::link {

class ShapedConnection {
public:
    ShapedConnection(UniqueFd client, UniqueFd server, const LinkProfile& profile, Clock::time_point accepted,
                     int id)
        : client_(std::move(client)),
          server_(std::move(server)),
          up_("connection " + std::to_string(id) + " client->server", profile,
              accepted + 2 * profile.oneWayDelay),
          down_("connection " + std::to_string(id) + " server->client", profile, accepted + profile.oneWayDelay)
    {
    }

    // Reads what both senders hold and writes what is due to both receivers.
    void Service(Clock::time_point now)
    {
        up_.ReadFrom(client_.Get(), now);
        down_.ReadFrom(server_.Get(), now);
        up_.WriteDue(server_.Get(), now);
        down_.WriteDue(client_.Get(), now);
    }

    // True once both directions are done, or either failed: the sockets can go.
    bool Finished() const
    {
        using State = ShapedDirection::State;
        const bool failed = up_.GetState() == State::kFailed || down_.GetState() == State::kFailed;
        return failed || (up_.GetState() == State::kDone && down_.GetState() == State::kDone);
    }

    std::optional<Clock::time_point> NextDue() const
    {
        const auto a = up_.NextDue();
        const auto b = down_.NextDue();
        if (a && b) {
            return std::min(*a, *b);
        }
        return a ? a : b;
    }

    uint32_t ClientEvents() const { return Events(up_, down_); }
    uint32_t ServerEvents() const { return Events(down_, up_); }
    int ClientFd() const { return client_.Get(); }
    int ServerFd() const { return server_.Get(); }
    // What the epoll set watches on each socket, kept by the shaper (0: not in the set).
    uint32_t clientWatched = 0;
    uint32_t serverWatched = 0;

private:
    // A socket is read by the direction it sends into and written by the one it receives from.
    static uint32_t Events(const ShapedDirection& reads, const ShapedDirection& writes)
    {
        return (reads.WantsRead() ? EPOLLIN : 0u) | (writes.BlockedOnWrite() ? EPOLLOUT : 0u);
    }

    UniqueFd client_;
    UniqueFd server_;
    ShapedDirection up_;
    ShapedDirection down_;
};

}  // namespace xferfm::link
