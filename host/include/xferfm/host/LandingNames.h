// Where top-level entries would land in a destination directory, without
// writing anything: a name that is free is kept, a taken one gets the
// engine's duplicate name ("report(1).pdf", "photos(1)"), exactly as a
// ReceiverEndpoint would give it at that moment. For previews (a dry run).
//
// THREADING CONTRACT: blocking (reads the directory; runs a short-lived
// engine instance of its own for the naming rule); any thread. The answer
// holds only while nothing else writes into the directory.
// PredictNameDecisions reads nothing: a pure function, any thread.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "xferfm/host/FileList.h"
#include "xferfm/host/ReceiverEndpoint.h"
#include "xferfm/host/TransferObserver.h"

namespace orin::xfer::host {

struct TopLevelEntry {
    std::string name;
    bool isDirectory = false;
};

// The final name of each entry, in order.
std::vector<std::string> PredictLandingNames(const std::string& destinationDir,
                                             const std::vector<TopLevelEntry>& entries);

// What a receiver with name rules (ReceiverOptions::names) would decide for
// a list: the entries it would land under a mapped name (request name,
// mapped request name) and those it would refuse (request name, reason),
// in list order, as its summary would list them. `entries` as a list
// carries them: each directory before what it holds.
struct NameDecisions {
    std::vector<std::pair<std::string, std::string>> mapped;
    std::vector<SkippedEntry> refused;
};
NameDecisions PredictNameDecisions(const std::vector<FileListEntry>& entries, const ReceiverNameRules& rules);

}  // namespace orin::xfer::host
