// `copy --names windows` fits every name to a Windows destination before
// anything is written: mapped names land under their full-width forms and
// are each named on stdout; with `--name-action refuse` each bad name is
// named on stderr, the rest is copied and the exit code is 7; and a posix
// map-back turns a mapped tree back into the original names, byte for byte.
#include <unistd.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "TestSupport.h"
#include "ToolExitCodes.h"
#include "ToolRunner.h"
#include "TreeBuilders.h"
#include "TreeCompare.h"

namespace orin::xfer::test {
namespace {

// U+FF1A, U+FF2E, U+FF0E and U+2401 in UTF-8.
const std::string kColon = "\xEF\xBC\x9A";
const std::string kFullN = "\xEF\xBC\xAE";
const std::string kDot = "\xEF\xBC\x8E";
const std::string kStartOfHeading = "\xE2\x90\x81";

class CopyPortableNames : public ::testing::Test {
protected:
    void SetUp() override
    {
        tree = work.Join("source/tree");
        makeDirectory(work.Join("source"));
        makeDirectory(tree);
        writeTextFile(tree + "/a:b", "colon\n");
        writeTextFile(tree + "/CON.txt", "device\n");
        writeTextFile(tree + "/x.", "dot\n");
        writeTextFile(tree + "/Aa", "first\n");
        writeTextFile(tree + "/aA", "second\n");
        writeTextFile(tree + "/c\x01" "d", "control\n");
        writeTextFile(tree + "/plain", "plain\n");
        for (const char* name : {"mapped", "refused", "restored"}) {
            makeDirectory(work.Join(name));
        }
    }

    ToolResult copy(const std::string& from, const std::string& to, const std::vector<std::string>& options)
    {
        std::vector<std::string> args{"copy", "--no-progress"};
        args.insert(args.end(), options.begin(), options.end());
        args.push_back(from);
        args.push_back(to);
        return runTool(args);
    }

