#include "FileListScreening.h"

#include <json/json.h>

#include <climits>
#include <exception>
#include <unordered_set>

#include "FileTransferTypes.h"
#include "StrictJson.h"
#include "xferfm/host/RemoteNameGuard.h"

namespace orin::xfer::host::detail {
namespace {

bool readDocument(const std::string& json, Json::Value& document)
{
    std::string problems;
    try {
        return ReadStrictJson(json, document, problems);
    } catch (const std::exception&) {
        return false;  // past the depth limit, among others
    }
}

// The longest path an entry takes on its way: through the cache directory
// (".xferfm-cache-XXXXXX/" under the root), and under a duplicate name
// ("(N)" added) when its own is taken.
constexpr size_t kPathOverhead = sizeof("/.xferfm-cache-XXXXXX/") - 1 + sizeof("(1000)") - 1;

// A legal name can still make a path the system refuses; such an entry is
// refused on its own, with the reason, so the rest of the list is copied.
bool FitsUnderDestination(const std::string& destinationRoot, const std::string& name, std::string& error)
{
    const size_t length = destinationRoot.size() + kPathOverhead + name.size();
    if (destinationRoot.empty() || length < PATH_MAX) {
        return true;
    }
    error = "refused remote name " + QuoteRemoteName(name) + ": under the destination its path would be " +
            std::to_string(length) + " bytes, longer than the system's limit of " + std::to_string(PATH_MAX);
    return false;
}

// Empty when the entry may be copied; otherwise the refusal, naming it.
std::string refusalOf(const std::string& filePath, const std::string& name, bool isDirectory,
                      const std::string& destinationRoot, std::unordered_set<std::string>& refusedDirectories)
{
    std::string error;
    if (!filePath.empty() && refusedDirectories.count(filePath) != 0) {
        error = "refused remote name " + QuoteRemoteName(name) + ": it lies inside the refused directory " +
                QuoteRemoteName(filePath);
    } else if (CheckRemoteName(name, error) && CheckDestinationParents(destinationRoot, name, error) &&
               FitsUnderDestination(destinationRoot, name, error)) {
        return "";
    }
    if (isDirectory) {
        refusedDirectories.insert(name);
    }
    return error;
}

}  // namespace

ScreenedList ScreenFileList(const std::string& json, const std::string& destinationRoot,
                            const FileListLimits& limits)
{
    ScreenedList screened;
    Json::Value document;
    if (json.size() > limits.maxJsonBytes || !readDocument(json, document) || !document.isObject() ||
        !document["fileList"].isArray() || document["fileList"].size() > limits.maxEntries) {
        return screened;  // the parser says what is wrong with it
    }
    const Json::Value& list = document["fileList"];
    Json::Value kept(Json::arrayValue);
    std::vector<uint64_t> keptIndices;
    std::unordered_set<std::string> refusedDirectories;
    for (Json::ArrayIndex index = 0; index < list.size(); ++index) {
        const Json::Value& element = list[index];
        if (!element.isObject() || !element["filePath"].isString() || !element["fileName"].isString()) {
            kept.append(element);  // malformed: the parser refuses the whole list
            keptIndices.push_back(index);
            continue;
        }
        const std::string filePath = element["filePath"].asString();
        const std::string fileName = element["fileName"].asString();
        const std::string name = filePath.empty() ? fileName : filePath + "/" + fileName;
        const bool isDirectory =
            element["attribute"].isUInt64() && (element["attribute"].asUInt64() & kAttributeDirectory) != 0;
        std::string refusal = refusalOf(filePath, name, isDirectory, destinationRoot, refusedDirectories);
        if (refusal.empty()) {
            kept.append(element);
            keptIndices.push_back(index);
        } else {
            screened.refused.push_back(RefusedEntry{index, name, std::move(refusal)});
        }
    }
    if (screened.refused.empty()) {
        return screened;
    }
    document["fileList"] = std::move(kept);
    Json::StreamWriterBuilder writer;
    writer["indentation"] = "";
    screened.json = Json::writeString(writer, document);
    screened.keptIndices = std::move(keptIndices);
    return screened;
}

}  // namespace orin::xfer::host::detail
