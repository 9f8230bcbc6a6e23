// One session of a NetworkReceiver: a sender connected (or a stream was
// handed over), its copy is received through the link stack described in
// NetworkReceiver.h on top of the given link, and the outcome is summed up
// in a ReceivedSession.
//
// The session is a state machine, each change logged with its reason:
//   kStarting -> kAwaitingList -> kReceiving -> kEnded
//   kAwaitingList / kReceiving -> kCancelling (host stop, list time-out) -> kEnded
//   kStarting -> kEnded (the endpoint could not start)
//
// THREADING CONTRACT: Run blocks the calling thread until the session has
// ended and everything it started is torn down; the endpoint and the link
// run their own threads meanwhile and are gone when Run returns.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <string>

#include "xferfm/host/NetworkReceiver.h"
#include "xferfm/host/Transport.h"

namespace orin::xfer::host::detail {

struct ReceiveSessionSetup {
    unsigned number = 0;
    const NetworkReceiverOptions* options = nullptr;
    NetworkReceiverObserver* observer = nullptr;
    const std::atomic<bool>* stopRequested = nullptr;
    // Told the cache directory once the endpoint has one, and "" at the end.
    std::function<void(const std::string& cacheDirectory)> onCacheDirectory;
    // Asked when the bare link closes under the session: did the sender end
    // or break it (TcpTransport/StreamTransport::PeerWentAway)?
    std::function<bool()> senderWentAway;
};

// `link` is the bare transport to the sender (not yet started); `peer` names
// the sender in the outcome and the observer's calls.
ReceivedSession RunReceiveSession(std::unique_ptr<ITransport> link, std::string peer, const ReceiveSessionSetup& setup);

}  // namespace orin::xfer::host::detail
