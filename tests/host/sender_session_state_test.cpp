// The sender session's phases and the offered list, each on its own: which
// phase may follow which, and how the list answers the receiver's requests.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "OfferedList.h"
#include "SenderSessionState.h"

namespace orin::xfer::host::detail {
namespace {

constexpr SenderState kAllStates[] = {SenderState::kCreated, SenderState::kListRequested, SenderState::kOffered,
                                      SenderState::kListSent, SenderState::kFinished};

std::vector<FileDescription> filesNamed(size_t count)
{
    std::vector<FileDescription> entries;
    for (size_t i = 0; i < count; ++i) {
        FileDescription entry;
        entry.sourceDir = "/src";
        entry.fileName = "f" + std::to_string(i);
        entry.destFileName = entry.fileName;
        entry.attribute = kAttributeNormal;
        entry.fileSize = 10;
        entries.push_back(entry);
    }
    return entries;
}

TEST(SenderSessionState, AnOfferedListGoesOutWhenTheReceiverAsksForIt)
{
    EXPECT_TRUE(SenderTransitionAllowed(SenderState::kCreated, SenderState::kOffered));
    EXPECT_TRUE(SenderTransitionAllowed(SenderState::kOffered, SenderState::kListSent));
}

TEST(SenderSessionState, AReceiverThatAsksFirstGetsTheListOnceOffered)
{
    EXPECT_TRUE(SenderTransitionAllowed(SenderState::kCreated, SenderState::kListRequested));
    EXPECT_TRUE(SenderTransitionAllowed(SenderState::kListRequested, SenderState::kListSent));
}

TEST(SenderSessionState, EveryPhaseBeforeTheEndMayEndTheSession)
{
    for (SenderState from : kAllStates) {
        EXPECT_EQ(SenderTransitionAllowed(from, SenderState::kFinished), from != SenderState::kFinished)
            << SenderStateName(from);
    }
}

TEST(SenderSessionState, AnEndedSessionNeverResumes)
{
    for (SenderState to : kAllStates) {
        EXPECT_FALSE(SenderTransitionAllowed(SenderState::kFinished, to)) << SenderStateName(to);
    }
}

TEST(SenderSessionState, NoPhaseReturnsToCreatedOrStaysPut)
{
    for (SenderState from : kAllStates) {
        EXPECT_FALSE(SenderTransitionAllowed(from, SenderState::kCreated)) << SenderStateName(from);
        EXPECT_FALSE(SenderTransitionAllowed(from, from)) << SenderStateName(from);
    }
}

TEST(SenderSessionState, TheListIsSentOnlyAfterAnOfferAndARequest)
{
    EXPECT_FALSE(SenderTransitionAllowed(SenderState::kCreated, SenderState::kListSent));
    EXPECT_FALSE(SenderTransitionAllowed(SenderState::kOffered, SenderState::kListRequested));
    EXPECT_FALSE(SenderTransitionAllowed(SenderState::kListRequested, SenderState::kOffered));
    EXPECT_FALSE(SenderTransitionAllowed(SenderState::kListSent, SenderState::kOffered));
}

TEST(SenderSessionState, AnIllegalMoveIsRefusedAndLeavesThePhaseAsItWas)
{
    SenderSessionState state;
    EXPECT_FALSE(state.SetState(SenderState::kListSent, "no offer yet"));
    EXPECT_EQ(state.Current(), SenderState::kCreated);
    EXPECT_TRUE(state.SetState(SenderState::kOffered, "offered"));
    EXPECT_TRUE(state.ListOffered());
    EXPECT_TRUE(state.SetState(SenderState::kFinished, "cancelled"));
    EXPECT_FALSE(state.SetState(SenderState::kFinished, "cancelled again"));
    EXPECT_TRUE(state.Finished());
}

TEST(OfferedList, TheEngineIsHandedTheListInSlices)
{
    OfferedList list;
    const std::vector<FileDescription> first = list.Take(filesNamed(OfferedList::kSliceSize + 6));
    EXPECT_EQ(first.size(), OfferedList::kSliceSize);
    EXPECT_EQ(list.Size(), OfferedList::kSliceSize + 6);
    EXPECT_EQ(list.FileBytes(), 10u * (OfferedList::kSliceSize + 6));
}

TEST(OfferedList, ARequestThatPassesOverEntriesSkipsThemAndRefillsTheSlice)
{
    OfferedList list;
    list.Take(filesNamed(5));
    std::vector<FileDescription> slice;
    ASSERT_EQ(list.CheckRequest(3), RequestVerdict::kServe);
    const std::vector<SkippedEntry> skipped = list.Serve(3, "f3", slice);
    ASSERT_EQ(skipped.size(), 3u);
    EXPECT_EQ(skipped.front().path, "/src/f0");
    ASSERT_EQ(slice.size(), 2u);
    EXPECT_EQ(slice.front().fileName, "f3");
    EXPECT_EQ(list.ExpectedName(), "f3");
    EXPECT_FALSE(list.NothingSkipped());
}

TEST(OfferedList, ARequestForAnAnnouncedOrMissingEntryIsNotServed)
{
    OfferedList list;
    list.Take(filesNamed(3));
    std::vector<FileDescription> slice;
    list.Serve(0, "f0", slice);
    EXPECT_TRUE(slice.empty());  // the first slice still holds it
    EXPECT_EQ(list.Announce(7, 10), "/src/f0");
    ASSERT_NE(list.SourceOf(7), nullptr);
    EXPECT_EQ(list.SourceOf(7)->path, "/src/f0");
    EXPECT_EQ(list.CheckRequest(0), RequestVerdict::kAlreadyPassed);
    EXPECT_EQ(list.CheckRequest(3), RequestVerdict::kBeyondList);
    EXPECT_FALSE(list.DescribeRefusedRequest(RequestVerdict::kBeyondList, 3).empty());
}

TEST(OfferedList, ARefusedEntryIsRecordedOnceAndMayNotBeRequested)
{
    OfferedList list;
    list.Take(filesNamed(3));
    std::string path;
    EXPECT_EQ(list.Refuse(1, "a rule", path), RefusalVerdict::kRecorded);
    EXPECT_EQ(path, "/src/f1");
    EXPECT_EQ(list.Refuse(1, "a rule", path), RefusalVerdict::kAlreadyRecorded);
    EXPECT_EQ(list.Refuse(9, "a rule", path), RefusalVerdict::kNotAhead);
    EXPECT_EQ(list.CheckRequest(1), RequestVerdict::kRefusedBefore);
    ASSERT_EQ(list.Skipped().size(), 1u);
    EXPECT_EQ(list.Skipped().front().reason, "a rule");
}

TEST(OfferedList, TheEntriesNeverAskedForArePassedOverAtTheEnd)
{
    OfferedList list;
    list.Take(filesNamed(2));
    std::vector<FileDescription> slice;
    list.Serve(0, "f0", slice);
    list.Announce(3, 10);
    const std::vector<SkippedEntry> rest = list.PassOverRest();
    ASSERT_EQ(rest.size(), 1u);
    EXPECT_EQ(rest.front().path, "/src/f1");
    EXPECT_EQ(rest.front().reason, kPassedOverReason);
}

}  // namespace
}  // namespace orin::xfer::host::detail
