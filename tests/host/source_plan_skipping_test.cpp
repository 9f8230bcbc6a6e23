// With skipUncopyable the walk finds every entry a copy cannot carry, lists
// each once in `skipped` with its kind, and plans the rest; a problem with
// the request itself still stops it.
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "HostTestSupport.h"
#include "TestSupport.h"
#include "xferfm/host/SourcePlan.h"

namespace orin::xfer::host {
namespace {

using orin::xfer::test::TempDir;
using test::MakeDirectory;
using test::WriteFile;

PlanOptions skipping()
{
    PlanOptions options;
    options.openEveryFile = true;
    options.refuseBackslashNames = true;
    options.skipUncopyable = true;
    return options;
}

TEST(SourcePlanSkipping, EveryUncopyableEntryIsListedAndTheRestIsPlanned)
{
    TempDir scratch;
    MakeDirectory(scratch.Join("top"));
    MakeDirectory(scratch.Join("top/sub"));
    WriteFile(scratch.Join("top/sub/keep.txt"), {1, 2, 3, 4});
    WriteFile(scratch.Join("top/back\\slash"), {1});
    ASSERT_EQ(mkfifo(scratch.Join("top/sub/pipe").c_str(), 0644), 0);
    ASSERT_EQ(symlink("nowhere", scratch.Join("top/broken").c_str()), 0);

    SourcePlan plan;
    SourceProblem problem;
    ASSERT_TRUE(PlanSources({scratch.Join("top")}, plan, problem, skipping())) << DescribeSourceProblem(problem);

    std::vector<std::string> planned;
    for (const SourceEntry& entry : plan.entries) {
        planned.push_back(entry.relativePath);
    }
    EXPECT_EQ(planned, (std::vector<std::string>{"top", "top/sub", "top/sub/keep.txt"}));
    EXPECT_EQ(plan.fileCount, 1u);
    EXPECT_EQ(plan.totalBytes, 4u);
    EXPECT_EQ(plan.topLevelNames, (std::vector<std::string>{"top"}));
    ASSERT_EQ(plan.skipped.size(), 3u);
    EXPECT_EQ(plan.skipped[0].kind, SourceProblemKind::kUnsupportedName);
    EXPECT_EQ(plan.skipped[0].path, scratch.Join("top/back\\slash"));
    EXPECT_EQ(plan.skipped[1].kind, SourceProblemKind::kBrokenLink);
    EXPECT_EQ(plan.skipped[2].kind, SourceProblemKind::kNotFileOrDirectory);
    EXPECT_EQ(plan.skipped[2].fileType, static_cast<uint32_t>(S_IFIFO));
}

TEST(SourcePlanSkipping, AMissingSourceStillStopsTheWalk)
{
    TempDir scratch;
    SourcePlan plan;
    SourceProblem problem;

    EXPECT_FALSE(PlanSources({scratch.Join("missing")}, plan, problem, skipping()));
    EXPECT_EQ(problem.kind, SourceProblemKind::kMissing);
}

TEST(SourcePlanSkipping, WithoutSkippingTheFirstProblemStopsTheWalk)
{
    TempDir scratch;
    MakeDirectory(scratch.Join("top"));
    ASSERT_EQ(mkfifo(scratch.Join("top/pipe").c_str(), 0644), 0);
    PlanOptions options = skipping();
    options.skipUncopyable = false;

    SourcePlan plan;
    SourceProblem problem;
    EXPECT_FALSE(PlanSources({scratch.Join("top")}, plan, problem, options));
    EXPECT_EQ(problem.kind, SourceProblemKind::kNotFileOrDirectory);
    EXPECT_TRUE(plan.skipped.empty());
}

}  // namespace
}  // namespace orin::xfer::host
