// The test's own OpenSSH server: the accepted key logs in and runs the
// remote command line, the other key is refused, no system file is used.
#include <gtest/gtest.h>

#include "ChildProcess.h"
#include "SshServer.h"
#include "TempDir.h"

namespace orin::xfer::test {
namespace {

class SshServerTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        if (!server.Installed()) {
            GTEST_SKIP() << server.Problem();
        }
        ASSERT_TRUE(server.Running()) << server.Problem();
    }

    // Runs `ssh -F CONFIG HOST COMMAND`, as xferfm runs its remote shell.
    int runRemote(const std::string& host, const std::string& command, std::string& out)
    {
        ChildProcess ssh("/bin/sh", {"-c", server.Rsh() + " " + host + " '" + command + "'"}, scratch.Join("ssh"));
        EXPECT_TRUE(ssh.WaitExit(std::chrono::seconds(60))) << server.Log();
        out = ssh.Stdout();
        return ssh.ExitCode();
    }

    SshServer server;
    TempDir scratch;
};

TEST_F(SshServerTest, TheAcceptedKeyLogsInAndRunsTheRemoteCommand)
{
    std::string out;

    EXPECT_EQ(runRemote(SshServer::Host(), "echo remote side", out), 0) << server.Log();
    EXPECT_EQ(out, "remote side\n");
}

TEST_F(SshServerTest, TheOtherKeyIsRefusedWithTheRemoteShellsOwnExitCode)
{
    std::string out;

    EXPECT_EQ(runRemote(SshServer::RefusedHost(), "echo remote side", out), 255) << server.Log();
    EXPECT_EQ(out, "");
}

}  // namespace
}  // namespace orin::xfer::test
