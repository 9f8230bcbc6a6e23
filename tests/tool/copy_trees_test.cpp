// Copies of generated trees arrive complete and byte for byte identical,
// with empty directories, hidden files and permission bits.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <regex>

#include "ToolExitCodes.h"
#include "TestSupport.h"
#include "ToolRunner.h"
#include "TreeBuilders.h"
#include "TreeCompare.h"

namespace orin::xfer::test {
namespace {

using namespace orin::xfer::test;

class CopyTrees : public ::testing::Test {
protected:
    void SetUp() override
    {
        source = work.Join("source");
        destination = work.Join("destination");
        makeDirectory(source);
        makeDirectory(destination);
    }

    ToolResult copy(const std::vector<std::string>& sources, std::vector<std::string> extra = {"--no-progress"})
    {
        std::vector<std::string> args{"copy"};
        args.insert(args.end(), extra.begin(), extra.end());
        args.insert(args.end(), sources.begin(), sources.end());
        args.push_back(destination);
        return runTool(args);
    }

    void expectIdentical(const std::string& name)
    {
        const std::vector<std::string> differences =
            TreeDifferences(source + "/" + name, destination + "/" + name);
        EXPECT_TRUE(differences.empty()) << ::testing::PrintToString(differences);
        EXPECT_TRUE(LeftoverCaches(destination).empty());
    }

