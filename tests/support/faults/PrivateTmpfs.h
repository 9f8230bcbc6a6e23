// Runs part of a test in a child process that has a mount namespace of its
// own with a size-limited tmpfs mounted, so a full file system can be met
// without touching the machine's mounts (they vanish with the child).
//
// THREADING CONTRACT: call from the test's thread while the process runs no
// threads of the test's own (the child starts with the calling thread only).
#pragma once

#include <chrono>
#include <functional>
#include <string>

namespace orin::xfer::test {

struct ChildOutcome {
    enum Kind { kPassed, kFailed, kUnsupported, kTimedOut } kind = kFailed;
    std::string text;  // the problems found, or why the mount was not possible
};

// Mounts a tmpfs of `size` (as mount(8) takes it: "1m") on `mountPoint`
// (an existing directory) in a private mount namespace of a child process
// and runs `body` there; `body` returns "" when all is well, else the
// problems. Waits at most `limit` for the child.
ChildOutcome RunWithPrivateTmpfs(const std::string& mountPoint, const std::string& size,
                                 const std::function<std::string()>& body, std::chrono::seconds limit);

}  // namespace orin::xfer::test
