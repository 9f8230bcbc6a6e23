// --verify's comparison: every source file against its copy by SHA-256,
// every directory by presence; each problem names both paths.
#include <gtest/gtest.h>

#include "SourcePlan.h"
#include "TestSupport.h"
#include "TreeBuilders.h"
#include "TreeCompare.h"
#include "TreeVerifier.h"

namespace xferfm::cli {
namespace {

using namespace orin::xfer::test;
using orin::xfer::test::makeDirectory;
using orin::xfer::test::writePatternFile;
using orin::xfer::test::writeTextFile;

class TreeVerifier : public ::testing::Test {
protected:
    void SetUp() override
    {
        makeDirectory(work.Join("src"));
        makeDirectory(work.Join("src/sub"));
        writePatternFile(work.Join("src/big.bin"), 3 * 1024 * 1024 + 7, 1);
        writeTextFile(work.Join("src/sub/small.txt"), "small\n");
        makeDirectory(work.Join("copy"));
        makeDirectory(work.Join("copy/sub"));
        writePatternFile(work.Join("copy/big.bin"), 3 * 1024 * 1024 + 7, 1);
        writeTextFile(work.Join("copy/sub/small.txt"), "small\n");
        plan = planSources({work.Join("src")});
        for (const SourceEntry& entry : plan.entries) {
            finalPaths[entry.relativePath] = work.Join("copy") + entry.relativePath.substr(3);
        }
    }

    TempDir work;
    SourcePlan plan;
    std::map<std::string, std::string> finalPaths;
};

TEST_F(TreeVerifier, IdenticalCopyHasNoProblems)
{
    const VerifyResult result = verifyCopy(plan, finalPaths);

    EXPECT_EQ(result.filesCompared, 2u);
    EXPECT_TRUE(result.problems.empty());
}

TEST_F(TreeVerifier, OneChangedByteIsReportedWithBothPaths)
{
    writeTextFile(work.Join("copy/sub/small.txt"), "smalL\n");

    const VerifyResult result = verifyCopy(plan, finalPaths);

    ASSERT_EQ(result.problems.size(), 1u);
    EXPECT_EQ(result.problems[0].sourcePath, work.Join("src/sub/small.txt"));
    EXPECT_EQ(result.problems[0].destinationPath, work.Join("copy/sub/small.txt"));
    EXPECT_NE(result.problems[0].what.find("content differs"), std::string::npos) << result.problems[0].what;
}

TEST_F(TreeVerifier, MissingEntriesAreReported)
{
    ::unlink(work.Join("copy/big.bin").c_str());
    finalPaths.erase("src/sub/small.txt");

    const VerifyResult result = verifyCopy(plan, finalPaths);

    ASSERT_EQ(result.problems.size(), 2u);
    EXPECT_EQ(result.problems[0].sourcePath, work.Join("src/big.bin"));
    EXPECT_EQ(result.problems[0].what, "file missing");
    EXPECT_EQ(result.problems[1].sourcePath, work.Join("src/sub/small.txt"));
    EXPECT_EQ(result.problems[1].what, "did not arrive");
}

TEST_F(TreeVerifier, StopRequestLeavesTheRestUncompared)
{
    writeTextFile(work.Join("copy/sub/small.txt"), "different\n");

    const VerifyResult result = verifyCopy(plan, finalPaths, [] { return true; });

    EXPECT_EQ(result.filesCompared, 0u);
    EXPECT_TRUE(result.problems.empty()) << "nothing was hashed, so nothing can be called a mismatch";
}

}  // namespace
}  // namespace xferfm::cli
