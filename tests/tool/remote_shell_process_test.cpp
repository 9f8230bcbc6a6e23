// The remote shell as a child process: its pipes, the first word it says
// (or its end before one), its exit status, and that it never outlives
// its owner; and the relay that shows what it says on stderr.
#include <gtest/gtest.h>

#include <signal.h>
#include <unistd.h>

#include "RemoteErrorRelay.h"
#include "RemoteShellProcess.h"
#include "ToolError.h"

namespace xferfm::cli {
namespace {

using namespace std::chrono_literals;

bool never() { return false; }

std::string readAll(int fd)
{
    std::string text;
    char buffer[256];
    ssize_t got = 0;
    while ((got = ::read(fd, buffer, sizeof buffer)) > 0) {
        text.append(buffer, static_cast<size_t>(got));
    }
    return text;
}

TEST(RemoteShellProcess, ItsStandardStreamsArePipesToTheTool)
{
    RemoteShellProcess child({"sh", "-c", "read line; echo \"got $line\"; echo said >&2"});
    OwnedFd input = child.takeInput();
    const OwnedFd output = child.takeOutput();
    const OwnedFd errors = child.takeErrors();
    ASSERT_EQ(::write(input.Fd(), "hello\n", 6), 6);
    input.Reset();

    EXPECT_EQ(readAll(output.Fd()), "got hello\n");
    EXPECT_EQ(readAll(errors.Fd()), "said\n");
    const std::optional<ChildEnd> end = child.waitEnd(10s);
    ASSERT_TRUE(end.has_value());
    EXPECT_EQ(end->exitCode, 0);
}

TEST(RemoteShellProcess, AChildThatWritesHasSpokenAndItsBytesAreLeftUnread)
{
    RemoteShellProcess child({"sh", "-c", "printf XFFM; sleep 5"});

    EXPECT_EQ(child.waitForFirstWord(never), RemoteShellProcess::FirstWord::kSpoke);
    const OwnedFd output = child.takeOutput();
    char first[4] = {};
    ASSERT_EQ(::read(output.Fd(), first, 4), 4);
    EXPECT_EQ(std::string(first, 4), "XFFM");
}

TEST(RemoteShellProcess, AChildThatEndsSilentlyNeverSpokeAndItsExitCodeIsKept)
{
    RemoteShellProcess child({"sh", "-c", "echo 'xferfm: not found' >&2; exit 127"});

    EXPECT_EQ(child.waitForFirstWord(never), RemoteShellProcess::FirstWord::kEnded);
    const std::optional<ChildEnd> end = child.waitEnd(10s);
    ASSERT_TRUE(end.has_value());
    EXPECT_EQ(end->exitCode, 127);
    EXPECT_EQ(end->describe(), "exit code 127");
}

TEST(RemoteShellProcess, WaitingForTheFirstWordStopsWhenAsked)
{
    RemoteShellProcess child({"sleep", "30"});

    EXPECT_EQ(child.waitForFirstWord([] { return true; }), RemoteShellProcess::FirstWord::kInterrupted);
}

TEST(RemoteShellProcess, AProgramThatDoesNotExistLocallyCannotBeStarted)
{
    try {
        RemoteShellProcess child({"/nonexistent/remote-shell"});
        FAIL() << "a missing program was started";
    } catch (const ToolError& error) {
        EXPECT_EQ(error.code(), ExitCode::kRemoteUnavailable);
        EXPECT_NE(std::string(error.what()).find("/nonexistent/remote-shell"), std::string::npos) << error.what();
    }
}

TEST(RemoteShellProcess, TheChildStartsWithNoSignalBlockedEvenWhenTheToolBlocksThem)
{
    sigset_t blocked;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGTERM);
    sigset_t previous;
    ::pthread_sigmask(SIG_BLOCK, &blocked, &previous);
    RemoteShellProcess child({"sleep", "30"});
    ::pthread_sigmask(SIG_SETMASK, &previous, nullptr);

    child.terminate();
    const std::optional<ChildEnd> end = child.waitEnd(10s);
    ASSERT_TRUE(end.has_value());
    EXPECT_EQ(end->signal, SIGTERM);
}

TEST(RemoteShellProcess, AChildStillRunningIsEndedAndReapedWithItsOwner)
{
    pid_t pid = 0;
    {
        RemoteShellProcess child({"sleep", "30"});
        pid = child.pid();
        ASSERT_GT(pid, 0);
    }
    // Reaped: the pid no longer names a process of ours (not even a zombie).
    EXPECT_EQ(::kill(pid, 0), -1);
}

TEST(RemoteErrorRelay, EachLineIsKeptEscapedAndTheLastOnesAreRemembered)
{
    StderrConsole console;
    RemoteShellProcess child({"sh", "-c", "printf 'one\\ntwo \\033[2J\\r\\nlast without newline' >&2"});
    RemoteErrorRelay relay(child.takeErrors(), "backup", console);
    ASSERT_TRUE(child.waitEnd(10s).has_value());

    relay.finish(10s);
    EXPECT_EQ(relay.lastLines(), (std::vector<std::string>{"one", "two \\x1B[2J", "last without newline"}));
}

}  // namespace
}  // namespace xferfm::cli
