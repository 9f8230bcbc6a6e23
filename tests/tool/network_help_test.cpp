// The main --help lists the two network commands next to copy and demo,
// and each still has its own --help with its options.
#include <gtest/gtest.h>

#include <string>

#include "ToolExitCodes.h"
#include "ToolRunner.h"

namespace orin::xfer::test {
namespace {

using namespace orin::xfer::test;

// The line of `text` that starts (after indentation) with `word`.
std::string lineStartingWith(const std::string& text, const std::string& word)
{
    size_t start = 0;
    while (start < text.size()) {
        size_t end = text.find('\n', start);
        if (end == std::string::npos) {
            end = text.size();
        }
        const std::string line = text.substr(start, end - start);
        const size_t first = line.find_first_not_of(' ');
        if (first != std::string::npos && line.compare(first, word.size() + 1, word + " ") == 0) {
            return line;
        }
        start = end + 1;
    }
    return "";
}

TEST(NetworkHelp, MainHelpListsServeAndSendWithADescription)
{
    const ToolResult result = runTool({"--help"});

    EXPECT_EQ(result.exitCode, toInt(cli::ExitCode::kOk)) << describe(result);
    for (const char* command : {"copy", "demo", "serve", "send"}) {
        const std::string line = lineStartingWith(result.out, command);
        EXPECT_FALSE(line.empty()) << command << " is not listed in:\n" << result.out;
        EXPECT_GT(line.size(), std::string(command).size() + 20) << command << " has no description: " << line;
    }
    EXPECT_NE(result.out.find("  7 "), std::string::npos) << "the exit code of refused names:\n" << result.out;
}

TEST(NetworkHelp, ServeAndSendStillHaveTheirOwnHelp)
{
    const ToolResult serve = runTool({"serve", "--help"});
    EXPECT_EQ(serve.exitCode, toInt(cli::ExitCode::kOk)) << describe(serve);
    for (const char* expected : {"--listen", "--once", "--port-file", "DEST_DIR", "Exit codes"}) {
        EXPECT_NE(serve.out.find(expected), std::string::npos) << expected << " missing from:\n" << serve.out;
    }
    const ToolResult send = runTool({"send", "--help"});
    EXPECT_EQ(send.exitCode, toInt(cli::ExitCode::kOk)) << describe(send);
    for (const char* expected : {"--verify", "--bandwidth", "HOST:PORT", "SOURCE", "Exit codes"}) {
        EXPECT_NE(send.out.find(expected), std::string::npos) << expected << " missing from:\n" << send.out;
    }
}

}  // namespace
}  // namespace orin::xfer::test
