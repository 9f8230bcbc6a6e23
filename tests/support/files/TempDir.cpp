#include "TempDir.h"

#include <cstdlib>
#include <stdexcept>

#include "xferfm/host/TreeRemoval.h"

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

// The kit's remover opens up directories a test locked down first.
TempDir::~TempDir()
{
    orin::xfer::host::RemoveTree(mPath);
}

}  // namespace orin::xfer::test
