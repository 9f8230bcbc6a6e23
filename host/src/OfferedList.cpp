// How the offered list honours the engine's upload list:
//
// - Slices: UploadFiles erases the front entry of the engine's list, which
//   costs time linear in the list's length, so the engine holds the list
//   in slices of kSliceSize entries, refilled with TriggerLocalCopy; the
//   JSON list (SendFileDesc) is taken once, from the whole list, by Offer.
// - Order: UploadFiles always takes the FRONT of the upload list, whatever
//   task id it is given; the receiver requests entries in list order, one
//   request per entry, and the endpoint checks the announced name against
//   the one requested (ExpectedName). A request may pass over entries the
//   receiver will not take (each refused first with an EntryRefused naming
//   the rule): the engine is then handed a fresh slice starting at the
//   requested entry (TriggerLocalCopy replaces the upload list and leaves
//   the transfers in flight alone). Passed-over entries are not a failure
//   of the sender: they are reported to the observer (OnEntrySkipped) and
//   in the summary (`skipped`; the session then ends `partial`, not
//   `completed`). A request for an entry already announced or passed over,
//   for one the receiver refused, or beyond the list ends the session; a
//   refusal of an entry that is not ahead in the list is ignored.
#include "OfferedList.h"

#include <algorithm>
#include <utility>

#include "UploadList.h"

namespace orin::xfer::host::detail {

std::vector<FileDescription> OfferedList::Take(std::vector<FileDescription> entries)
{
    mEntries = std::move(entries);
    const size_t firstSlice = std::min(mEntries.size(), kSliceSize);
    mSliceLeft = firstSlice;
    return std::vector<FileDescription>(mEntries.begin(), mEntries.begin() + static_cast<std::ptrdiff_t>(firstSlice));
}

uint64_t OfferedList::FileBytes() const
{
    uint64_t bytes = 0;
    for (const FileDescription& entry : mEntries) {
        if ((entry.attribute & kAttributeDirectory) == 0) {
            bytes += entry.fileSize;
        }
    }
    return bytes;
}

RequestVerdict OfferedList::CheckRequest(uint64_t index) const
{
    if (index >= mEntries.size()) {
        return RequestVerdict::kBeyondList;
    }
    if (index < mNextIndex) {
        return RequestVerdict::kAlreadyPassed;
    }
    if (mSkipped.Contains(static_cast<size_t>(index))) {
        return RequestVerdict::kRefusedBefore;
    }
    return RequestVerdict::kServe;
}

std::string OfferedList::DescribeRefusedRequest(RequestVerdict verdict, uint64_t index) const
{
    const std::string entry = "the receiver asked for entry " + std::to_string(index);
    switch (verdict) {
    case RequestVerdict::kBeyondList:
        return entry + " of a list of " + std::to_string(mEntries.size()) + " entries";
    case RequestVerdict::kAlreadyPassed:
        return entry + " out of order (entries before " + std::to_string(mNextIndex) +
               " were announced or passed over)";
    case RequestVerdict::kRefusedBefore:
        return entry + ", which it had refused";
    case RequestVerdict::kServe:
        break;
    }
    return "";
}

std::vector<SkippedEntry> OfferedList::Serve(size_t index, std::string name, std::vector<FileDescription>& nextSlice)
{
    std::vector<SkippedEntry> passedOver;
    if (index > mNextIndex) {
        passedOver = passOver(index);
    }
    nextSlice.clear();
    if (mSliceLeft == 0 && mNextIndex < mEntries.size()) {
        const size_t end = std::min(mEntries.size(), mNextIndex + kSliceSize);
        nextSlice.assign(mEntries.begin() + static_cast<std::ptrdiff_t>(mNextIndex),
                         mEntries.begin() + static_cast<std::ptrdiff_t>(end));
        mSliceLeft = nextSlice.size();
    }
    mExpectedName = std::move(name);
    return passedOver;
}

void OfferedList::SliceEntryTaken()
{
    if (mSliceLeft > 0) {
        --mSliceLeft;
    }
}

std::string OfferedList::Announce(uint32_t transferId, uint64_t size)
{
    std::string path = PathOfNext();
    mAnnounced[transferId] = AnnouncedSource{path, size};
    ++mNextIndex;
    return path;
}

const AnnouncedSource* OfferedList::SourceOf(uint32_t transferId) const
{
    const auto known = mAnnounced.find(transferId);
    return known != mAnnounced.end() ? &known->second : nullptr;
}

std::string OfferedList::PathOfNext() const
{
    return mNextIndex < mEntries.size() ? SourcePathOf(mEntries[mNextIndex]) : std::string();
}

RefusalVerdict OfferedList::Refuse(uint64_t index, const std::string& reason, std::string& path)
{
    if (index >= mEntries.size() || index < mNextIndex) {
        return RefusalVerdict::kNotAhead;
    }
    path = SourcePathOf(mEntries[static_cast<size_t>(index)]);
    return mSkipped.Refuse(static_cast<size_t>(index), path, reason) ? RefusalVerdict::kRecorded
                                                                     : RefusalVerdict::kAlreadyRecorded;
}

// The entries from the next one up to `index` will not be sent: recorded
// as skipped (those not refused before are returned), and the engine's
// slice is refilled from `index`.
std::vector<SkippedEntry> OfferedList::passOver(size_t index)
{
    std::vector<SkippedEntry> passed =
        mSkipped.PassOver(mNextIndex, index, [this](size_t at) { return SourcePathOf(mEntries[at]); });
    mNextIndex = index;
    mSliceLeft = 0;
    return passed;
}

}  // namespace orin::xfer::host::detail
