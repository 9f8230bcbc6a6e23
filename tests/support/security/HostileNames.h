// The battery of hostile remote names: every shape of name a malicious
// sender could use to reach outside the destination (or to confuse what is
// shown to the user), built from a few hundred patterns. Names that aim at
// the canary directory beside the destination are built from its path.
//
// THREADING CONTRACT: pure functions.
#pragma once

#include <string>
#include <vector>

namespace orin::xfer::test {

// Names of the symbolic links PlantLinks puts into a destination, which
// some hostile names walk through.
struct PlantedLinks {
    std::vector<std::string> names;
};

// At least 300 distinct names. `canary` is the absolute path of a directory
// that must never be written; `destinationName` is the destination's own
// last component (for "../<dest>/.." round trips).
std::vector<std::string> HostileNames(const std::string& canary, const std::string& destinationName);

// Plants symbolic links in `destination` that point into `canary` (a
// directory, a file, a relative and a dangling one, and one below a real
// directory). The hostile names include paths through each of them.
void PlantLinks(const std::string& destination, const std::string& canary);

// `name` with unprintable bytes escaped, for messages.
std::string Printable(const std::string& name);

}  // namespace orin::xfer::test