    TempDir work;
    std::string source;
    std::string destination;
};

TEST_F(CopyTrees, ThousandSmallFilesInFiftyDirectories)
{
    const std::string tree = source + "/many";
    makeDirectory(tree);
    for (int directory = 0; directory < 50; ++directory) {
        const std::string path = tree + "/dir" + std::to_string(directory);
        makeDirectory(path);
        for (int file = 0; file < 20; ++file) {
            writePatternFile(path + "/file" + std::to_string(file) + ".dat",
                             static_cast<uint64_t>((directory * 20 + file) * 37 % 5000),
                             static_cast<uint32_t>(directory * 100 + file));
        }
    }

    const ToolResult result = copy({tree});

    ASSERT_EQ(result.exitCode, toInt(cli::ExitCode::kOk)) << describe(result);
    expectIdentical("many");
    EXPECT_NE(result.out.find("copied 1000 files"), std::string::npos) << result.out;
}

TEST_F(CopyTrees, FilesAroundTheChunkSizeAndALargeOne)
{
    const std::string tree = source + "/sizes";
    makeDirectory(tree);
    for (uint64_t size : {0ull, 1ull, 65535ull, 65536ull, 65537ull, 50ull * 1024 * 1024}) {
        writePatternFile(tree + "/size-" + std::to_string(size) + ".bin", size, static_cast<uint32_t>(size));
    }

    const ToolResult result = copy({tree});

    ASSERT_EQ(result.exitCode, toInt(cli::ExitCode::kOk)) << describe(result);
    expectIdentical("sizes");
}

TEST_F(CopyTrees, EmptyDirectoriesHiddenFilesAndPermissionBits)
{
    const std::string tree = source + "/shapes";
    makeDirectory(tree, 0750);
    makeDirectory(tree + "/empty");
    makeDirectory(tree + "/nested", 0700);
    makeDirectory(tree + "/nested/deeper");
    makeDirectory(tree + "/nested/deeper/empty too", 0555);
    makeDirectory(tree + "/.hidden dir");
    writeTextFile(tree + "/.hidden", "dot file\n", 0600);
    writeTextFile(tree + "/.hidden dir/inside", "inside a hidden directory\n");
    writeTextFile(tree + "/run.sh", "#!/bin/sh\n", 0755);
    writeTextFile(tree + "/private.txt", "secret\n", 0400);
    writeTextFile(tree + "/nested/deeper/leaf", "");
    makeDirectory(tree + "/locked", 0555);
    writeTextFile(tree + "/locked/inside locked", "read-only directory content\n");
    ::chmod((tree + "/locked").c_str(), 0555);

    const ToolResult result = copy({tree});

    ASSERT_EQ(result.exitCode, toInt(cli::ExitCode::kOk)) << describe(result);
    expectIdentical("shapes");
}

TEST_F(CopyTrees, NamesWithSpacesAndNonAsciiCharacters)
{
    const std::string tree = source + "/Fotos März 2024";
    makeDirectory(tree);
    makeDirectory(tree + "/Zürich — Altstadt");
    makeDirectory(tree + "/日本語 フォルダ");
    writePatternFile(tree + "/Zürich — Altstadt/café au lait.jpg", 70000, 1);
    writePatternFile(tree + "/日本語 フォルダ/写真 1.png", 1234, 2);
    writeTextFile(tree + "/naïve résumé.txt", "ünïcödé\n");
    writeTextFile(tree + "/  leading and trailing spaces  ", "spaces\n");
    writeTextFile(source + "/émoji 🙂.txt", "top-level file\n");

    const ToolResult result = copy({tree, source + "/émoji 🙂.txt"});

    ASSERT_EQ(result.exitCode, toInt(cli::ExitCode::kOk)) << describe(result);
    expectIdentical("Fotos März 2024");
    expectIdentical("émoji 🙂.txt");
}

TEST_F(CopyTrees, SeveralSourcesLandSideBySide)
{
    writeTextFile(source + "/one.txt", "one\n");
    makeDirectory(source + "/two");
    writeTextFile(source + "/two/three.txt", "three\n");
    makeDirectory(source + "/four");

    const ToolResult result = copy({source + "/one.txt", source + "/two/", source + "/four"});

    ASSERT_EQ(result.exitCode, toInt(cli::ExitCode::kOk)) << describe(result);
    EXPECT_EQ(NamesIn(destination), (std::vector<std::string>{"four", "one.txt", "two"}));
    expectIdentical("one.txt");
    expectIdentical("two");
    expectIdentical("four");
}

TEST_F(CopyTrees, SummaryLineAndVerification)
{
    writePatternFile(source + "/a.bin", 100000, 1);
    writePatternFile(source + "/b.bin", 200000, 2);

    const ToolResult result = copy({source + "/a.bin", source + "/b.bin"}, {"--no-progress", "--verify"});

    ASSERT_EQ(result.exitCode, toInt(cli::ExitCode::kOk)) << describe(result);
    const std::regex summary(R"((^|\n)copied 2 files \(300000 bytes\) in [0-9]+\.[0-9]+ s, [0-9]+\.[0-9]+ MiB/s\n)");
    EXPECT_TRUE(std::regex_search(result.out, summary)) << result.out;
    EXPECT_NE(result.out.find("verified 2 files"), std::string::npos) << result.out;
    EXPECT_TRUE(result.err.empty()) << result.err;
    expectIdentical("a.bin");
    expectIdentical("b.bin");
}

TEST_F(CopyTrees, ProgressGoesToStderrAsPlainLinesWhenNotATerminal)
{
    writePatternFile(source + "/data.bin", 300000, 3);

    const ToolResult result = runTool({"copy", source + "/data.bin", destination});

    ASSERT_EQ(result.exitCode, toInt(cli::ExitCode::kOk)) << describe(result);
    EXPECT_NE(result.err.find("xferfm: 100% (293.0 KiB of 293.0 KiB, 1/1 files)"), std::string::npos)
        << result.err;
    EXPECT_EQ(result.err.find('\r'), std::string::npos) << "no bar redraws in a pipe";
    EXPECT_EQ(result.out.find("100%"), std::string::npos) << "progress stays off stdout";
}

TEST_F(CopyTrees, RelativePathsWorkFromTheCurrentDirectory)
{
    makeDirectory(source + "/rel");
    writeTextFile(source + "/rel/file.txt", "relative\n");
    RunOptions options;
    options.workingDir = work.Path();

    const ToolResult result = runTool({"copy", "--no-progress", "source/rel", "destination"}, options);

    ASSERT_EQ(result.exitCode, toInt(cli::ExitCode::kOk)) << describe(result);
    expectIdentical("rel");
}

}  // namespace
}  // namespace orin::xfer::test
