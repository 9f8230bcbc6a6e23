#include "FileListScreening.h"

#include <climits>

#include "FileListReader.h"
#include "xferfm/host/RemoteNameGuard.h"

namespace orin::xfer::host::detail {
namespace {

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

}  // namespace

ScreenedList ScreenFileList(const std::string& json, const std::string& destinationRoot,
                            const FileListLimits& limits)
{
    ScreenedList screened;
    const EntryRefusal refuse = [&destinationRoot](size_t, const FileListEntry& entry) {
        const std::string name = entry.RequestName();
        std::string error;
        if (CheckRemoteName(name, error) && CheckDestinationParents(destinationRoot, name, error) &&
            FitsUnderDestination(destinationRoot, name, error)) {
            return std::string();
        }
        return error;
    };
    screened.readable = ParseScreenedFileList(json, limits, refuse, screened.list, screened.refused,
                                              screened.keptIndices, screened.error);
    return screened;
}

}  // namespace orin::xfer::host::detail
