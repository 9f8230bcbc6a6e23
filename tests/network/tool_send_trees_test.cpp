// `xferfm send` treats its sources as `copy` does: entries that cannot be
// copied are all named before anything is sent and skipped (exit 11),
// --strict sends nothing instead, --exclude leaves entries out, and -q, -v
// and --json shape what it prints.
#include <gtest/gtest.h>
#include <json/json.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <sstream>

#include "JsonText.h"
#include "ServeProcess.h"
#include "ToolExitCodes.h"
#include "TreeBuilders.h"

namespace orin::xfer::test {
namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;

constexpr uid_t kNobody = 65534;

void MakeSocket(const std::string& path)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    ASSERT_LT(path.size(), sizeof address.sun_path) << path;
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
    ASSERT_GE(fd, 0);
    const int bound = ::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address);
    ::close(fd);
    ASSERT_EQ(bound, 0) << path;
}

class SendTrees : public ::testing::Test {
protected:
    void SetUp() override
    {
        // Readable by an unprivileged sender.
        ASSERT_EQ(::chmod(scratch.Path().c_str(), 0755), 0);
        tree = scratch / "tree";
        dest = scratch / "dest";
        WriteText(tree + "/good.txt", "good\n");
        WriteBytes(tree + "/sub/fine.bin", PatternBytes(300000, 3));
        WriteText(tree + "/sub/main.o", "object");
        fs::create_directories(dest);
    }

    // The uncopyable entries besides an unreadable file.
    void AddOddEntries()
    {
        ASSERT_EQ(::mkfifo((tree + "/pipe").c_str(), 0644), 0);
        MakeSocket(tree + "/sub/sock");
        ASSERT_EQ(::symlink("nowhere", (tree + "/dangling").c_str()), 0);
    }

    // `xferfm send --no-progress ARGS...` to its end; as an unprivileged
    // user when asked and this process is root (root reads every file).
    std::unique_ptr<ChildProcess> Send(const std::string& name, std::vector<std::string> args,
                                       bool unprivileged = false)
    {
        if (!unprivileged || ::geteuid() != 0) {
            return RunSend(scratch, name, args);
        }
        std::vector<std::string> all{"--reuid=" + std::to_string(kNobody), "--regid=" + std::to_string(kNobody),
                                     "--clear-groups", "--", ToolPath(), "send", "--no-progress"};
        all.insert(all.end(), args.begin(), args.end());
        auto send = std::make_unique<ChildProcess>("/usr/bin/setpriv", all, scratch / name);
        send->WaitExit(60s);
        return send;
    }

    TempDir scratch;
    std::string tree;
    std::string dest;
};

TEST_F(SendTrees, EveryUncopyableEntryIsNamedAndTheRestIsSent)
{
    AddOddEntries();
    WriteText(tree + "/sub/secret.txt", "secret\n");
    ASSERT_EQ(::chmod((tree + "/sub/secret.txt").c_str(), 0), 0);
    if (::geteuid() == 0 && ::access("/usr/bin/setpriv", X_OK) != 0) {
        GTEST_SKIP() << "running as root without setpriv: an unreadable file cannot be made";
    }
    ServeProcess serve(scratch, dest, {"--once"});
    ASSERT_TRUE(serve.Listening()) << serve.Process().Describe();

    const auto send = Send("send", {serve.Address(), tree}, true);

    ASSERT_TRUE(send->Exited()) << send->Describe();
    EXPECT_EQ(send->ExitCode(), toInt(cli::ExitCode::kEntriesSkipped)) << send->Describe();
    const std::string err = send->Stderr();
    EXPECT_NE(err.find("4 entries cannot be copied and are skipped"), std::string::npos) << err;
    EXPECT_NE(err.find("'" + tree + "/pipe': a FIFO"), std::string::npos) << err;
    EXPECT_NE(err.find("'" + tree + "/sub/sock': a socket"), std::string::npos) << err;
    EXPECT_NE(err.find("'" + tree + "/dangling': broken symbolic link"), std::string::npos) << err;
    EXPECT_NE(err.find("'" + tree + "/sub/secret.txt': Permission denied"), std::string::npos) << err;
    ASSERT_TRUE(serve.Process().WaitExit(10s)) << serve.Process().Describe();
    EXPECT_EQ(serve.Process().ExitCode(), toInt(cli::ExitCode::kOk)) << serve.Process().Describe();
    EXPECT_EQ(readTextFile(dest + "/tree/good.txt"), "good\n");
    EXPECT_EQ(TreeDifference(tree + "/sub/fine.bin", dest + "/tree/sub/fine.bin", TreeCompare::kBytes), "");
    for (const char* absent : {"/tree/pipe", "/tree/sub/sock", "/tree/dangling", "/tree/sub/secret.txt"}) {
        EXPECT_FALSE(fs::exists(fs::symlink_status(dest + absent))) << absent;
    }
}

