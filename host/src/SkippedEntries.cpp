#include "SkippedEntries.h"

namespace orin::xfer::host::detail {
namespace {

// Entries named in Text(); the count says how many more there are.
constexpr size_t kEntriesNamed = 5;

}  // namespace

bool SkippedEntries::Refuse(size_t index, std::string path, std::string reason)
{
    return mEntries.emplace(index, SkippedEntry{std::move(path), std::move(reason)}).second;
}

std::vector<SkippedEntry> SkippedEntries::PassOver(size_t from, size_t to,
                                                   const std::function<std::string(size_t)>& pathOf)
{
    std::vector<SkippedEntry> passed;
    for (size_t index = from; index < to; ++index) {
        if (mEntries.count(index) == 0) {
            SkippedEntry entry{pathOf(index), kPassedOverReason};
            mEntries.emplace(index, entry);
            passed.push_back(std::move(entry));
        }
    }
    return passed;
}

std::vector<SkippedEntry> SkippedEntries::InListOrder() const
{
    std::vector<SkippedEntry> entries;
    entries.reserve(mEntries.size());
    for (const auto& [index, entry] : mEntries) {
        entries.push_back(entry);
    }
    return entries;
}

std::string SkippedEntries::Text(size_t listSize) const
{
    std::string text = "the receiver refused " + std::to_string(mEntries.size()) +
                       (mEntries.size() == 1 ? " entry" : " entries") + " of " + std::to_string(listSize) +
                       ", the rest was copied: ";
    size_t named = 0;
    for (const auto& [index, entry] : mEntries) {
        if (named == kEntriesNamed) {
            text += "; and " + std::to_string(mEntries.size() - named) + " more";
            break;
        }
        text += (named == 0 ? "" : "; ") + entry.path + ": " + entry.reason;
        ++named;
    }
    return text;
}

}  // namespace orin::xfer::host::detail
