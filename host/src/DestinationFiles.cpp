#include "DestinationFiles.h"

#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <filesystem>
#include <set>
#include <vector>

#include "xferfm/host/SystemErrorText.h"

namespace orin::xfer::host::detail {

namespace {

// Enough for any realistic pile of name(n) duplicates.
constexpr int kMaxNameAttempts = 1000;

// Anything at `path`, a link of any kind included (lstat does not follow).
bool Occupied(const std::string& path)
{
    struct stat status {};
    return lstat(path.c_str(), &status) == 0;
}

// "a(1).txt" -> "a(2).txt"; a name without a number gets "(1)" before its
// extension (a file) or at its end (a directory).
std::string CountedUp(const std::string& name, bool isDirectory)
{
    const size_t close = name.rfind(')');
    const size_t open = close == std::string::npos ? std::string::npos : name.rfind('(', close);
    if (open != std::string::npos && close > open + 1 && close - open <= 10) {
        bool digits = true;
        for (size_t at = open + 1; at < close; ++at) {
            digits = digits && std::isdigit(static_cast<unsigned char>(name[at])) != 0;
        }
        if (digits) {
            const unsigned long number = std::stoul(name.substr(open + 1, close - open - 1));
            return name.substr(0, open + 1) + std::to_string(number + 1) + name.substr(close);
        }
    }
    const size_t dot = isDirectory ? std::string::npos : name.rfind('.');
    if (dot == std::string::npos || dot == 0) {
        return name + "(1)";
    }
    return name.substr(0, dot) + "(1)" + name.substr(dot);
}

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
    std::set<std::string> tried;
    for (int attempt = 0; attempt < kMaxNameAttempts; ++attempt) {
        // The proposer answers the name itself while it is free, so the
        // common case tries it directly and asks only after a clash.
        std::string candidate = attempt == 0 ? name : propose(parent, name, isDirectory);
        if (candidate.empty()) {
            candidate = name;
        }
        for (int step = 0; attempt > 0 && step < kMaxNameAttempts &&
                           (tried.count(candidate) != 0 || Occupied(parent + "/" + candidate));
             ++step) {
            candidate = CountedUp(candidate, isDirectory);
        }
        tried.insert(candidate);
        const std::string path = parent + "/" + candidate;
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
