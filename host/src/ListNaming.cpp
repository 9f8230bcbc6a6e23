#include "ListNaming.h"

#include <unordered_map>
#include <unordered_set>

#include "xferfm/host/RemoteNameGuard.h"

namespace orin::xfer::host::detail {
namespace {

std::string LastComponent(const std::string& path) { return path.substr(path.rfind('/') + 1); }

// The path as it would be created: mapped back first when asked, then
// checked (and with kMap mapped) for the target.
NameCheck CheckPath(const NamePolicy& policy, bool mapBack, const std::string& requestName)
{
    return policy.Check(mapBack ? policy.MapBack(requestName) : requestName);
}

}  // namespace

NamedList ApplyNameRules(const ParsedFileList& list, const ReceiverNameRules& rules)
{
    const NamePolicy policy(rules.target, rules.mapBack ? NameAction::kMap : rules.action);
    std::vector<std::string> paths;
    paths.reserve(list.entries.size());
    for (const FileListEntry& entry : list.entries) {
        const std::string name = entry.RequestName();
        paths.push_back(rules.mapBack ? policy.MapBack(name) : name);
    }
    // The later entry of each clash is refused; it names the first.
    std::unordered_map<size_t, size_t> clashesWith;
    for (const NameClash& clash : policy.FindClashes(paths)) {
        clashesWith.emplace(clash.second, clash.first);
    }

    NamedList named;
    std::unordered_set<std::string> refusedDirectories;  // request names
    for (size_t index = 0; index < list.entries.size(); ++index) {
        const FileListEntry& entry = list.entries[index];
        const std::string name = entry.RequestName();
        const NameCheck check = CheckPath(policy, rules.mapBack, name);
        std::string refusal;
        if (!entry.filePath.empty() && refusedDirectories.count(entry.filePath) != 0) {
            refusal = QuoteRemoteName(name) + ": it lies inside the refused directory " +
                      QuoteRemoteName(entry.filePath);
        } else if (!check.ok) {
            refusal = check.message;
        } else if (const auto clash = clashesWith.find(index); clash != clashesWith.end()) {
            const std::string& first = list.entries[clash->second].RequestName();
            refusal = QuoteRemoteName(name) + ": it would land on the same name as " + QuoteRemoteName(first) +
                      (rules.target == NameTarget::kPosix ? "" : " (names that differ only in case are one there)");
        }
        if (!refusal.empty()) {
            if (entry.isDirectory) {
                refusedDirectories.insert(name);
            }
            named.refused.push_back({index, name, std::move(refusal)});
            continue;
        }
        const std::string landing = LastComponent(check.mapped);
        if (landing != entry.fileName) {
            named.mapped.emplace_back(name, check.mapped);
            named.landingNames[name] = landing;
        }
        named.offeredIndex.push_back(index);
        named.list.entries.push_back(entry);
        if (entry.isDirectory) {
            ++named.list.directoryCount;
        } else {
            ++named.list.fileCount;
            named.list.totalFileBytes += entry.fileSize;
        }
    }
    return named;
}

}  // namespace orin::xfer::host::detail
