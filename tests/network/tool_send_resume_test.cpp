// `xferfm send --dry-run` asks the receiver where each top-level entry
// would land and writes nothing; `xferfm send --resume` continues a send
// that was interrupted: the receiver reuses the names the interrupted run
// landed under, keeps the files it has complete, and only the rest goes.
#include <gtest/gtest.h>
#include <json/json.h>
#include <signal.h>
#include <sys/stat.h>

#include <filesystem>
#include <sstream>

#include "JsonText.h"
#include "ServeProcess.h"
#include "ToolExitCodes.h"

namespace orin::xfer::test {
namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;

// Bytes of `name` in a receiver's cache under `dest` (0 when none).
uint64_t CachedBytesOf(const std::string& dest, const std::string& name)
{
    std::error_code ignored;
    for (auto it = fs::recursive_directory_iterator(dest, ignored); it != fs::recursive_directory_iterator();
         it.increment(ignored)) {
        if (it->path().string().find("/.xferfm-cache-") != std::string::npos && it->path().filename() == name &&
            it->is_regular_file(ignored)) {
            return it->file_size(ignored);
        }
    }
    return 0;
}

timespec ModifiedOf(const std::string& path)
{
    struct stat status {};
    EXPECT_EQ(::stat(path.c_str(), &status), 0) << path;
    return status.st_mtim;
}

class SendResume : public ::testing::Test {
protected:
    void SetUp() override
    {
        tree = scratch / "tree";
        dest = scratch / "dest";
        WriteText(tree + "/a.txt", "alpha\n");
        WriteBytes(tree + "/b.bin", PatternBytes(200000, 4));
        WriteText(tree + "/sub/c.txt", "gamma\n");
        // Last in the list, and big: the send is surely still on it when interrupted.
        WriteBytes(tree + "/z-big.bin", PatternBytes(24u << 20, 5));
        fs::create_directories(dest + "/tree");  // taken: the send lands as tree(1)
        WriteText(dest + "/tree/mine.txt", "the receiver's own");
    }

