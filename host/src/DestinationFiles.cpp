#include "DestinationFiles.h"

#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <vector>

#include "xferfm/host/SystemErrorText.h"

namespace orin::xfer::host::detail {

namespace {

// Enough for any realistic pile of name(n) duplicates.
constexpr int kMaxNameAttempts = 1000;

}  // namespace

bool MakePrivateDirectory(const std::string& parent, const std::string& prefix, std::string& path,
                          std::string& error)
{
    std::string pattern = parent + "/" + prefix + "XXXXXX";
    std::vector<char> buffer(pattern.begin(), pattern.end());
    buffer.push_back('\0');
    if (mkdtemp(buffer.data()) == nullptr) {
        error = parent + ": cannot create a cache directory: " + SystemErrorText(errno);
        return false;
    }
    path = buffer.data();
    return true;
}

int MoveNoReplace(const std::string& from, const std::string& to)
{
    if (renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0) {
        return 0;
    }
    const int error = errno;
    if (error != EINVAL && error != ENOSYS) {
        return error;
    }
    // A filesystem without RENAME_NOREPLACE: link refuses an existing name too.
    if (link(from.c_str(), to.c_str()) != 0) {
        return errno;
    }
    unlink(from.c_str());
    return 0;
}

int MakeDirectory(const std::string& path, mode_t mode)
{
    return mkdir(path.c_str(), mode) == 0 ? 0 : errno;
}

int ClaimName(const std::string& parent, const std::string& name, bool isDirectory, const NameProposer& propose,
              const Creator& create, std::string& finalPath)
{
    for (int attempt = 0; attempt < kMaxNameAttempts; ++attempt) {
        // The proposer answers the name itself while it is free, so the
        // common case tries it directly and asks only after a clash.
        const std::string candidate = attempt == 0 ? name : propose(parent, name, isDirectory);
        const std::string path = parent + "/" + (candidate.empty() ? name : candidate);
        const int result = create(path);
        if (result != EEXIST) {
            if (result == 0) {
                finalPath = path;
            }
            return result;
        }
    }
    return EEXIST;
}

}  // namespace orin::xfer::host::detail
