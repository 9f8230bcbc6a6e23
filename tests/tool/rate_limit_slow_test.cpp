// --bandwidth holds a copy to the limit: 50 MiB at 80,000 kbit/s cannot
// arrive faster than the limit allows (about 5.2 s). Only the lower bound is
// checked; a busy machine may take longer.
#include <gtest/gtest.h>

#include "ToolExitCodes.h"
#include "TestSupport.h"
#include "ToolRunner.h"
#include "TreeBuilders.h"
#include "TreeCompare.h"

namespace orin::xfer::test {
namespace {

using namespace orin::xfer::test;

TEST(RateLimit, FiftyMebibytesAtEightyMegabitsTakesAtLeastTheLimitedTime)
{
    TempDir work;
    const std::string source = work.Join("big.bin");
    const std::string destination = work.Join("destination");
    constexpr uint64_t kBytes = 50ull * 1024 * 1024;
    constexpr double kBitsPerSecond = 80000.0 * 1000.0;
    writePatternFile(source, kBytes, 5);
    makeDirectory(destination);

    const ToolResult result = runTool({"copy", "--no-progress", "--bandwidth", "80000", source, destination});

    ASSERT_EQ(result.exitCode, toInt(cli::ExitCode::kOk)) << describe(result);
    const double limitedSeconds = static_cast<double>(kBytes) * 8.0 / kBitsPerSecond;
    EXPECT_GE(result.seconds / limitedSeconds, 0.95)
        << "took " << result.seconds << " s; the limit implies " << limitedSeconds << " s";
    EXPECT_TRUE(TreeDifferences(source, destination + "/big.bin").empty());
}

}  // namespace
}  // namespace orin::xfer::test