TEST_F(SendTrees, StrictSendsNothingWhenAnEntryCannotBeCopied)
{
    AddOddEntries();
    ServeProcess serve(scratch, dest, {"--once"});
    ASSERT_TRUE(serve.Listening()) << serve.Process().Describe();

    const auto send = Send("send", {"--strict", serve.Address(), tree});

    ASSERT_TRUE(send->Exited()) << send->Describe();
    EXPECT_EQ(send->ExitCode(), toInt(cli::ExitCode::kSourceUnreadable)) << send->Describe();
    EXPECT_TRUE(NamesIn(dest).empty());
}

TEST_F(SendTrees, ExcludeLeavesMatchingEntriesOut)
{
    ServeProcess serve(scratch, dest, {"--once"});
    ASSERT_TRUE(serve.Listening()) << serve.Process().Describe();

    const auto send = Send("send", {"--exclude", "*.o", "--exclude", "tree/good.txt", serve.Address(), tree});

    ASSERT_TRUE(send->Exited()) << send->Describe();
    EXPECT_EQ(send->ExitCode(), toInt(cli::ExitCode::kOk)) << send->Describe();
    ASSERT_TRUE(serve.Process().WaitExit(10s)) << serve.Process().Describe();
    EXPECT_EQ(NamesIn(dest + "/tree"), std::vector<std::string>{"sub"});
    EXPECT_EQ(NamesIn(dest + "/tree/sub"), std::vector<std::string>{"fine.bin"});
}

TEST_F(SendTrees, JsonSummaryCarriesFilesBytesSkippedAndVerify)
{
    ASSERT_EQ(::mkfifo((tree + "/pipe").c_str(), 0644), 0);
    ServeProcess serve(scratch, dest, {"--once"});
    ASSERT_TRUE(serve.Listening()) << serve.Process().Describe();

    const auto send = Send("send", {"--json", "--verify", serve.Address(), tree});

    ASSERT_TRUE(send->Exited()) << send->Describe();
    EXPECT_EQ(send->ExitCode(), toInt(cli::ExitCode::kEntriesSkipped)) << send->Describe();
    const Json::Value summary = ParseJsonText(send->Stdout());
    EXPECT_FALSE(summary["dryRun"].asBool());
    EXPECT_EQ(summary["destination"].asString(), serve.Address());
    EXPECT_EQ(summary["files"].asUInt64(), 3u);
    EXPECT_EQ(summary["bytes"].asUInt64(), 5u + 300000u + 6u);
    EXPECT_EQ(summary["directories"].asUInt64(), 2u);
    EXPECT_GE(summary["seconds"].asDouble(), 0.0);
    ASSERT_EQ(summary["skipped"].size(), 1u) << send->Stdout();
    EXPECT_EQ(summary["skipped"][0]["path"].asString(), tree + "/pipe");
    EXPECT_NE(summary["skipped"][0]["reason"].asString().find("FIFO"), std::string::npos);
    EXPECT_EQ(summary["refused"].size(), 0u);
    EXPECT_TRUE(summary["verify"]["matched"].asBool()) << send->Stdout();
    EXPECT_EQ(summary["verify"]["filesCompared"].asUInt64(), 3u);
    EXPECT_EQ(summary["exitCode"].asInt(), toInt(cli::ExitCode::kEntriesSkipped));
}

TEST_F(SendTrees, QuietPrintsNothingAndVerbosePrintsOneLinePerFile)
{
    ServeProcess serve(scratch, dest);
    ASSERT_TRUE(serve.Listening()) << serve.Process().Describe();

    const auto quiet = Send("quiet", {"-q", serve.Address(), tree});
    const auto verbose = Send("verbose", {"-v", serve.Address(), tree});

    ASSERT_TRUE(quiet->Exited()) << quiet->Describe();
    EXPECT_EQ(quiet->ExitCode(), toInt(cli::ExitCode::kOk)) << quiet->Describe();
    EXPECT_EQ(quiet->Stdout(), "");
    EXPECT_EQ(quiet->Stderr(), "");
    ASSERT_TRUE(verbose->Exited()) << verbose->Describe();
    EXPECT_EQ(verbose->ExitCode(), toInt(cli::ExitCode::kOk)) << verbose->Describe();
    EXPECT_EQ(LinesWith(verbose->Stdout(), "sending ").size(), 3u) << verbose->Stdout();
    for (const char* name : {"/good.txt", "/sub/fine.bin", "/sub/main.o"}) {
        EXPECT_NE(verbose->Stdout().find("sending " + tree + name), std::string::npos) << name;
    }
}

}  // namespace
}  // namespace orin::xfer::test
