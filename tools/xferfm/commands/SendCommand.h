// `xferfm send HOST:PORT SOURCE...`: offers the sources to an `xferfm
// serve` over TCP and streams every file it asks for through the host
// kit's NetworkSender. With --verify the SHA-256 of every source file goes
// along in the file list and the receiver checks each copy against it.
//
// Threading: runs on the calling thread until the copy has ended; progress
// is drawn on a thread of its own, the endpoint and the link run theirs.
// Ctrl-C cancels the copy (the receiver removes the file in flight).
#pragma once

#include "CommandOptions.h"
#include "ToolContext.h"

namespace xferfm::cli {

// Returns the exit code; throws ToolError for every failure (3/4 bad
// sources, 1 the link or the copy failed, 6 the receiver's verification
// failed, 7 the receiver refused some names and copied the rest, 130
// interrupted). Each entry the receiver refuses is named on stderr as the
// refusal arrives ("xferfm: not sent: SOURCE: REASON"); the summary line
// still goes to stdout.
int runSend(const SendOptions& options, ToolContext& context);

}  // namespace xferfm::cli
