#include "TempDir.h"

#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <system_error>

namespace orin::xfer::test {

TempDir::TempDir()
{
    char pattern[] = "/tmp/xferfm-test-XXXXXX";
    const char* made = mkdtemp(pattern);
    if (!made) {
        throw std::runtime_error("mkdtemp failed");
    }
    mPath = made;
}

TempDir::~TempDir()
{
    namespace fs = std::filesystem;
    std::error_code ignored;
    // Make everything writable again first, in case a test locked it down.
    for (auto it = fs::recursive_directory_iterator(mPath, ignored); it != fs::recursive_directory_iterator();
         it.increment(ignored)) {
        if (it->is_directory(ignored) && !it->is_symlink(ignored)) {
            fs::permissions(it->path(), fs::perms::owner_all, fs::perm_options::add, ignored);
        }
    }
    fs::remove_all(mPath, ignored);
}

}  // namespace orin::xfer::test
