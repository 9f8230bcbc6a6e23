// The tool's sources come from the host kit's one walk (PlanSources), made
// as strict as a copy needs: every file opened once, every SOURCE looked up
// as written. Paths are shown as the user wrote them ("dir/" stays "dir/",
// its files "dir//name"), and each problem becomes the ToolError it maps to.
#include "SourcePlan.h"

#include <cerrno>
#include <utility>

#include "ToolError.h"
#include "xferfm/host/SourcePlan.h"

namespace xferfm::cli {
namespace {

namespace host = orin::xfer::host;

// `walked` (a path under the root, as the kit walked it) as the user wrote
// the root.
std::string asWritten(const host::SourcePlan& plan, size_t rootIndex, const std::string& walked)
{
    if (rootIndex >= plan.roots.size()) {
        return walked;
    }
    const host::SourceRoot& root = plan.roots[rootIndex];
    if (root.path.empty() || walked.compare(0, root.path.size(), root.path) != 0) {
        return walked;  // the root itself, looked up as written
    }
    return root.given + walked.substr(root.path.size());
}

[[noreturn]] void throwProblem(const host::SourcePlan& plan, const host::SourceProblem& problem)
{
    const std::string given = problem.root < plan.roots.size() ? plan.roots[problem.root].given : problem.path;
    const std::string path = asWritten(plan, problem.root, problem.path);
    const auto unreadable = [&path](const std::string& reason) {
        return ToolError(ExitCode::kSourceUnreadable, "cannot read '" + path + "': " + reason);
    };
    switch (problem.kind) {
    case host::SourceProblemKind::kEmptyPath:
        throw ToolError(ExitCode::kSourceMissing, "cannot copy '" + given + "': " + systemErrorText(ENOENT));
    case host::SourceProblemKind::kMissing:
        throw ToolError(ExitCode::kSourceMissing, "cannot copy '" + path + "': " + systemErrorText(problem.error));
    case host::SourceProblemKind::kNoName:
        throw ToolError(ExitCode::kUsage, "cannot copy '" + given + "': it has no name to copy it under");
    case host::SourceProblemKind::kDuplicateName:
        throw ToolError(ExitCode::kUsage,
                        "cannot copy '" + given + "': another SOURCE is also named '" + problem.name + "'");
    case host::SourceProblemKind::kBrokenLink:
        throw unreadable("broken symbolic link");
    case host::SourceProblemKind::kVanished:
        throw unreadable("it vanished while being listed");
    case host::SourceProblemKind::kNotFileOrDirectory:
        throw unreadable("not a regular file or directory");
    case host::SourceProblemKind::kLinkLoop:
        throw unreadable("it links back into its own parent directories");
    case host::SourceProblemKind::kUnreadable:
        break;
    }
    throw unreadable(systemErrorText(problem.error));
}

}  // namespace

std::string topLevelName(const std::string& source)
{
    return host::TopLevelName(source);
}

SourcePlan planSources(const std::vector<std::string>& sources)
{
    host::PlanOptions options;
    options.openEveryFile = true;
    options.pathsAsWritten = true;
    host::SourcePlan walked;
    host::SourceProblem problem;
    if (!host::PlanSources(sources, walked, problem, options)) {
        throwProblem(walked, problem);
    }
    SourcePlan plan;
    plan.entries.reserve(walked.entries.size());
    for (const host::SourceEntry& from : walked.entries) {
        SourceEntry entry;
        entry.sourcePath = asWritten(walked, from.root, from.sourcePath);
        entry.relativePath = from.relativePath;
        entry.isDirectory = from.isDirectory;
        entry.size = from.isDirectory ? 0 : from.size;
        entry.mode = static_cast<mode_t>(from.mode);
        entry.modified = from.modified;
        plan.entries.push_back(std::move(entry));
    }
    plan.topLevelNames = std::move(walked.topLevelNames);
    plan.totalBytes = walked.totalBytes;
    plan.fileCount = walked.fileCount;
    plan.directoryCount = walked.directoryCount;
    return plan;
}

}  // namespace xferfm::cli
