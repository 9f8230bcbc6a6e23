// The manual page and the bash completion keep up with the command line:
// the page renders with `man -l`, and every option that a command's --help
// lists is in the rendered page and in that command's completion.
#include <gtest/gtest.h>

#include <cstdio>
#include <regex>
#include <set>

#include "ShellCommand.h"
#include "ToolExitCodes.h"
#include "ToolRunner.h"
#include "TreeBuilders.h"
#include "TreeCompare.h"

namespace orin::xfer::test {
namespace {

using namespace orin::xfer::test;

// The repository root, from this file's place in it (tests/tool/).
std::string sourceRoot()
{
    std::string path = __FILE__;
    for (int i = 0; i < 3; ++i) {
        path = path.substr(0, path.find_last_of('/'));
    }
    return path;
}

std::string runShell(const std::string& command) { return RunShell(command).out; }

// "-p", "--preserve-perms", ... as the command's --help lists them.
std::set<std::string> optionsInHelp(const std::vector<std::string>& command)
{
    std::vector<std::string> args = command;
    args.push_back("--help");
    const ToolResult help = runTool(args);
    EXPECT_EQ(help.exitCode, 0) << describe(help);
    std::set<std::string> options;
    const std::regex line(R"(^\s+((-[A-Za-z]),)?(--[a-z][a-z-]*))");
    size_t start = 0;
    while (start < help.out.size()) {
        const size_t end = help.out.find('\n', start);
        const std::string text = help.out.substr(start, end == std::string::npos ? std::string::npos : end - start);
        std::smatch match;
        if (std::regex_search(text, match, line)) {
            if (match[2].matched) {
                options.insert(match[2]);
            }
            options.insert(match[3]);
        }
        start = end == std::string::npos ? help.out.size() : end + 1;
    }
    return options;
}

class ManPage : public ::testing::Test {
protected:
    void SetUp() override
    {
        if (runShell("command -v man").empty()) {
            GTEST_SKIP() << "man is not installed (scripts/install-deps.sh installs man-db)";
        }
        rendered = runShell("MANWIDTH=200 LANG=C LC_ALL=C man --no-hyphenation --no-justification -l '" + sourceRoot() +
                            "/docs/xferfm.1' 2>&1");
    }

    std::string rendered;
};

TEST_F(ManPage, RendersWithManAndNamesEveryCommand)
{
    ASSERT_NE(rendered.find("XFERFM(1)"), std::string::npos) << rendered;
    for (const char* section : {"SYNOPSIS", "DESCRIPTION", "EXIT STATUS"}) {
        EXPECT_NE(rendered.find(section), std::string::npos) << section;
    }
    for (const char* command : {"xferfm copy", "xferfm serve", "xferfm send", "xferfm demo"}) {
        EXPECT_NE(rendered.find(command), std::string::npos) << command;
    }
    for (const char* code : {"130", "11", "10", "9", "8"}) {
        EXPECT_TRUE(std::regex_search(rendered, std::regex(std::string("\n {7}") + code + "  +[^ ]")))
            << "exit code " << code;
    }
}

TEST_F(ManPage, ListsEveryOptionThatHelpLists)
{
    for (const std::vector<std::string>& command :
         std::vector<std::vector<std::string>>{{}, {"copy"}, {"serve"}, {"send"}, {"demo"}}) {
        const std::set<std::string> options = optionsInHelp(command);
        EXPECT_FALSE(options.empty()) << ::testing::PrintToString(command);
        for (const std::string& option : options) {
            const std::regex word("(^|[^A-Za-z-])" + option + "($|[^A-Za-z-])");
            EXPECT_TRUE(std::regex_search(rendered, word))
                << option << " of " << ::testing::PrintToString(command) << " is not in the manual page";
        }
    }
}

TEST(BashCompletion, OffersEveryOptionThatHelpLists)
{
    const std::string script = readTextFile(sourceRoot() + "/tools/xferfm/completion/xferfm.bash");
    for (const char* command : {"copy", "serve", "send", "demo"}) {
        const size_t start = script.find(std::string("        ") + command + ")\n");
        ASSERT_NE(start, std::string::npos) << command;
        const std::string block = script.substr(start, script.find(";;", start) - start);
        for (const std::string& option : optionsInHelp({command})) {
            if (option == "-h") {
                continue;  // --help is offered
            }
            const std::regex word("(^|[^A-Za-z-])" + option + "($|[^A-Za-z-])");
            EXPECT_TRUE(std::regex_search(block, word)) << option << " of " << command << " is not completed";
        }
    }
    EXPECT_NE(script.find("compgen -W \"copy serve send demo --help --version\""), std::string::npos);
}

}  // namespace
}  // namespace orin::xfer::test
