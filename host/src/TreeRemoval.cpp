#include "xferfm/host/TreeRemoval.h"

#include <ftw.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

namespace orin::xfer::host {
namespace {

constexpr int kOpenDescriptors = 32;

int openUpDirectory(const char* path, const struct stat* status, int type, FTW*)
{
    if (type == FTW_D && (status->st_mode & S_IRWXU) != S_IRWXU) {
        ::chmod(path, (status->st_mode & 07777) | S_IRWXU);
    }
    return 0;
}

int removeEntry(const char* path, const struct stat*, int, FTW*)
{
    if (::remove(path) != 0 && errno != ENOENT) {
        return -1;
    }
    return 0;
}

}  // namespace

bool RemoveTree(const std::string& path)
{
    struct stat status {};
    if (::lstat(path.c_str(), &status) != 0) {
        return errno == ENOENT;
    }
    if (getuid() != 0) {
        ::nftw(path.c_str(), openUpDirectory, kOpenDescriptors, FTW_PHYS | FTW_MOUNT);
    }
    return ::nftw(path.c_str(), removeEntry, kOpenDescriptors, FTW_DEPTH | FTW_PHYS | FTW_MOUNT) == 0;
}

}  // namespace orin::xfer::host
