// The entries of an offered list that the receiving side will not take, as
// the sender endpoint learns of them: refused one by one (EntryRefused,
// with the receiver's reason), or passed over by a request for a later
// entry. Kept by list index, so they are reported in list order.
//
// THREADING CONTRACT: none of its own; the sender endpoint keeps it under
// its lock.
#pragma once

#include <cstddef>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "xferfm/host/TransferObserver.h"

namespace orin::xfer::host::detail {

// The reason recorded for an entry the receiver passed over without
// refusing it first.
inline constexpr const char* kPassedOverReason = "the receiver did not ask for it";

class SkippedEntries {
public:
    // Records entry `index` as refused; false (and nothing recorded) when
    // it was recorded before.
    bool Refuse(size_t index, std::string path, std::string reason);

    // Records every entry in [from, to) not recorded yet as passed over and
    // returns those, in list order. `pathOf` names an entry by its index.
    std::vector<SkippedEntry> PassOver(size_t from, size_t to, const std::function<std::string(size_t)>& pathOf);

    bool Contains(size_t index) const { return mEntries.count(index) != 0; }
    bool Empty() const { return mEntries.empty(); }
    size_t Count() const { return mEntries.size(); }
    std::vector<SkippedEntry> InListOrder() const;

    // "the receiver refused 2 of 9 entries, the rest was copied: PATH: REASON; ..."
    // naming the first few.
    std::string Text(size_t listSize) const;

private:
    std::map<size_t, SkippedEntry> mEntries;
};

}  // namespace orin::xfer::host::detail
