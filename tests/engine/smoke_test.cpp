#include <gtest/gtest.h>

#include "TestSupport.h"

namespace orin::xfer::test {
namespace {

TEST(SupportSmoke, ManagerStartsTwoLoopersAndStopsThem)
{
    ScopedCapturingLogger logger;
    auto journal = std::make_shared<LooperJournal>();
    {
        ManagerFixture fixture;
        journal = fixture.journal;
        EXPECT_EQ(journal->Count("create:<main>"), 1u);
        EXPECT_EQ(journal->Count("create:xfer-downloader"), 1u);
    }
    EXPECT_EQ(journal->Count("destroy-factory"), 1u);
}

}  // namespace
}  // namespace orin::xfer::test
