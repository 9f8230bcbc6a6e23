// --verify: proves a copy by content. Every source file is hashed with
// SHA-256 together with its copy; every source directory must exist at its
// destination as a directory.
//
// Threading: verifyCopy runs two hashing threads of its own and returns
// when both are done.
#pragma once

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "SourcePlan.h"

namespace xferfm::cli {

struct VerifyProblem {
    std::string sourcePath;
    std::string destinationPath;
    std::string what;  // "content differs (sha256 ... vs ...)", "did not arrive", ...
};

struct VerifyResult {
    uint64_t filesCompared = 0;
    std::vector<VerifyProblem> problems;
};

// `finalPaths` maps each entry's relativePath to where the copy landed.
// `stopRequested`, when given, is asked between files; once it answers true
// the remaining files are not hashed (and not counted as compared).
VerifyResult verifyCopy(const SourcePlan& plan, const std::map<std::string, std::string>& finalPaths,
                        const std::function<bool()>& stopRequested = {});

}  // namespace xferfm::cli
