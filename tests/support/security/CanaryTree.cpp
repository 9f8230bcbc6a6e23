#include "CanaryTree.h"

#include <unistd.h>

#include "HostTestSupport.h"
#include "TestSupport.h"

namespace orin::xfer::test {

using namespace orin::xfer::host;

void MakeCanaryTree(const std::string& root)
{
    WriteFile(root + "/victim.txt", orin::xfer::test::PatternBytes(1000, 77), 0644);
    MakeDirectory(root + "/sub");
    WriteFile(root + "/sub/file.bin", orin::xfer::test::PatternBytes(70000, 78), 0600);
    symlink("victim.txt", (root + "/link-to-victim").c_str());
    symlink("/nonexistent-target", (root + "/dangling-link").c_str());
}

}  // namespace orin::xfer::test
