// `xferfm serve DEST_DIR`: listens for `xferfm send` and receives one
// sender at a time into DEST_DIR, printing one line per session on stdout.
// A sender that connects while a session runs waits a few seconds for its
// turn, then is turned away with a "busy" reason (WaitingRoom).
// A failed or hostile session never stops the server; the next sender is
// accepted as soon as the previous session has been cleaned up.
//
// Threading: runs on the calling thread; each session's endpoint and link
// run their own threads and are gone before the next session starts.
#pragma once

#include "NetworkCommandLine.h"
#include "ToolContext.h"

namespace xferfm::cli {

// Returns the exit code: with --once the session's (0 ok, 1 failed, 6
// verification failed), otherwise 130 once stopped by Ctrl-C or SIGTERM.
// Throws ToolError when DEST_DIR cannot be used or the address cannot be
// listened on.
int runServe(const ServeOptions& options, ToolContext& context);

}  // namespace xferfm::cli
