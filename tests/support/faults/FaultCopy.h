// What every fault test checks once its fault has struck: the copy failed
// with one clear error naming the path concerned, nothing half-written
// sits under a final name, the cache is gone, and a next copy in the same
// process goes through.
//
// THREADING CONTRACT: called from the test's thread once both endpoints
// have finished.
#pragma once

#include <string>
#include <vector>

#include "CopySession.h"

namespace orin::xfer::test {

using namespace orin::xfer::host;

// Problems with how the copy failed (empty: none): not completed, exactly
// one failure reported, its message and the summary's error both holding
// `expectedPath`, and every regular file under `destination` a whole copy
// of its namesake under `sourceParent`, with no cache directory left.
std::vector<std::string> CheckCleanFailure(const CopySession& copy, const std::string& sourceParent,
                                           const std::string& destination, const std::string& expectedPath);

// Copies a fresh small tree, made under `sourceRoot` (which must exist), to
// `destination` (created here) in this process; empty when it arrived
// whole, else why not.
std::string NextCopyProblem(const std::string& sourceRoot, const std::string& destination);

// The problems above, one to a line, for a failure message.
std::string Joined(const std::vector<std::string>& problems);

}  // namespace orin::xfer::test
