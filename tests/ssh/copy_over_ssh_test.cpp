// `xferfm copy` to and from another machine through a remote shell, each
// case run twice: through a real OpenSSH server of the test's own, and
// through rsh-standin.sh, which runs the far side's command line on this
// machine (so the copy's own logic is tested without sshd as well).
#include <gtest/gtest.h>

#include <dirent.h>
#include <signal.h>
#include <sys/stat.h>

#include <fstream>
#include <memory>
#include <sstream>

#include "SshServer.h"
#include "TempDir.h"
#include "ToolExitCodes.h"
#include "ToolRunner.h"
#include "TreeBuilders.h"
#include "TreeCompare.h"
#include "Wait.h"

#if !defined(XFERFM_RSH_STANDIN) || !defined(XFERFM_HOSTILE_FAR_SIDE)
#error "XFERFM_RSH_STANDIN and XFERFM_HOSTILE_FAR_SIDE must come from the build"
#endif

namespace orin::xfer::test {
namespace {

using namespace std::chrono_literals;

enum class RemoteShell { kSshd, kStandIn };

std::string nameOf(const ::testing::TestParamInfo<RemoteShell>& info)
{
    return info.param == RemoteShell::kSshd ? "Sshd" : "StandIn";
}

// The pids of xferfm processes (not a shell or ssh around one) whose
// command line holds every one of `parts`.
std::vector<pid_t> processesWith(const std::vector<std::string>& parts)
{
    std::vector<pid_t> found;
    DIR* proc = ::opendir("/proc");
    if (proc == nullptr) {
        return found;
    }
    while (const dirent* entry = ::readdir(proc)) {
        const pid_t pid = static_cast<pid_t>(std::atoi(entry->d_name));
        if (pid <= 0 || pid == ::getpid()) {
            continue;
        }
        std::ifstream in(std::string("/proc/") + entry->d_name + "/cmdline", std::ios::binary);
        std::ostringstream text;
        text << in.rdbuf();
        std::string line = text.str();
        for (char& c : line) {
            c = c == '\0' ? ' ' : c;
        }
        bool all = !line.empty();
        for (const std::string& part : parts) {
            all = all && line.find(part) != std::string::npos;
        }
        if (all && line.rfind(std::string(toolPath()) + " ", 0) == 0) {
            found.push_back(pid);
        }
    }
    ::closedir(proc);
    return found;
}

// A file of this many bytes under --bandwidth takes seconds: long enough
// to be caught mid-file.
constexpr uint64_t kSlowFileBytes = 8ull * 1024 * 1024;
constexpr const char* kSlowBandwidth = "8000";  // kbit/s: about 1 MB/s

class CopyOverRemoteShell : public ::testing::TestWithParam<RemoteShell> {
protected:
    static void SetUpTestSuite() { server = std::make_unique<SshServer>(); }
    static void TearDownTestSuite() { server.reset(); }

    void SetUp() override
    {
        if (GetParam() == RemoteShell::kSshd) {
            if (!server->Installed()) {
                GTEST_SKIP() << server->Problem();
            }
            ASSERT_TRUE(server->Running()) << server->Problem();
        }
        source = scratch.Join("source tree");
        makeDirectory(source);
        makeDirectory(source + "/sub dir");
        makeDirectory(source + "/empty");
        writeTextFile(source + "/it's $HOME *.txt", "quoted name\n");
        writeTextFile(source + "/sub dir/.hidden", "");
        writePatternFile(source + "/sub dir/large.bin", 3 * 1024 * 1024 + 17, 7);
        remoteSide = scratch.Join("far side");
        localSide = scratch.Join("near side");
        makeDirectory(remoteSide);
        makeDirectory(localSide);
    }

