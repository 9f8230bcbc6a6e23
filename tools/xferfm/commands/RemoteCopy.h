// `xferfm copy` with one side on another machine, written [USER@]HOST:PATH:
// the far side is `xferfm serve --stdio DEST_DIR` (push) or `xferfm send
// --stdio SOURCE...` (pull), started through the remote shell by a
// RemoteLink, and the copy travels over that program's standard input and
// output in the same frames as over TCP.
//
// Push: the local side is the sender of `xferfm send` (PlanSending) on
// the link's pipes, with copy's source walk (--exclude, --strict, skipped
// entries), progress, --verify (digests travel in the list, the far side
// checks), --bandwidth and --window. Pull: the local side is a one-session
// receiver into DEST_DIR with every guard of `serve` (names, links, sizes,
// time limits), and --verify, --bandwidth and --window go to the far
// sender. Options that only make sense for a local copy (--dry-run,
// --resume, -p, --json, -v) are refused with a usage error, and so are
// --exclude and --strict on a pull (the far side walks its sources).
//
// Ctrl-C: the copy is cancelled (the far side hears it, or the end of its
// input, and removes its partial file), the local cache goes, exit 130.
//
// Threading: runs on the calling thread until the copy has ended; the
// link, the endpoint and the progress line run threads of their own.
#pragma once

#include "CommandOptions.h"
#include "RemoteCommand.h"
#include "RemoteOperand.h"
#include "ToolContext.h"

namespace xferfm::cli {

// What the far side runs for this copy. Throws ToolError(kUsage) for an
// option the remote copy cannot honour, or a --rsh that is not a command.
RemoteInvocation remoteInvocationFor(const CopyOptions& options, const CopyEnds& ends);

// Runs the copy; returns the exit code or throws ToolError, with the same
// codes as a local copy, 8 for a link lost mid-copy and 13 for a far side
// that could not be started.
int runRemoteCopy(const CopyOptions& options, const CopyEnds& ends, ToolContext& context);

}  // namespace xferfm::cli
