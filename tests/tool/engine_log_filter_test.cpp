// Which engine lines the tool shows on stderr.
#include <gtest/gtest.h>

#include "EngineLogFilter.h"

namespace xferfm::cli {
namespace {

const std::string kCacheMiss =
    "[XFERFM]: OrinFileTransferManager.cpp:391: stat /d/.xferfm-cache-Ab12Cd/dir/a.txt failed, errno 2";
const std::string kWriteFailure = "[XFERFM]: OrinFileTransferManager.cpp:1200: write stream failed disk full";

TEST(EngineLogFilter, ThresholdSelectsLevels)
{
    const EngineLogFilter filter(3);
    EXPECT_FALSE(filter.shouldShow(2, kWriteFailure));
    EXPECT_TRUE(filter.shouldShow(3, kWriteFailure));
    EXPECT_TRUE(filter.shouldShow(4, kWriteFailure));
}

TEST(EngineLogFilter, ExpectedCacheMissIsNeverShown)
{
    const EngineLogFilter filter(0);
    EXPECT_FALSE(filter.shouldShow(4, kCacheMiss));
    // Other failed stats (outside the cache, or another errno) still are.
    EXPECT_TRUE(filter.shouldShow(4, "[XFERFM]: OrinFileTransferManager.cpp:391: stat /src/a.txt failed, errno 2"));
    EXPECT_TRUE(filter.shouldShow(
        4, "[XFERFM]: OrinFileTransferManager.cpp:391: stat /d/.xferfm-cache-Ab12Cd/a failed, errno 13"));
}

TEST(EngineLogFilter, SilenceDropsEverythingAfterwards)
{
    EngineLogFilter filter(3);
    filter.silence();
    EXPECT_FALSE(filter.shouldShow(5, kWriteFailure));
}

}  // namespace
}  // namespace xferfm::cli