    std::string host() const { return GetParam() == RemoteShell::kSshd ? SshServer::Host() : "standin"; }
    std::string rsh() const
    {
        return GetParam() == RemoteShell::kSshd ? server->Rsh() : std::string("sh ") + XFERFM_RSH_STANDIN;
    }
    // `xferfm copy` with the remote shell and the far side's program set.
    std::vector<std::string> copyArgs(const std::vector<std::string>& rest) const
    {
        std::vector<std::string> args = {"copy", "--no-progress", "-e", rsh(), "--xferfm-path", toolPath()};
        args.insert(args.end(), rest.begin(), rest.end());
        return args;
    }
    std::string log() const { return GetParam() == RemoteShell::kSshd ? "\nsshd: " + server->Log() : ""; }

    static std::unique_ptr<SshServer> server;
    TempDir scratch;
    std::string source;
    std::string remoteSide;
    std::string localSide;
};

std::unique_ptr<SshServer> CopyOverRemoteShell::server;

TEST_P(CopyOverRemoteShell, APushCopiesATreeByteForByteIntoTheRemoteDest)
{
    const ToolResult result = runTool(copyArgs({source, host() + ":" + remoteSide}));

    ASSERT_EQ(result.exitCode, toInt(cli::ExitCode::kOk)) << describe(result) << log();
    EXPECT_EQ(TreeDifference(source, remoteSide + "/source tree", TreeCompare::kBytes), "");
    EXPECT_TRUE(LeftoverCaches(remoteSide).empty());
}

TEST_P(CopyOverRemoteShell, APullCopiesATreeByteForByteIntoTheLocalDest)
{
    const ToolResult result = runTool(copyArgs({host() + ":" + source, localSide}));

    ASSERT_EQ(result.exitCode, toInt(cli::ExitCode::kOk)) << describe(result) << log();
    EXPECT_EQ(TreeDifference(source, localSide + "/source tree", TreeCompare::kBytes), "");
    EXPECT_TRUE(LeftoverCaches(localSide).empty());
}

TEST_P(CopyOverRemoteShell, AClashingNameGetsANumberedNameAcrossTheLinkToo)
{
    makeDirectory(remoteSide + "/source tree");

    const ToolResult result = runTool(copyArgs({source, host() + ":" + remoteSide}));

    ASSERT_EQ(result.exitCode, toInt(cli::ExitCode::kOk)) << describe(result) << log();
    EXPECT_EQ(TreeDifference(source, remoteSide + "/source tree(1)", TreeCompare::kBytes), "");
}

TEST_P(CopyOverRemoteShell, VerifyChecksEveryCopyInBothDirections)
{
    const ToolResult pushed = runTool(copyArgs({"--verify", source, host() + ":" + remoteSide}));
    const ToolResult pulled = runTool(copyArgs({"--verify", host() + ":" + source, localSide}));

    EXPECT_EQ(pushed.exitCode, toInt(cli::ExitCode::kOk)) << describe(pushed) << log();
    EXPECT_EQ(pulled.exitCode, toInt(cli::ExitCode::kOk)) << describe(pulled) << log();
    EXPECT_NE(pushed.out.find("verified"), std::string::npos) << pushed.out;
    EXPECT_NE(pulled.out.find("verified"), std::string::npos) << pulled.out;
    EXPECT_EQ(TreeDifference(source, localSide + "/source tree", TreeCompare::kBytes), "");
}

TEST_P(CopyOverRemoteShell, AFarSideProgramThatDoesNotExistIsReportedWithItsOwnExitCode)
{
    std::vector<std::string> args = copyArgs({source, host() + ":" + remoteSide});
    args[5] = "/nonexistent/xferfm";

    const ToolResult result = runTool(args);

    EXPECT_EQ(result.exitCode, toInt(cli::ExitCode::kRemoteUnavailable)) << describe(result) << log();
    EXPECT_NE(result.err.find("'/nonexistent/xferfm' was not found on " + host()), std::string::npos) << result.err;
    EXPECT_NE(result.err.find(host() + ": "), std::string::npos) << "the far side's own words, prefixed:\n"
                                                                  << result.err;
    EXPECT_TRUE(NamesIn(remoteSide).empty());
}

TEST_P(CopyOverRemoteShell, AFarSideThatRefusesItsPathsEndsTheCopyWithItsOwnExitCode)
{
    const ToolResult push = runTool(copyArgs({source, host() + ":" + remoteSide + "/missing dir"}));
    const ToolResult pull = runTool(copyArgs({host() + ":" + source + "/missing file", localSide}));

    EXPECT_EQ(push.exitCode, toInt(cli::ExitCode::kDestinationUnusable)) << describe(push) << log();
    EXPECT_NE(push.err.find(host() + ": xferfm: cannot receive into"), std::string::npos) << push.err;
    EXPECT_EQ(pull.exitCode, toInt(cli::ExitCode::kSourceMissing)) << describe(pull) << log();
    EXPECT_NE(pull.err.find("missing file"), std::string::npos) << pull.err;
    EXPECT_TRUE(NamesIn(localSide).empty());
}

TEST_P(CopyOverRemoteShell, TheRemoteSenderKilledMidFileIsALostLinkAndLeavesNothingPartialHere)
{
    writePatternFile(source + "/slow.bin", kSlowFileBytes, 3);
    RunOptions options;
    options.whileRunning = [this](pid_t) {
        const std::vector<pid_t> farSide = processesWith({"send", "--stdio", source});
        if (farSide.empty() || BytesUnder(localSide) == 0) {
            return true;
        }
        for (const pid_t pid : farSide) {
            ::kill(pid, SIGKILL);
        }
        return false;
    };

    const ToolResult result =
        runTool(copyArgs({"--bandwidth", kSlowBandwidth, host() + ":" + source, localSide}), options);

    EXPECT_EQ(result.exitCode, toInt(cli::ExitCode::kLinkFailed)) << describe(result) << log();
    EXPECT_NE(result.err.find("lost"), std::string::npos) << result.err;
    EXPECT_TRUE(IncompleteCopies(source, localSide + "/source tree").empty());
    EXPECT_TRUE(LeftoverCaches(localSide).empty());
}

TEST_P(CopyOverRemoteShell, TheRemoteReceiverKilledMidFileIsALostLinkAndNoPartialFileGetsAFinalName)
{
    writePatternFile(source + "/slow.bin", kSlowFileBytes, 3);
    RunOptions options;
    options.whileRunning = [this](pid_t) {
        const std::vector<pid_t> farSide = processesWith({"serve", "--stdio", remoteSide});
        if (farSide.empty() || BytesUnder(remoteSide) == 0) {
            return true;
        }
        for (const pid_t pid : farSide) {
            ::kill(pid, SIGKILL);
        }
        return false;
    };

    const ToolResult result =
        runTool(copyArgs({"--bandwidth", kSlowBandwidth, source, host() + ":" + remoteSide}), options);

    EXPECT_EQ(result.exitCode, toInt(cli::ExitCode::kLinkFailed)) << describe(result) << log();
    EXPECT_NE(result.err.find("lost"), std::string::npos) << result.err;
    // A receiver killed outright cannot tidy up its private cache; what
    // matters is that no partial file appears under a final name.
    EXPECT_TRUE(IncompleteCopies(source, remoteSide + "/source tree").empty());
}

TEST_P(CopyOverRemoteShell, CtrlCMidPushEndsTheFarSideWhichRemovesItsPartialFile)
{
    writePatternFile(source + "/slow.bin", kSlowFileBytes, 3);
    RunOptions options;
    options.whileRunning = [this](pid_t pid) {
        if (BytesUnder(remoteSide) == 0) {
            return true;
        }
        ::kill(pid, SIGINT);
        return false;
    };

    const ToolResult result = runTool(copyArgs({"--bandwidth", kSlowBandwidth, source, host() + ":" + remoteSide}),
                                      options);

    EXPECT_EQ(result.exitCode, toInt(cli::ExitCode::kInterrupted)) << describe(result) << log();
    EXPECT_TRUE(waitUntil([this] { return processesWith({"serve", "--stdio", remoteSide}).empty(); }, 20s));
    EXPECT_TRUE(LeftoverCaches(remoteSide).empty());
    EXPECT_TRUE(IncompleteCopies(source, remoteSide + "/source tree").empty());
}

TEST_P(CopyOverRemoteShell, CtrlCMidPullRemovesTheLocalPartialFile)
{
    writePatternFile(source + "/slow.bin", kSlowFileBytes, 3);
    RunOptions options;
    options.whileRunning = [this](pid_t pid) {
        if (BytesUnder(localSide) == 0) {
            return true;
        }
        ::kill(pid, SIGINT);
        return false;
    };

    const ToolResult result =
        runTool(copyArgs({"--bandwidth", kSlowBandwidth, host() + ":" + source, localSide}), options);

    EXPECT_EQ(result.exitCode, toInt(cli::ExitCode::kInterrupted)) << describe(result) << log();
    EXPECT_TRUE(LeftoverCaches(localSide).empty());
    EXPECT_TRUE(IncompleteCopies(source, localSide + "/source tree").empty());
    EXPECT_TRUE(waitUntil([this] { return processesWith({"send", "--stdio", source}).empty(); }, 20s));
}

// The hostile far side is a program of the tests, played through the
// stand-in: the receiving side's guard is the same whatever carries the
// frames.
class HostileFarSide : public CopyOverRemoteShell {};

TEST_P(HostileFarSide, AHostileNameInTheFarSidesListIsRefusedAndTheRestCopied)
{
    std::vector<std::string> args = copyArgs({host() + ":" + source, localSide});
    args[5] = XFERFM_HOSTILE_FAR_SIDE;

    const ToolResult result = runTool(args);

    EXPECT_EQ(result.exitCode, toInt(cli::ExitCode::kNamesRefused)) << describe(result);
    EXPECT_NE(result.err.find("xferfm: not copied from standin: "), std::string::npos) << result.err;
    EXPECT_NE(result.err.find("escaped.txt"), std::string::npos) << result.err;
    EXPECT_TRUE(exists(localSide + "/plain.txt"));
    EXPECT_FALSE(exists(scratch.Join("escaped.txt")));
    EXPECT_TRUE(LeftoverCaches(localSide).empty());
}

INSTANTIATE_TEST_SUITE_P(BothRemoteShells, CopyOverRemoteShell,
                         ::testing::Values(RemoteShell::kSshd, RemoteShell::kStandIn), nameOf);
INSTANTIATE_TEST_SUITE_P(StandIn, HostileFarSide, ::testing::Values(RemoteShell::kStandIn), nameOf);

// Only a real server can refuse a login.
class CopyOverSsh : public ::testing::Test {
protected:
    void SetUp() override
    {
        if (!server.Installed()) {
            GTEST_SKIP() << server.Problem();
        }
        ASSERT_TRUE(server.Running()) << server.Problem();
    }
    SshServer server;
    TempDir scratch;
};

TEST_F(CopyOverSsh, ARefusedKeyIsReportedAsAFarSideThatCouldNotStart)
{
    writeTextFile(scratch.Join("note.txt"), "hello\n");
    makeDirectory(scratch.Join("far"));

    const ToolResult result =
        runTool({"copy", "--no-progress", "-e", server.Rsh(), "--xferfm-path", toolPath(), scratch.Join("note.txt"),
                 std::string(SshServer::RefusedHost()) + ":" + scratch.Join("far")});

    EXPECT_EQ(result.exitCode, toInt(cli::ExitCode::kRemoteUnavailable)) << describe(result);
    EXPECT_NE(result.err.find("could not connect to sshtest-refused or log in"), std::string::npos) << result.err;
    EXPECT_NE(result.err.find("sshtest-refused: "), std::string::npos) << "ssh's own words, prefixed:\n" << result.err;
    EXPECT_TRUE(NamesIn(scratch.Join("far")).empty());
}

}  // namespace
}  // namespace orin::xfer::test
