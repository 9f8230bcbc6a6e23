// The receiver's session lifecycle and its slot table, each on its own:
// which state changes are legal, what a refused change leaves behind, and
// how announcements, accepts and settling follow the list.
#include <cstdint>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ReceiverSessionState.h"
#include "ReceiverSlotTable.h"

namespace orin::xfer::host::detail {
namespace {

using S = ReceiverState;

constexpr S kAll[] = {S::Created, S::Preparing, S::AwaitingList, S::Receiving, S::Finishing, S::Finished};

TEST(ReceiverSessionStateTest, TheLifecycleMovesForwardOnlyAlongItsTable)
{
    const std::vector<std::pair<S, S>> legal = {
        {S::Created, S::Preparing},      {S::Created, S::Finished},     {S::Preparing, S::AwaitingList},
        {S::Preparing, S::Finished},     {S::AwaitingList, S::Receiving}, {S::AwaitingList, S::Finishing},
        {S::Receiving, S::Finishing},    {S::Finishing, S::Finished},
    };
    for (S from : kAll) {
        for (S to : kAll) {
            bool expected = false;
            for (const auto& step : legal) {
                expected = expected || (step.first == from && step.second == to);
            }
            EXPECT_EQ(ReceiverSessionState::IsLegal(from, to), expected) << ToString(from) << " -> " << ToString(to);
        }
    }
}

TEST(ReceiverSessionStateTest, ACompleteSessionWalksEveryState)
{
    ReceiverSessionState state;
    EXPECT_TRUE(state.Is(S::Created));
    EXPECT_TRUE(state.SetState(S::Preparing, "Start"));
    EXPECT_TRUE(state.SetState(S::AwaitingList, "the session starts"));
    EXPECT_TRUE(state.SessionRunning());
    EXPECT_TRUE(state.SetState(S::Receiving, "the list arrived"));
    EXPECT_TRUE(state.SetState(S::Finishing, "every entry is in place"));
    state.Summary().completed = true;
    EXPECT_TRUE(state.SetState(S::Finished, "completed"));
    EXPECT_FALSE(state.SessionRunning());
    EXPECT_EQ(state.Previous(), S::Finishing);
    std::string why;
    EXPECT_TRUE(state.InvariantsHold(why)) << why;
}

TEST(ReceiverSessionStateTest, AnIllegalChangeIsRefusedAndLeavesTheStateAsItWas)
{
    ReceiverSessionState state;
    EXPECT_FALSE(state.SetState(S::Receiving, "a list before Start"));
    EXPECT_TRUE(state.Is(S::Created));
    ASSERT_TRUE(state.SetState(S::Preparing, "Start"));
    ASSERT_TRUE(state.SetState(S::AwaitingList, "the session starts"));
    EXPECT_FALSE(state.SetState(S::Created, "back to the start"));
    EXPECT_FALSE(state.SetState(S::Finished, "skipping the end of the session"));
    EXPECT_TRUE(state.Is(S::AwaitingList));
}

TEST(ReceiverSessionStateTest, NothingLeavesFinished)
{
    ReceiverSessionState state;
    state.Summary().error = "cancelled";
    ASSERT_TRUE(state.SetState(S::Finished, "cancelled before Start"));
    for (S to : kAll) {
        EXPECT_FALSE(state.SetState(to, "late")) << ToString(to);
    }
    EXPECT_TRUE(state.Is(S::Finished));
}

TEST(ReceiverSessionStateTest, TheFirstFailureWinsAndNoneIsRecordedOnceFinished)
{
    ReceiverSessionState state;
    EXPECT_FALSE(state.Stopping());
    EXPECT_TRUE(state.RecordFailure(ReceiverFailure{"/d/a", "/d/a: writing failed", false}));
    EXPECT_FALSE(state.RecordFailure(ReceiverFailure{"", "the link was lost", true}));
    ASSERT_TRUE(state.Failure().has_value());
    EXPECT_EQ(state.Failure()->message, "/d/a: writing failed");
    EXPECT_TRUE(state.Stopping());

    ReceiverSessionState ended;
    ended.Summary().error = "cancelled";
    ASSERT_TRUE(ended.SetState(S::Finished, "cancelled before Start"));
    EXPECT_FALSE(ended.RecordFailure(ReceiverFailure{"", "late", true}));
    EXPECT_FALSE(ended.RequestCancel());
}

TEST(ReceiverSessionStateTest, ACancelIsRecordedOnce)
{
    ReceiverSessionState state;
    EXPECT_TRUE(state.RequestCancel());
    EXPECT_FALSE(state.RequestCancel());
    EXPECT_TRUE(state.CancelRequested());
    EXPECT_TRUE(state.Stopping());
}

TEST(ReceiverSessionStateTest, TheInvariantsCatchAnEndWithoutOutcomeAndWorkBeforeTheList)
{
    std::string why;
    ReceiverSessionState silent;
    ASSERT_TRUE(silent.SetState(S::Finished, "for the test"));
    EXPECT_FALSE(silent.InvariantsHold(why));

    ReceiverSessionState early;
    early.Summary().filesDone = 1;
    EXPECT_FALSE(early.InvariantsHold(why));

    ReceiverSessionState cancelled;
    cancelled.Summary().cancelled = true;
    EXPECT_FALSE(cancelled.InvariantsHold(why));
    cancelled.NotePeerCancelled();
    EXPECT_TRUE(cancelled.InvariantsHold(why)) << why;
}

// ---- the slot table ----

ReceiverSlot Announce(ReceiverSlotTable& table, const std::string& name, bool isDirectory, uint32_t senderId,
                      uint64_t size, AnnouncementCheck expected = AnnouncementCheck::Expected)
{
    std::string expectedName;
    ReceiverSlot slot;
    EXPECT_EQ(table.Announce(name, isDirectory, senderId, 50, size, expectedName, slot), expected) << name;
    return slot;
}

TEST(ReceiverSlotTableTest, AnnouncementsMustNameTheOldestRequestedEntryWithAFreshOddId)
{
    ReceiverSlotTable table;
    Announce(table, "a", false, 3, 1, AnnouncementCheck::Unasked);
    table.Add(0, 1, "d", true, 0);
    table.Add(1, 2, "d/a", false, 10);
    Announce(table, "d/a", false, 3, 10, AnnouncementCheck::NotTheExpectedEntry);
    Announce(table, "d", false, 3, 0, AnnouncementCheck::WrongKind);  // not a directory
    Announce(table, "d", true, 4, 0, AnnouncementCheck::InvalidTransferId);
    Announce(table, "d", true, kNoTransferId, 0, AnnouncementCheck::InvalidTransferId);
    const ReceiverSlot directory = Announce(table, "d", true, 3, 0);
    EXPECT_EQ(directory.receiverId, 4u);
    Announce(table, "d/a", false, 3, 10, AnnouncementCheck::InvalidTransferId);  // in use
    const ReceiverSlot file = Announce(table, "d/a", false, 5, 12);
    EXPECT_EQ(file.fileSize, 12u);  // as announced, not as listed
    EXPECT_EQ(table.BySenderId(5), table.ByReceiverId(6));
}

TEST(ReceiverSlotTableTest, AFileIsAcceptedOnlyWhileTheAcceptedOnesOweLittle)
{
    ReceiverSlotTable table;
    const uint64_t large = kAcceptBacklogBytes + 1;
    table.Add(0, 1, "big", false, large);
    table.Add(1, 2, "small", false, 1000);
    Announce(table, "big", false, 3, large);
    Announce(table, "small", false, 5, 1000);
    ASSERT_TRUE(table.MarkAcceptDue(3));
    ASSERT_TRUE(table.MarkAcceptDue(5));
    EXPECT_FALSE(table.MarkAcceptDue(7));

    // A large file goes alone when nothing is owed; the next waits for room.
    std::vector<ReceiverAccept> due = table.TakeDueAccepts();
    ASSERT_EQ(due.size(), 1u);
    EXPECT_EQ(due[0].senderId, 3u);
    EXPECT_TRUE(table.TakeDueAccepts().empty());

    bool ackDue = false;
    ASSERT_NE(table.RecordChunkWritten(4, large - 2000, ackDue), nullptr);
    due = table.TakeDueAccepts();
    ASSERT_EQ(due.size(), 1u);
    EXPECT_EQ(due[0].senderId, 5u);
    EXPECT_EQ(table.BytesWritten(), large - 2000);
}

TEST(ReceiverSlotTableTest, EveryWindowOfWrittenChunksIsAcknowledged)
{
    ReceiverSlotTable table;
    table.Add(0, 1, "a", false, 100);
    std::string expectedName;
    ReceiverSlot slot;
    ASSERT_EQ(table.Announce("a", false, 3, 2, 100, expectedName, slot), AnnouncementCheck::Expected);
    bool ackDue = true;
    ASSERT_NE(table.RecordChunkWritten(4, 10, ackDue), nullptr);
    EXPECT_FALSE(ackDue);
    ASSERT_NE(table.RecordChunkWritten(4, 10, ackDue), nullptr);
    EXPECT_TRUE(ackDue);
    EXPECT_EQ(table.RecordChunkWritten(8, 10, ackDue), nullptr);
    EXPECT_FALSE(ackDue);
}

TEST(ReceiverSlotTableTest, TheSessionIsWokenForABatchOrWhenEverythingRequestedIsComplete)
{
    ReceiverSlotTable table;
    for (uint32_t i = 0; i < kSettleBatch + 1; ++i) {
        const std::string name = "f" + std::to_string(i);
        table.Add(i, i + 1, name, false, 1);
        Announce(table, name, false, 3 + 2 * i, 1);
    }
    for (uint32_t i = 0; i + 1 < kSettleBatch; ++i) {
        ASSERT_NE(table.Complete(4 + 2 * i), nullptr);
        EXPECT_FALSE(table.SettleDue()) << i;
    }
    ASSERT_NE(table.Complete(4 + 2 * (kSettleBatch - 1)), nullptr);
    EXPECT_TRUE(table.SettleDue());
    EXPECT_EQ(table.BytesWritten(), kSettleBatch);

    ReceiverSlotTable few;
    few.Add(0, 1, "d", true, 0);
    few.Add(1, 2, "d/a", false, 1);
    few.Add(2, 3, "d/b", false, 1);
    Announce(few, "d", true, 3, 0);
    ASSERT_NE(few.Complete(4), nullptr);
    EXPECT_FALSE(few.SettleDue());  // more is in flight
    EXPECT_EQ(few.NextFileAfterFront(), std::optional<size_t>(1));
    few.PopFront();
    few.PopFront();
    EXPECT_EQ(few.NextFileAfterFront(), std::nullopt);
    few.Clear();
    EXPECT_TRUE(few.Empty());
}

}  // namespace
}  // namespace orin::xfer::host::detail
