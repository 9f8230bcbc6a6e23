// Texts both endpoints agree on.
#pragma once

namespace orin::xfer::host {

// The reason a Disconnect carries when a user cancelled the copy.
inline constexpr const char* kCancelledReason = "cancelled";

}  // namespace orin::xfer::host
