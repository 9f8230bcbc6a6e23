// The receiving side's name rules applied to a whole list at once
// (ReceiverOptions::names): which entries are left out for their names,
// which land under a mapped name, and how the entries that are kept count
// in the list as the sender offered it.
//
// Every path is checked before anything is requested, and the clashes the
// mapping would make are found across the whole list, so the decisions
// never depend on what has landed so far. An entry is refused when its
// name breaks a rule the action does not map, when it is the later of two
// entries landing on one name, or when it lies inside a refused directory
// (matched by its parent path: the list parser accepts an entry only under
// a directory listed before it).
//
// THREADING CONTRACT: a pure function; safe from any thread.
#pragma once

#include <cstddef>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "xferfm/host/FileList.h"
#include "xferfm/host/ReceiverEndpoint.h"

namespace orin::xfer::host::detail {

struct NameRefusal {
    size_t index = 0;    // in the list as given
    std::string name;    // its request name
    std::string reason;  // names the entry (quoted) and the rule
};

struct NamedList {
    ParsedFileList list;                // the entries kept, under the sender's names
    std::vector<size_t> offeredIndex;   // per kept entry: its index in the list as given
    std::vector<NameRefusal> refused;   // in list order
    // (request name, mapped request name) of each kept entry whose own last
    // component changed, in list order.
    std::vector<std::pair<std::string, std::string>> mapped;
    // Request name -> the last component it lands under, for those entries.
    std::map<std::string, std::string> landingNames;
};

NamedList ApplyNameRules(const ParsedFileList& list, const ReceiverNameRules& rules);

}  // namespace orin::xfer::host::detail
