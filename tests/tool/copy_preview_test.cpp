// What the copy says and leaves out, as scripts and careful users ask for:
// --dry-run writes nothing and predicts where the real run lands,
// --exclude leaves matching entries out, -q prints nothing on stdout, -v one
// line per file, --json one document a program can read.
#include <gtest/gtest.h>
#include <json/json.h>
#include <sys/stat.h>

#include <algorithm>
#include <memory>

#include "JsonText.h"
#include "TestSupport.h"
#include "ToolExitCodes.h"
#include "ToolRunner.h"
#include "TreeBuilders.h"
#include "TreeCompare.h"

namespace orin::xfer::test {
namespace {

using namespace orin::xfer::test;

size_t countOf(const std::string& text, const std::string& needle)
{
    size_t count = 0;
    for (size_t at = text.find(needle); at != std::string::npos; at = text.find(needle, at + 1)) {
        ++count;
    }
    return count;
}

class CopyPreview : public ::testing::Test {
protected:
    void SetUp() override
    {
        tree = work.Join("tree");
        out = work.Join("out");
        makeDirectory(out);
        makeDirectory(tree);
        makeDirectory(tree + "/build");
        writeTextFile(tree + "/a.txt", "a\n");
        writeTextFile(tree + "/main.o", "object\n");
        writeTextFile(tree + "/build/b.txt", "b\n");
        writePatternFile(tree + "/c.bin", 70000, 9);
    }

    ToolResult copy(std::vector<std::string> options)
    {
        std::vector<std::string> args{"copy", "--no-progress"};
        args.insert(args.end(), options.begin(), options.end());
        args.push_back(tree);
        args.push_back(out);
        return runTool(args);
    }

    TempDir work;
    std::string tree;
    std::string out;
};

TEST_F(CopyPreview, DryRunWritesNothingAndPredictsWhereTheRealRunLands)
{
    makeDirectory(out + "/tree");  // taken: the copy lands as tree(1)

    const ToolResult dry = copy({"--dry-run", "--json"});
    const ToolResult shortDry = copy({"-n"});

    ASSERT_EQ(dry.exitCode, toInt(cli::ExitCode::kOk)) << describe(dry);
    ASSERT_EQ(shortDry.exitCode, toInt(cli::ExitCode::kOk)) << describe(shortDry);
    EXPECT_EQ(NamesIn(out), std::vector<std::string>{"tree"});
    EXPECT_TRUE(NamesIn(out + "/tree").empty());
    EXPECT_NE(shortDry.out.find("tree(1)"), std::string::npos) << shortDry.out;
    const Json::Value predicted = ParseJsonText(dry.out);
    EXPECT_TRUE(predicted["dryRun"].asBool());
    EXPECT_EQ(predicted["files"].asUInt64(), 4u);

    const ToolResult real = copy({"--json"});

    ASSERT_EQ(real.exitCode, toInt(cli::ExitCode::kOk)) << describe(real);
    const Json::Value landed = ParseJsonText(real.out);
    ASSERT_EQ(landed["landed"].size(), 1u) << real.out;
    EXPECT_EQ(landed["landed"][0]["path"].asString(), predicted["landed"][0]["path"].asString());
    EXPECT_EQ(landed["landed"][0]["path"].asString(), out + "/tree(1)");
    EXPECT_TRUE(TreeDifferences(tree, out + "/tree(1)").empty());
}

TEST_F(CopyPreview, ExcludeLeavesMatchingEntriesAndWhatTheyHoldOut)
{
    const ToolResult result = copy({"--exclude", "*.o", "--exclude", "tree/build"});

    ASSERT_EQ(result.exitCode, toInt(cli::ExitCode::kOk)) << describe(result);
    EXPECT_EQ(NamesIn(out + "/tree"), (std::vector<std::string>{"a.txt", "c.bin"}));
}

TEST_F(CopyPreview, QuietPrintsNothingOnStdout)
{
    const ToolResult result = copy({"-q"});

    ASSERT_EQ(result.exitCode, toInt(cli::ExitCode::kOk)) << describe(result);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err, "");
    EXPECT_TRUE(TreeDifferences(tree, out + "/tree").empty());
}

TEST_F(CopyPreview, VerbosePrintsOneLinePerFile)
{
    const ToolResult result = copy({"-v"});

    ASSERT_EQ(result.exitCode, toInt(cli::ExitCode::kOk)) << describe(result);
    EXPECT_EQ(countOf(result.out, " -> "), 4u) << result.out;
    for (const char* name : {"tree/a.txt", "tree/main.o", "tree/build/b.txt", "tree/c.bin"}) {
        EXPECT_NE(result.out.find(std::string(name) + " -> "), std::string::npos) << name << "\n" << result.out;
    }
}

TEST_F(CopyPreview, JsonSummaryCarriesFilesBytesSkippedRenamesAndVerify)
{
    ASSERT_EQ(::mkfifo((tree + "/pipe").c_str(), 0644), 0);
    makeDirectory(out + "/tree");

    const ToolResult result = copy({"--json", "--verify"});

    EXPECT_EQ(result.exitCode, toInt(cli::ExitCode::kEntriesSkipped)) << describe(result);
    const Json::Value summary = ParseJsonText(result.out);
    EXPECT_FALSE(summary["dryRun"].asBool());
    EXPECT_EQ(summary["files"].asUInt64(), 4u);
    EXPECT_EQ(summary["bytes"].asUInt64(), BytesUnder(tree));
    EXPECT_EQ(summary["directories"].asUInt64(), 2u);
    EXPECT_GE(summary["seconds"].asDouble(), 0.0);
    ASSERT_EQ(summary["skipped"].size(), 1u);
    EXPECT_EQ(summary["skipped"][0]["path"].asString(), tree + "/pipe");
    EXPECT_NE(summary["skipped"][0]["reason"].asString().find("FIFO"), std::string::npos);
    ASSERT_EQ(summary["renamed"].size(), 1u);
    EXPECT_EQ(summary["renamed"][0]["finalName"].asString(), "tree(1)");
    EXPECT_EQ(summary["verify"]["filesCompared"].asUInt64(), 4u);
    EXPECT_EQ(summary["verify"]["mismatches"].size(), 0u);
    EXPECT_EQ(summary["exitCode"].asInt(), toInt(cli::ExitCode::kEntriesSkipped));
}

}  // namespace
}  // namespace orin::xfer::test
