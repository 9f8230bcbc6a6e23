// The prediction asks the same engine rule the receiver's landing asks
// (RenameDuplicatedFilePath), so a dry run and a real run agree.
#include "xferfm/host/LandingNames.h"

#include "ListNaming.h"

#include <memory>

#include "FileTransferTypes.h"
#include "IFileTransferManager.h"
#include "xferfm/host/ThreadLooperFactory.h"

namespace orin::xfer::host {

std::vector<std::string> PredictLandingNames(const std::string& destinationDir,
                                             const std::vector<TopLevelEntry>& entries)
{
    std::vector<FileDescription> list(entries.size());
    for (size_t i = 0; i < entries.size(); ++i) {
        list[i].destDir = destinationDir;
        list[i].fileName = entries[i].name;
        list[i].attribute = entries[i].isDirectory ? kAttributeDirectory : kAttributeNormal;
    }
    if (!list.empty()) {
        auto engine = IFileTransferManager::NewInstance(nullptr, std::make_unique<ThreadLooperFactory>(), false, nullptr);
        engine->RenameDuplicatedFilePath(list);
    }
    std::vector<std::string> names;
    names.reserve(entries.size());
    for (size_t i = 0; i < entries.size(); ++i) {
        names.push_back(list[i].destFileName.empty() ? entries[i].name : list[i].destFileName);
    }
    return names;
}

// The receiver's own decision, on the same list: a preview cannot drift.
NameDecisions PredictNameDecisions(const std::vector<FileListEntry>& entries, const ReceiverNameRules& rules)
{
    ParsedFileList list;
    list.entries = entries;
    detail::NamedList named = detail::ApplyNameRules(list, rules);
    NameDecisions decisions;
    decisions.mapped = std::move(named.mapped);
    for (detail::NameRefusal& refusal : named.refused) {
        decisions.refused.push_back({std::move(refusal.name), std::move(refusal.reason)});
    }
    return decisions;
}

}  // namespace orin::xfer::host
