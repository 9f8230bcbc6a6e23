// The progress line names the file actually being written: the receiver
// asks for the next file before the current one is on disk, and the line
// must not run ahead of the data.
#include <gtest/gtest.h>

#include <regex>

#include "TestSupport.h"
#include "ToolExitCodes.h"
#include "ToolRunner.h"
#include "TreeBuilders.h"
#include "TreeCompare.h"

namespace orin::xfer::test {
namespace {

using namespace orin::xfer::test;

TEST(ProgressCurrentFile, EachLineNamesTheFileBeingWritten)
{
    TempDir work;
    const std::vector<std::string> names = {"tree/a.bin", "tree/b.bin", "tree/c.bin", "tree/d.bin"};
    makeDirectory(work.Join("tree"));
    for (size_t i = 0; i < names.size(); ++i) {
        writePatternFile(work.Join(names[i]), 400000, static_cast<uint32_t>(i));
    }
    makeDirectory(work.Join("out"));

    // About five seconds at this rate: plain progress lines come every two.
    const ToolResult result = runTool({"copy", "--bandwidth", "2400", work.Join("tree"), work.Join("out")});

    ASSERT_EQ(result.exitCode, toInt(cli::ExitCode::kOk)) << describe(result);
    const std::regex line(R"(xferfm: \d+% \([^,]*, (\d+)/4 files\), [^,]*, ETA [^,]*, (\S+))");
    size_t checked = 0;
    for (auto it = std::sregex_iterator(result.err.begin(), result.err.end(), line); it != std::sregex_iterator();
         ++it) {
        const size_t filesDone = std::stoul((*it)[1]);
        const std::string current = (*it)[2];
        if (filesDone >= names.size()) {
            continue;
        }
        // The file after the completed ones. Around the instant one
        // completes the count and the name may be a file apart either way:
        // the line may still name the file just written, or already name
        // the next while the one just written is being put in place.
        const bool writing = current == names[filesDone] || (filesDone > 0 && current == names[filesDone - 1]) ||
                             (filesDone + 1 < names.size() && current == names[filesDone + 1]);
        EXPECT_TRUE(writing) << "with " << filesDone << " files done the line names " << current;
        ++checked;
    }
    EXPECT_GT(checked, 0u) << "no progress line to check in:\n" << result.err;
}

}  // namespace
}  // namespace orin::xfer::test
