// One session of `xferfm serve`: a sender connected, its copy is received
// into DEST_DIR through the host kit's ReceiverEndpoint, and the outcome is
// summed up in one line.
//
// The link stack, innermost first: TcpTransport (frames, liveness) ->
// RemoteNameGuardTransport (every name checked before the endpoint sees
// it) -> DigestCheckingLink (verification when the sender asks) ->
// ReceiverEndpoint.
//
// Threading: runServeSession blocks the calling thread until the session
// has ended and everything it started is torn down; the endpoint and the
// link run their own threads meanwhile.
#pragma once

#include <mutex>
#include <string>

#include "ToolContext.h"
#include "xferfm/host/TcpSocket.h"

namespace xferfm::cli {

// A session whose list held refused names copies every other entry and
// ends as kRefused: each refused entry gets a line on stderr as it is
// refused ("session N from HOST:PORT: not copied: REASON"), and the session
// line says "failed: refused K of N entries ...; received ...".
struct ServeSessionResult {
    enum class Outcome { kOk, kFailed, kVerifyFailed, kInterrupted, kRefused };
    Outcome outcome = Outcome::kFailed;
    std::string line;  // "session N from HOST:PORT: ok: ..." or "...: failed: REASON"
};

// The cache directory of the session in progress, for the emergency exit
// of a second Ctrl-C.
struct ActiveCache {
    std::mutex mutex;
    std::string path;
};

ServeSessionResult runServeSession(orin::xfer::host::TcpSocket connection, const std::string& destinationDir,
                                   unsigned sessionNumber, ToolContext& context, ActiveCache& activeCache);

}  // namespace xferfm::cli
