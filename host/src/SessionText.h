// Texts both endpoints agree on.
#pragma once

namespace orin::xfer::host {

// The reason a Disconnect carries when a user cancelled the copy. Build it
// with CancelledDisconnect and tell it with ReasonOf (TransportMessages.h).
inline constexpr const char* kCancelledReason = "cancelled";

}  // namespace orin::xfer::host
