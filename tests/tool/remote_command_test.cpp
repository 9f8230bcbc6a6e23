// The remote shell's command line: --rsh split into words as a shell
// would, and every path quoted so that the far side's shell hands it to
// xferfm as one word, whatever characters it holds.
#include <gtest/gtest.h>

#include <cstdio>

#include "RemoteCommand.h"
#include "ShellCommand.h"
#include "ToolError.h"

namespace xferfm::cli {
namespace {

using Words = std::vector<std::string>;

ExitCode codeOf(const std::function<void()>& action)
{
    try {
        action();
    } catch (const ToolError& error) {
        return error.code();
    }
    return ExitCode::kOk;
}

// What a real shell makes of `line`: each word on a line of its own.
std::string shellWords(const std::string& line)
{
    return orin::xfer::test::RunShell("sh -c 'for w in \"$@\"; do printf \"<%s>\\n\" \"$w\"; done' words " + line).out;
}

TEST(RshWords, BlanksSeparateWords)
{
    EXPECT_EQ(splitShellWords("ssh"), Words{"ssh"});
    EXPECT_EQ(splitShellWords("  ssh -p 2222\t-i key "), (Words{"ssh", "-p", "2222", "-i", "key"}));
}

TEST(RshWords, QuotesAndBackslashesKeepBlanksInsideOneWord)
{
    EXPECT_EQ(splitShellWords("ssh -i 'my key' -o \"User=a b\" x\\ y"),
              (Words{"ssh", "-i", "my key", "-o", "User=a b", "x y"}));
    EXPECT_EQ(splitShellWords("ssh -o ''"), (Words{"ssh", "-o", ""}));
    EXPECT_EQ(splitShellWords(R"(a "q\"uote\\ \$x \n")"), (Words{"a", "q\"uote\\ $x \\n"}));
    EXPECT_EQ(splitShellWords("a 'it'\\''s'"), (Words{"a", "it's"}));
}

TEST(RshWords, NothingIsExpanded)
{
    EXPECT_EQ(splitShellWords("ssh -F ~/cfg $HOME *"), (Words{"ssh", "-F", "~/cfg", "$HOME", "*"}));
}

TEST(RshWords, AnUnclosedQuoteATrailingBackslashOrNoWordIsAUsageError)
{
    for (const char* bad : {"ssh 'x", "ssh \"x", "ssh x\\", "", "   "}) {
        EXPECT_EQ(codeOf([bad] { splitShellWords(bad); }), ExitCode::kUsage) << bad;
    }
}

TEST(ShellQuote, PlainWordsStayAsTheyAre)
{
    EXPECT_EQ(shellQuote("photos/2026-01_a.b"), "photos/2026-01_a.b");
}

TEST(ShellQuote, EveryOtherWordReachesTheShellAsOneWordUnchanged)
{
    const Words words = {"with space", "it's", "\"double\"", "$HOME", "*", "a;b|c&d", "`x`", "back\\slash",
                         "new\nline", "", "~", "-n", "tab\there", "ünï"};
    std::string line;
    std::string expected;
    for (const std::string& word : words) {
        line += " " + shellQuote(word);
        expected += "<" + word + ">\n";
    }
    EXPECT_EQ(shellWords(line), expected);
}

TEST(RemoteCommandLine, APushRunsServeOnStdioWithTheDestAfterDashDash)
{
    RemoteInvocation invocation;
    invocation.rshWords = {"ssh", "-p", "2222"};
    invocation.xferfmPath = "/opt/x ferfm/bin/xferfm";
    invocation.target.user = "ann";
    invocation.target.host = "backup";
    invocation.role = RemoteRole::kReceive;
    invocation.paths = {"in box"};

    EXPECT_EQ(remoteCommandLine(invocation), "'/opt/x ferfm/bin/xferfm' serve --stdio -- 'in box'");
    EXPECT_EQ(remoteShellArgv(invocation),
              (Words{"ssh", "-p", "2222", "ann@backup", "'/opt/x ferfm/bin/xferfm' serve --stdio -- 'in box'"}));
}

TEST(RemoteCommandLine, APullRunsSendOnStdioWithEverySourceQuoted)
{
    RemoteInvocation invocation;
    invocation.rshWords = {"ssh"};
    invocation.xferfmPath = "xferfm";
    invocation.target.host = "backup";
    invocation.role = RemoteRole::kSend;
    invocation.options = {"--verify"};
    invocation.paths = {"a b", "it's", "$x", "*", "-rf"};

    const std::string line = remoteCommandLine(invocation);
    EXPECT_EQ(shellWords(line), "<xferfm>\n<send>\n<--stdio>\n<--verify>\n<-->\n<a b>\n<it's>\n<$x>\n<*>\n<-rf>\n");
}

TEST(RemoteCommandLine, ALeadingTildeSlashStaysBareForTheRemoteShellToExpand)
{
    RemoteInvocation invocation;
    invocation.xferfmPath = "xferfm";
    invocation.paths = {"~/in box", "~", "~/"};

    EXPECT_EQ(remoteCommandLine(invocation), "xferfm serve --stdio -- ~/'in box' ~ ~/");
}

}  // namespace
}  // namespace xferfm::cli
