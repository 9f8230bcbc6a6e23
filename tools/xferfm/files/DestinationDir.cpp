#include "DestinationDir.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>

#include "ToolError.h"

namespace xferfm::cli {

std::string usableDestinationDir(const std::string& destinationDir, DestinationNeed need,
                                 const std::string& refusal)
{
    struct stat status {};
    char resolved[PATH_MAX];
    int error = 0;
    if (::stat(destinationDir.c_str(), &status) != 0) {
        error = errno;
    } else if (!S_ISDIR(status.st_mode)) {
        error = ENOTDIR;
    } else if (need == DestinationNeed::kWritableDirectory && ::access(destinationDir.c_str(), W_OK | X_OK) != 0) {
        error = errno;
    } else if (::realpath(destinationDir.c_str(), resolved) == nullptr) {
        error = errno;
    }
    if (error != 0) {
        throw ToolError(ExitCode::kDestinationUnusable,
                        refusal + " '" + destinationDir + "': " + SystemErrorText(error));
    }
    return resolved;
}

}  // namespace xferfm::cli
