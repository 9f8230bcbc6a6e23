// `xferfm serve DEST_DIR`: listens for `xferfm send` and receives one
// sender at a time into DEST_DIR through the host kit's NetworkReceiver,
// printing one line per session on stdout (ServeReport). A sender that
// connects while a session runs waits a few seconds for its turn, then is
// turned away as busy. A failed or hostile session never stops the server.
// Ctrl-C stops it (the session in progress is cancelled); a second one
// removes that session's cache directory at once.
//
// Threading: runs on the calling thread; each session's endpoint and link
// run their own threads and are gone before the next session starts.
#pragma once

#include "CommandOptions.h"
#include "ToolContext.h"

namespace xferfm::cli {

// Returns the exit code: with --once the session's (0 ok, 1 failed, 6
// verification failed), otherwise 130 once stopped by Ctrl-C or SIGTERM.
// Throws ToolError when DEST_DIR cannot be used or the address cannot be
// listened on.
int runServe(const ServeOptions& options, ToolContext& context);

}  // namespace xferfm::cli
