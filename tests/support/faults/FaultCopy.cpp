#include "FaultCopy.h"

#include <chrono>

#include "HostTestSupport.h"
#include "TestSupport.h"
#include "TreeCompare.h"

namespace orin::xfer::test {

using namespace orin::xfer::host;

namespace {

using orin::xfer::test::PathExists;
using orin::xfer::test::ReadBytes;

// Every regular file under `destination` matches the one under `sourceParent`.
std::string onlyWholeFiles(const std::string& sourceParent, const std::string& destination)
{
    for (const std::string& entry : ListTree(destination)) {
        if (entry.rfind(".xferfm-cache-", 0) == 0) {
            return "the cache directory was left behind: " + entry;
        }
        if (entry.back() == '/') {
            continue;
        }
        const std::string original = sourceParent + "/" + entry;
        if (!PathExists(original) || ReadBytes(destination + "/" + entry) != ReadBytes(original)) {
            return "a partial or foreign file under a final name: " + destination + "/" + entry;
        }
    }
    return {};
}

}  // namespace

std::vector<std::string> CheckCleanFailure(const CopySession& copy, const std::string& sourceParent,
                                           const std::string& destination, const std::string& expectedPath)
{
    std::vector<std::string> problems;
    const TransferSummary summary = copy.receiver->Summary();
    if (summary.completed) {
        problems.push_back("the copy completed");
    }
    if (summary.error.find(expectedPath) == std::string::npos) {
        problems.push_back("the error does not name " + expectedPath + ": \"" + summary.error + "\"");
    }
    const auto failures = copy.observer.EventsOf("failure");
    if (failures.size() != 1) {
        problems.push_back(std::to_string(failures.size()) + " failures reported instead of one");
    } else if (failures[0].text.find(expectedPath) == std::string::npos) {
        problems.push_back("the reported failure does not name " + expectedPath + ": \"" + failures[0].text + "\"");
    }
    const std::string leftovers = onlyWholeFiles(sourceParent, destination);
    if (!leftovers.empty()) {
        problems.push_back(leftovers);
    }
    return problems;
}

std::string NextCopyProblem(const std::string& sourceRoot, const std::string& destination)
{
    const std::string source = sourceRoot + "/next-copy";
    MakeDirectory(source);
    MakeDirectory(source + "/tree");
    WriteFile(source + "/tree/a.bin", orin::xfer::test::PatternBytes(3 * 65536 + 11, 31));
    WriteFile(source + "/tree/b.txt", orin::xfer::test::PatternBytes(500, 32));
    MakeDirectory(destination);
    CopySession copy(destination);
    std::string error;
    if (!copy.Begin({source + "/tree"}, error)) {
        return "the next copy did not start: " + error;
    }
    if (!copy.WaitBoth(std::chrono::seconds(20))) {
        return "the next copy did not finish";
    }
    if (!copy.receiver->Summary().completed) {
        return "the next copy failed: " + copy.receiver->Summary().error;
    }
    const std::string difference = orin::xfer::test::TreeDifference(source, destination);
    return difference.empty() ? std::string() : "the next copy differs: " + difference;
}

std::string Joined(const std::vector<std::string>& problems)
{
    std::string text;
    for (const auto& problem : problems) {
        text += "\n  " + problem;
    }
    return text;
}

}  // namespace orin::xfer::test
