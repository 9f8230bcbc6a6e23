#include "TreeVerifier.h"

#include <sys/stat.h>

#include <atomic>
#include <optional>
#include <thread>

#include "xferfm/host/Sha256.h"

namespace xferfm::cli {
namespace {

struct HashJob {
    std::string path;
    std::optional<std::string> digest;
    std::string error;
};

// Hashes every job on two threads; a source and its copy are neighbours in
// the list, so one large file is read from both sides at once.
void hashAll(std::vector<HashJob>& jobs, const std::function<bool()>& stopRequested)
{
    std::atomic<size_t> next{0};
    auto work = [&jobs, &next, &stopRequested] {
        for (size_t index = next++; index < jobs.size(); index = next++) {
            if (stopRequested && stopRequested()) {
                return;
            }
            jobs[index].digest = orin::xfer::host::Sha256OfFile(jobs[index].path, jobs[index].error);
        }
    };
    std::thread helper(work);
    work();
    helper.join();
}

}  // namespace

VerifyResult verifyCopy(const SourcePlan& plan, const std::map<std::string, std::string>& finalPaths,
                        const std::function<bool()>& stopRequested)
{
    VerifyResult result;
    std::vector<HashJob> jobs;
    std::vector<const SourceEntry*> files;
    for (const SourceEntry& entry : plan.entries) {
        const auto found = finalPaths.find(entry.relativePath);
        if (found == finalPaths.end()) {
            result.problems.push_back({entry.sourcePath, entry.relativePath, "did not arrive"});
            continue;
        }
        const std::string& copy = found->second;
        struct stat status {};
        const bool exists = ::stat(copy.c_str(), &status) == 0;
        if (entry.isDirectory) {
            if (!exists || !S_ISDIR(status.st_mode)) {
                result.problems.push_back({entry.sourcePath, copy, "directory missing"});
            }
            continue;
        }
        if (!exists || !S_ISREG(status.st_mode)) {
            result.problems.push_back({entry.sourcePath, copy, "file missing"});
            continue;
        }
        files.push_back(&entry);
        jobs.push_back({entry.sourcePath, std::nullopt, {}});
        jobs.push_back({copy, std::nullopt, {}});
    }
    hashAll(jobs, stopRequested);
    for (size_t i = 0; i < files.size(); ++i) {
        const HashJob& source = jobs[2 * i];
        const HashJob& copy = jobs[2 * i + 1];
        const bool hashed = (source.digest || !source.error.empty()) && (copy.digest || !copy.error.empty());
        if (!hashed) {
            continue;  // stopped before this file
        }
        ++result.filesCompared;
        if (!source.digest) {
            result.problems.push_back({source.path, copy.path, "source unreadable: " + source.error});
        } else if (!copy.digest) {
            result.problems.push_back({source.path, copy.path, "copy unreadable: " + copy.error});
        } else if (*source.digest != *copy.digest) {
            result.problems.push_back({source.path, copy.path,
                                       "content differs (sha256 " + source.digest->substr(0, 16) + "... vs " +
                                           copy.digest->substr(0, 16) + "...)"});
        }
    }
    return result;
}

}  // namespace xferfm::cli