    TempDir scratch;
    std::string tree;
    std::string dest;
};

TEST_F(SendResume, DryRunWritesNothingAndPredictsWhereTheRealRunLands)
{
    ServeProcess serve(scratch, dest);
    ASSERT_TRUE(serve.Listening()) << serve.Process().Describe();
    const std::string before = TreeFingerprint(dest, FingerprintTimes::kLeftOut);

    const auto dry = RunSend(scratch, "dry", {"--dry-run", "--json", serve.Address(), tree});
    const auto shortDry = RunSend(scratch, "short", {"-n", serve.Address(), tree});

    ASSERT_TRUE(dry->Exited()) << dry->Describe();
    EXPECT_EQ(dry->ExitCode(), toInt(cli::ExitCode::kOk)) << dry->Describe();
    EXPECT_EQ(shortDry->ExitCode(), toInt(cli::ExitCode::kOk)) << shortDry->Describe();
    // The session's private cache comes and goes; nothing lands.
    EXPECT_EQ(TreeFingerprint(dest, FingerprintTimes::kLeftOut), before) << "a dry run writes nothing";
    EXPECT_NE(shortDry->Stdout().find("would send 'tree' to 'tree(1)'"), std::string::npos) << shortDry->Stdout();
    const Json::Value predicted = ParseJsonText(dry->Stdout());
    EXPECT_TRUE(predicted["dryRun"].asBool());
    EXPECT_EQ(predicted["files"].asUInt64(), 4u);
    ASSERT_EQ(predicted["landed"].size(), 1u) << dry->Stdout();
    EXPECT_EQ(predicted["landed"][0]["finalName"].asString(), "tree(1)");
    ASSERT_EQ(predicted["renamed"].size(), 1u) << dry->Stdout();
    const auto sessions = serve.WaitForSessions(2, 10s);
    ASSERT_EQ(sessions.size(), 2u) << serve.Process().Describe();
    EXPECT_NE(sessions[0].find("ok: dry run, nothing written; would land 'tree' as 'tree(1)'"), std::string::npos)
        << sessions[0];

    const auto real = RunSend(scratch, "real", {serve.Address(), tree});

    ASSERT_TRUE(real->Exited()) << real->Describe();
    EXPECT_EQ(real->ExitCode(), toInt(cli::ExitCode::kOk)) << real->Describe();
    EXPECT_EQ(NamesIn(dest), (std::vector<std::string>{"tree", predicted["landed"][0]["finalName"].asString()}));
    EXPECT_EQ(TreeDifference(tree, dest + "/tree(1)", TreeCompare::kBytes), "");
}

TEST_F(SendResume, AnInterruptedSendContinuesUnderTheSameNamesAndSendsOnlyTheRest)
{
    ServeProcess serve(scratch, dest);
    ASSERT_TRUE(serve.Listening()) << serve.Process().Describe();
    // About 1 MB/s: the small files land, the big one is still in flight.
    ChildProcess first(ToolPath(), {"send", "--no-progress", "--bandwidth", "8000", serve.Address(), tree},
                       scratch / "first");
    // Well into the big file: the ones before it have landed.
    ASSERT_TRUE(waitUntil([&] { return CachedBytesOf(dest, "z-big.bin") > (1u << 20); }, 30s)) << first.Describe();
    first.Signal(SIGINT);
    ASSERT_TRUE(first.WaitExit(20s)) << first.Describe();
    EXPECT_EQ(first.ExitCode(), toInt(cli::ExitCode::kInterrupted)) << first.Describe();
    EXPECT_NE(first.Stderr().find("interrupted after sending 3 of 4 files; the receiver keeps every file that "
                                  "arrived whole"),
              std::string::npos)
        << first.Describe();
    EXPECT_NE(first.Stderr().find("run the same command again with --resume"), std::string::npos)
        << first.Describe();
    const auto interrupted = serve.WaitForSessions(1, 10s);
    ASSERT_EQ(interrupted.size(), 1u) << serve.Process().Describe();
    EXPECT_NE(interrupted[0].find("the complete files stay, and the same send with --resume continues the copy"),
              std::string::npos)
        << interrupted[0];
    EXPECT_FALSE(fs::exists(dest + "/tree(1)/z-big.bin"));
    const timespec keptTime = ModifiedOf(dest + "/tree(1)/b.bin");

    const auto resumed = RunSend(scratch, "resumed", {"--resume", "--json", serve.Address(), tree});

    ASSERT_TRUE(resumed->Exited()) << resumed->Describe();
    EXPECT_EQ(resumed->ExitCode(), toInt(cli::ExitCode::kOk)) << resumed->Describe();
    const Json::Value summary = ParseJsonText(resumed->Stdout());
    EXPECT_EQ(summary["alreadyComplete"].asUInt64(), 3u) << resumed->Stdout();
    EXPECT_EQ(summary["files"].asUInt64(), 1u) << resumed->Stdout();
    ASSERT_EQ(summary["landed"].size(), 1u) << resumed->Stdout();
    EXPECT_EQ(summary["landed"][0]["finalName"].asString(), "tree(1)");
    EXPECT_TRUE(summary["landed"][0]["resumed"].asBool());
    EXPECT_EQ(summary["renamed"].size(), 0u);
    EXPECT_EQ(NamesIn(dest), (std::vector<std::string>{"tree", "tree(1)"})) << "no duplicate, no note left";
    EXPECT_EQ(TreeDifference(tree, dest + "/tree(1)", TreeCompare::kBytes), "");
    const timespec stillKept = ModifiedOf(dest + "/tree(1)/b.bin");
    EXPECT_EQ(stillKept.tv_sec, keptTime.tv_sec);
    EXPECT_EQ(stillKept.tv_nsec, keptTime.tv_nsec);
    for (const char* path : {"/a.txt", "/b.bin", "/sub/c.txt", "/z-big.bin"}) {
        const timespec source = ModifiedOf(tree + path);
        const timespec landed = ModifiedOf(dest + "/tree(1)" + path);
        EXPECT_EQ(landed.tv_sec, source.tv_sec) << path;
        EXPECT_EQ(landed.tv_nsec, source.tv_nsec) << path;
    }
    const auto sessions = serve.WaitForSessions(2, 10s);
    ASSERT_EQ(sessions.size(), 2u) << serve.Process().Describe();
    EXPECT_NE(sessions[1].find("resumed: 3 files were complete already and kept"), std::string::npos) << sessions[1];
}

}  // namespace
}  // namespace orin::xfer::test
