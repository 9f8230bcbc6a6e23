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

// Why an entry cannot be copied, for the kinds a copy can go on without.
std::string reasonOf(const host::SourceProblem& problem)
{
    switch (problem.kind) {
    case host::SourceProblemKind::kBrokenLink:
        return "broken symbolic link";
    case host::SourceProblemKind::kVanished:
        return "it vanished while being listed";
    case host::SourceProblemKind::kNotFileOrDirectory:
        return host::DescribeFileType(problem.fileType);
    case host::SourceProblemKind::kLinkLoop:
        return "it links back into its own parent directories";
    case host::SourceProblemKind::kUnsupportedName:
        return "its name holds a backslash, which the copy cannot carry";
    case host::SourceProblemKind::kUnreadable:
    case host::SourceProblemKind::kEmptyPath:
    case host::SourceProblemKind::kMissing:
    case host::SourceProblemKind::kNoName:
    case host::SourceProblemKind::kDuplicateName:
        break;
    }
    return SystemErrorText(problem.error);
}

[[noreturn]] void throwProblem(const host::SourcePlan& plan, const host::SourceProblem& problem)
{
    const std::string given = problem.root < plan.roots.size() ? plan.roots[problem.root].given : problem.path;
    const std::string path = asWritten(plan, problem.root, problem.path);
    switch (problem.kind) {
    case host::SourceProblemKind::kEmptyPath:
        throw ToolError(ExitCode::kSourceMissing, "cannot copy '" + given + "': " + SystemErrorText(ENOENT));
    case host::SourceProblemKind::kMissing:
        throw ToolError(ExitCode::kSourceMissing, "cannot copy '" + path + "': " + SystemErrorText(problem.error));
    case host::SourceProblemKind::kNoName:
        throw ToolError(ExitCode::kUsage, "cannot copy '" + given + "': it has no name to copy it under");
    case host::SourceProblemKind::kDuplicateName:
        throw ToolError(ExitCode::kUsage,
                        "cannot copy '" + given + "': another SOURCE is also named '" + problem.name + "'");
    case host::SourceProblemKind::kBrokenLink:
    case host::SourceProblemKind::kVanished:
    case host::SourceProblemKind::kNotFileOrDirectory:
    case host::SourceProblemKind::kLinkLoop:
    case host::SourceProblemKind::kUnsupportedName:
    case host::SourceProblemKind::kUnreadable:
        break;
    }
    throw ToolError(ExitCode::kSourceUnreadable, "cannot read '" + path + "': " + reasonOf(problem));
}

}  // namespace

std::string topLevelName(const std::string& source)
{
    return host::TopLevelName(source);
}

SourcePlan planSources(const std::vector<std::string>& sources, Uncopyable uncopyable,
                       const std::vector<std::string>& excludes)
{
    host::PlanOptions options;
    options.openEveryFile = true;
    options.pathsAsWritten = true;
    options.refuseBackslashNames = true;
    options.skipUncopyable = uncopyable == Uncopyable::kSkip;
    options.exclude = excludes;
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
    plan.topLevelNames = walked.topLevelNames;
    plan.totalBytes = walked.totalBytes;
    plan.fileCount = walked.fileCount;
    plan.directoryCount = walked.directoryCount;
    plan.excluded = walked.excluded;
    for (const host::SourceProblem& problem : walked.skipped) {
        plan.skipped.push_back({asWritten(walked, problem.root, problem.path), reasonOf(problem)});
    }
    plan.walked = std::move(walked);
    return plan;
}

}  // namespace xferfm::cli
