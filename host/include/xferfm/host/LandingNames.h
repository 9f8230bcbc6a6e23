// Where top-level entries would land in a destination directory, without
// writing anything: a name that is free is kept, a taken one gets the
// engine's duplicate name ("report(1).pdf", "photos(1)"), exactly as a
// ReceiverEndpoint would give it at that moment. For previews (a dry run).
//
// THREADING CONTRACT: blocking (reads the directory; runs a short-lived
// engine instance of its own for the naming rule); any thread. The answer
// holds only while nothing else writes into the directory.
#pragma once

#include <string>
#include <vector>

namespace orin::xfer::host {

struct TopLevelEntry {
    std::string name;
    bool isDirectory = false;
};

// The final name of each entry, in order.
std::vector<std::string> PredictLandingNames(const std::string& destinationDir,
                                             const std::vector<TopLevelEntry>& entries);

}  // namespace orin::xfer::host
