#include "DemoCommand.h"

#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <iostream>
#include <string>
#include <vector>

#include "CopyJob.h"
#include "CopyReport.h"
#include "DemoTree.h"
#include "xferfm/host/TreeRemoval.h"

namespace xferfm::cli {
namespace {

std::vector<std::string> sortedNames(const std::string& directory)
{
    std::vector<std::string> names;
    if (DIR* handle = ::opendir(directory.c_str())) {
        while (const dirent* entry = ::readdir(handle)) {
            const std::string name = entry->d_name;
            if (name != "." && name != "..") {
                names.push_back(name);
            }
        }
        ::closedir(handle);
    }
    std::sort(names.begin(), names.end());
    return names;
}

std::string describeEntry(const std::string& path, const std::string& name)
{
    struct stat status {};
    if (::stat(path.c_str(), &status) != 0) {
        return name + "  (unreadable)";
    }
    char mode[8];
    std::snprintf(mode, sizeof mode, "%04o", static_cast<unsigned>(status.st_mode & 07777));
    if (S_ISDIR(status.st_mode)) {
        return name + "/  [" + mode + "]" + (sortedNames(path).empty() ? "  (empty)" : "");
    }
    return name + "  " + std::to_string(status.st_size) + " bytes  [" + mode + "]";
}

// Prints a tree the way `tree` does, with sizes and permission bits.
void printTree(const std::string& directory, const std::string& indent)
{
    const std::vector<std::string> names = sortedNames(directory);
    for (size_t i = 0; i < names.size(); ++i) {
        const bool last = i + 1 == names.size();
        const std::string path = directory + "/" + names[i];
        std::cout << indent << (last ? "└── " : "├── ") << describeEntry(path, names[i]) << "\n";
        struct stat status {};
        if (::stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode)) {
            printTree(path, indent + (last ? "    " : "│   "));
        }
    }
}

// Removes the demo's temporary directory on every way out of runDemo.
class DemoCleanup {
public:
    explicit DemoCleanup(std::string root) : mRoot(std::move(root)) {}
    ~DemoCleanup()
    {
        orin::xfer::host::RemoveTree(mRoot);
        std::cout << "\nRemoved the demo directory " << mRoot << "\n";
    }
    DemoCleanup(const DemoCleanup&) = delete;
    DemoCleanup& operator=(const DemoCleanup&) = delete;

private:
    std::string mRoot;
};

}  // namespace

int runDemo(const CopyOptions& options, ToolContext& context)
{
    const DemoLayout layout = makeDemoTree();
    DemoCleanup cleanup(layout.root);

    std::cout << "xferfm demo: a copy through a sending and a receiving engine, verified with SHA-256\n\n"
              << "Sample sources in " << layout.root << "/source:\n";
    printTree(layout.root + "/source", "  ");
    std::cout << "\nDestination " << layout.destinationDir << " already holds:\n";
    printTree(layout.destinationDir, "  ");
    std::cout << "\nRunning: xferfm copy --verify";
    for (const std::string& source : layout.sources) {
        std::cout << " '" << source << "'";
    }
    std::cout << " '" << layout.destinationDir << "'\n\n" << std::flush;

    CopyOptions copy = options;
    copy.sources = layout.sources;
    copy.destinationDir = layout.destinationDir;
    copy.verify = true;
    const CopyOutcome outcome = runCopyJob(copy, context);

    std::cout << "Destination " << layout.destinationDir << " now holds:\n";
    printTree(layout.destinationDir, "  ");
    std::cout << "\n";
    return reportCopy(outcome, context.console);
}

}  // namespace xferfm::cli
