// Runs one copy through a SenderEndpoint and a ReceiverEndpoint joined by
// an in-process transport pair, for the end-to-end tests.
#pragma once

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "HostTestSupport.h"
#include "xferfm/host/InProcessTransport.h"
#include "xferfm/host/ReceiverEndpoint.h"
#include "xferfm/host/SenderEndpoint.h"

namespace orin::xfer::test {

using namespace orin::xfer::host;

struct CopySessionOptions {
    SenderOptions sender;
    InProcessTransportOptions link;
    std::chrono::milliseconds stallTimeout{20000};
};

class CopySession {
public:
    CopySession(const std::string& destination, CopySessionOptions options = {});

    // Offers the paths, starts the receiver; false with `error` when either refuses.
    bool Begin(const std::vector<std::string>& paths, std::string& error);
    // Both ends finished within the timeout.
    bool WaitBoth(std::chrono::milliseconds timeout);

    RecordingReceiverObserver observer;
    std::unique_ptr<SenderEndpoint> sender;
    std::unique_ptr<ReceiverEndpoint> receiver;
};

}  // namespace orin::xfer::test
