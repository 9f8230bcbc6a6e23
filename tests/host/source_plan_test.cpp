// The one walk over a copy's sources: what it lists, in which order, and
// the typed problem it stops at.
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "HostTestSupport.h"
#include "TestSupport.h"
#include "xferfm/host/SourcePlan.h"

namespace orin::xfer::host {
namespace {

using orin::xfer::test::PatternBytes;
using orin::xfer::test::TempDir;
using test::MakeDirectory;
using test::WriteFile;

std::vector<std::string> relativePaths(const SourcePlan& plan)
{
    std::vector<std::string> paths;
    for (const SourceEntry& entry : plan.entries) {
        paths.push_back(entry.relativePath);
    }
    return paths;
}

class SourcePlanTest : public ::testing::Test {
protected:
    TempDir scratch;
};

TEST_F(SourcePlanTest, EveryDirectoryComesBeforeWhatItHoldsHiddenEntriesIncluded)
{
    MakeDirectory(scratch.Join("top"));
    MakeDirectory(scratch.Join("top/empty"));
    MakeDirectory(scratch.Join("top/sub"));
    WriteFile(scratch.Join("top/.hidden"), PatternBytes(3, 1));
    WriteFile(scratch.Join("top/sub/b"), PatternBytes(5, 2), 0600);
    SourcePlan plan;
    SourceProblem problem;
    ASSERT_TRUE(PlanSources({scratch.Join("top")}, plan, problem)) << DescribeSourceProblem(problem);
    EXPECT_EQ(relativePaths(plan),
              (std::vector<std::string>{"top", "top/.hidden", "top/empty", "top/sub", "top/sub/b"}));
    EXPECT_EQ(plan.topLevelNames, std::vector<std::string>{"top"});
    EXPECT_EQ(plan.totalBytes, 8u);
    EXPECT_EQ(plan.fileCount, 2u);
    EXPECT_EQ(plan.directoryCount, 3u);
    EXPECT_EQ(plan.entries.front().size, 8u);  // a directory: the sum beneath it
    EXPECT_EQ(plan.entries.back().mode, 0600u);
    EXPECT_EQ(plan.entries.back().sourcePath, scratch.Join("top/sub/b"));
}

TEST_F(SourcePlanTest, ALinkIsFollowedToWhatItPointsTo)
{
    WriteFile(scratch.Join("target"), PatternBytes(4, 1));
    ASSERT_EQ(symlink("target", scratch.Join("link").c_str()), 0);
    SourcePlan plan;
    SourceProblem problem;
    ASSERT_TRUE(PlanSources({scratch.Join("link")}, plan, problem)) << DescribeSourceProblem(problem);
    ASSERT_EQ(plan.entries.size(), 1u);
    EXPECT_FALSE(plan.entries.front().isDirectory);
    EXPECT_EQ(plan.entries.front().size, 4u);
}

TEST_F(SourcePlanTest, EachProblemIsNamedByItsKindAndPath)
{
    MakeDirectory(scratch.Join("a"));
    MakeDirectory(scratch.Join("b"));
    WriteFile(scratch.Join("a/x"), PatternBytes(1, 1));
    WriteFile(scratch.Join("b/x"), PatternBytes(1, 1));
    MakeDirectory(scratch.Join("loop"));
    ASSERT_EQ(symlink(".", scratch.Join("loop/self").c_str()), 0);
    ASSERT_EQ(mkfifo(scratch.Join("fifo").c_str(), 0600), 0);
    ASSERT_EQ(symlink("nowhere", scratch.Join("broken").c_str()), 0);
    const struct {
        std::vector<std::string> paths;
        SourceProblemKind kind;
        std::string path;
    } cases[] = {
        {{scratch.Join("missing")}, SourceProblemKind::kMissing, scratch.Join("missing")},
        {{scratch.Join("fifo")}, SourceProblemKind::kNotFileOrDirectory, scratch.Join("fifo")},
        {{scratch.Join("broken")}, SourceProblemKind::kBrokenLink, scratch.Join("broken")},
        {{scratch.Join("loop")}, SourceProblemKind::kLinkLoop, scratch.Join("loop/self")},
        {{scratch.Join("a/x"), scratch.Join("b/x")}, SourceProblemKind::kDuplicateName, scratch.Join("b/x")},
        {{"/"}, SourceProblemKind::kNoName, "/"},
        {{""}, SourceProblemKind::kEmptyPath, ""},
    };
    for (const auto& expected : cases) {
        SourcePlan plan;
        SourceProblem problem;
        EXPECT_FALSE(PlanSources(expected.paths, plan, problem)) << expected.path;
        EXPECT_EQ(problem.kind, expected.kind) << expected.path;
        EXPECT_EQ(problem.path, expected.path);
        EXPECT_FALSE(DescribeSourceProblem(problem).empty());
    }
}

TEST_F(SourcePlanTest, LookedUpAsWrittenAFileWithATrailingSlashIsNotADirectory)
{
    WriteFile(scratch.Join("f"), PatternBytes(1, 1));
    SourcePlan plan;
    SourceProblem problem;
    EXPECT_TRUE(PlanSources({scratch.Join("f") + "/"}, plan, problem));
    PlanOptions asWritten;
    asWritten.pathsAsWritten = true;
    EXPECT_FALSE(PlanSources({scratch.Join("f") + "/"}, plan, problem, asWritten));
    EXPECT_EQ(problem.kind, SourceProblemKind::kUnreadable);
    EXPECT_EQ(problem.error, ENOTDIR);
}

TEST_F(SourcePlanTest, TheTopLevelNameIgnoresTrailingSlashesAndResolvesDots)
{
    EXPECT_EQ(TopLevelName("a/b/"), "b");
    EXPECT_EQ(TopLevelName("/"), "");
    EXPECT_EQ(TopLevelName(scratch.Join(".")), TopLevelName(scratch.Path()));
}

}  // namespace
}  // namespace orin::xfer::host