    TempDir work;
    std::string tree;
};

TEST_F(CopyPortableNames, AWindowsCopyLandsEveryNameUnderItsMappedFormAndNamesEach)
{
    const ToolResult result = copy(tree, work.Join("mapped"), {"--names", "windows"});

    // The case clash is refused even when mapping: no form of "aA" differs from "Aa" there.
    EXPECT_EQ(result.exitCode, toInt(cli::ExitCode::kNamesRefused)) << describe(result);
    EXPECT_EQ(NamesIn(work.Join("mapped/tree")),
              (std::vector<std::string>{"Aa", "CO" + kFullN + ".txt", "a" + kColon + "b", "c" + kStartOfHeading + "d",
                                        "plain", "x" + kDot}));
    EXPECT_EQ(readTextFile(work.Join("mapped/tree/a" + kColon + "b")), "colon\n");
    EXPECT_NE(result.out.find("landed 'tree/a:b' as 'tree/a" + kColon + "b'"), std::string::npos) << result.out;
    EXPECT_NE(result.out.find("landed 'tree/CON.txt' as 'tree/CO" + kFullN + ".txt'"), std::string::npos);
    EXPECT_NE(result.out.find("landed 'tree/x.' as 'tree/x" + kDot + "'"), std::string::npos);
    EXPECT_NE(result.out.find("landed 'tree/c\\x01d'"), std::string::npos) << "control characters are escaped";
    EXPECT_NE(result.err.find("\"tree/aA\": it would land on the same name as \"tree/Aa\""), std::string::npos)
        << result.err;
}

TEST_F(CopyPortableNames, RefusingCopiesTheRestAndNamesEachRefusedEntryWithExitCode7)
{
    const ToolResult result = copy(tree, work.Join("refused"), {"--names", "windows", "--name-action", "refuse"});

    EXPECT_EQ(result.exitCode, toInt(cli::ExitCode::kNamesRefused)) << describe(result);
    EXPECT_EQ(NamesIn(work.Join("refused/tree")), (std::vector<std::string>{"Aa", "plain"}));
    for (const std::string named : {"\"tree/a:b\"", "\"tree/CON.txt\"", "\"tree/x.\"", "\"tree/aA\"",
                                     "\"tree/c\\x01d\""}) {
        EXPECT_NE(result.err.find("not copied: " + named), std::string::npos) << named << "\n" << result.err;
    }
    EXPECT_NE(result.out.find("refused 5 entries for their names"), std::string::npos) << result.out;
}

TEST_F(CopyPortableNames, AWindowsMapThenAPosixMapBackRestoresTheNamesByteForByte)
{
    ASSERT_EQ(::unlink((tree + "/aA").c_str()), 0);  // refused on the way there: it could not come back
    ASSERT_EQ(copy(tree, work.Join("mapped"), {"--names", "windows"}).exitCode, toInt(cli::ExitCode::kOk));

    const ToolResult back =
        copy(work.Join("mapped/tree"), work.Join("restored"), {"--names", "posix", "--name-action", "map-back"});

    ASSERT_EQ(back.exitCode, toInt(cli::ExitCode::kOk)) << describe(back);
    EXPECT_EQ(TreeDifference(tree, work.Join("restored/tree"), TreeCompare::kBytes), "");
    EXPECT_NE(back.out.find("landed 'tree/a" + kColon + "b' as 'tree/a:b'"), std::string::npos) << back.out;
}

TEST_F(CopyPortableNames, ByDefaultAndWithoutMapBackEveryNameLandsAsSent)
{
    ASSERT_EQ(copy(tree, work.Join("mapped"), {"--names", "windows"}).exitCode, toInt(cli::ExitCode::kNamesRefused));

    const ToolResult plain = copy(work.Join("mapped/tree"), work.Join("restored"), {});

    ASSERT_EQ(plain.exitCode, toInt(cli::ExitCode::kOk)) << describe(plain);
    EXPECT_EQ(NamesIn(work.Join("restored/tree")), NamesIn(work.Join("mapped/tree")));
    EXPECT_EQ(plain.out.find("landed"), std::string::npos) << plain.out;
}

TEST_F(CopyPortableNames, ADryRunNamesWhatWouldBeMappedAndRefusedAndWritesNothing)
{
    const ToolResult result = copy(tree, work.Join("mapped"), {"--dry-run", "--names", "windows"});

    EXPECT_EQ(result.exitCode, toInt(cli::ExitCode::kNamesRefused)) << describe(result);
    EXPECT_NE(result.out.find("would land 'tree/a:b' as 'tree/a" + kColon + "b'"), std::string::npos) << result.out;
    EXPECT_NE(result.err.find("would not be copied: \"tree/aA\""), std::string::npos) << result.err;
    EXPECT_TRUE(NamesIn(work.Join("mapped")).empty());
}

TEST_F(CopyPortableNames, MoreThanTwentyMappedNamesAreCountedInOneLine)
{
    for (int i = 0; i < 25; ++i) {
        writeTextFile(tree + "/many:" + std::to_string(100 + i), "x");
    }

    const ToolResult result = copy(tree, work.Join("mapped"), {"--names", "windows"});

    EXPECT_EQ(result.exitCode, toInt(cli::ExitCode::kNamesRefused)) << describe(result);
    size_t lines = 0;
    for (size_t at = result.out.find("landed '"); at != std::string::npos; at = result.out.find("landed '", at + 1)) {
        ++lines;
    }
    EXPECT_EQ(lines, 20u) << result.out;
    EXPECT_NE(result.out.find("and 9 more names: landed under a mapped form"), std::string::npos) << result.out;
    EXPECT_EQ(NamesIn(work.Join("mapped/tree")).size(), 6u + 25u);
}

TEST_F(CopyPortableNames, MapBackGoesWithPosixOnly)
{
    const ToolResult result = copy(tree, work.Join("mapped"), {"--names", "windows", "--name-action", "map-back"});

    EXPECT_EQ(result.exitCode, toInt(cli::ExitCode::kUsage)) << describe(result);
    EXPECT_NE(result.err.find("map-back goes with --names posix"), std::string::npos) << result.err;
}

}  // namespace
}  // namespace orin::xfer::test
