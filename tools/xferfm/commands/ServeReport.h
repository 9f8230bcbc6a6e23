// What `xferfm serve` says about one session the host kit's
// NetworkReceiver has received: the line on stdout and the exit code it
// stands for with --once.
//
// The line: "session N from HOST:PORT: ok: received ..." or "...: failed:
// REASON". A session whose list held refused names copies every other
// entry and says "failed: refused K of N entries (...); received ..."
// (each refused entry also got a line on stderr as it was refused).
//
// Threading: plain functions of their arguments.
#pragma once

#include <chrono>
#include <string>

#include "xferfm/host/NetworkReceiver.h"

namespace xferfm::cli {

// "session N from HOST:PORT: "
std::string sessionPrefix(unsigned number, const std::string& peer);

// The session's line, its bytes from the sender made printable.
std::string sessionLine(const orin::xfer::host::ReceivedSession& session, std::chrono::milliseconds listTimeout);

// 0 ok, 1 failed, 6 verification failed, 7 names refused, 130 interrupted.
int exitCodeOf(const orin::xfer::host::ReceivedSession& session);

}  // namespace xferfm::cli
