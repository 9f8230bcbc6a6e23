// The list a sender offered, as the receiver works through it: which
// entry comes next, which slice of it the engine holds, the entries the
// receiver will not take, and the files announced so far.
//
// The receiver asks for entries in list order, one request per entry. A
// request may pass over entries (the receiver refused them, or will not
// take them): those are recorded as skipped, and the engine is handed a
// fresh slice starting at the requested entry.
//
// THREADING CONTRACT: none of its own; the sender endpoint keeps it under
// its session lock. Nothing here calls the engine or the transport: the
// endpoint does, with what these calls return.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "FileTransferTypes.h"
#include "SkippedEntries.h"

namespace orin::xfer::host::detail {

// A file or directory announced to the receiver, by its transfer id.
struct AnnouncedSource {
    std::string path;
    uint64_t size = 0;  // as announced
};

// What a request for an entry may do.
enum class RequestVerdict {
    kServe,         // the entry is next, or ahead of the next one
    kBeyondList,    // there is no such entry
    kAlreadyPassed, // it was announced or passed over already
    kRefusedBefore, // the receiver refused it earlier
};

// What a refusal of an entry did.
enum class RefusalVerdict {
    kRecorded,         // a new refusal, to be told to the observer
    kNotAhead,         // announced or passed over already, or outside the list
    kAlreadyRecorded,  // refused before
};

class OfferedList {
public:
    // Entries the engine holds at a time.
    static constexpr size_t kSliceSize = 64;

    // Keeps the whole list and returns the first slice for the engine.
    std::vector<FileDescription> Take(std::vector<FileDescription> entries);

    size_t Size() const { return mEntries.size(); }
    // The bytes of the files in the list (directories count nothing).
    uint64_t FileBytes() const;
    // The index of the next entry to announce.
    size_t NextIndex() const { return mNextIndex; }
    // Entries of the engine's current slice not announced yet.
    size_t SliceLeft() const { return mSliceLeft; }

    // The JSON list, as the engine wrote it, until it is sent: one list
    // per session, so the text is handed over rather than copied.
    void KeepJson(std::string json) { mJson = std::move(json); }
    std::string TakeJson()
    {
        std::string json;
        json.swap(mJson);
        return json;
    }

    // ---- requests ----
    RequestVerdict CheckRequest(uint64_t index) const;
    // Why a request that may not be served is refused.
    std::string DescribeRefusedRequest(RequestVerdict verdict, uint64_t index) const;
    // Accepts a servable request for `index` named `name`: the entries
    // before it are passed over (the newly skipped ones are returned, for
    // the observer) and `nextSlice` receives the entries the engine must
    // be handed first (empty when its slice still has the entry).
    std::vector<SkippedEntry> Serve(size_t index, std::string name, std::vector<FileDescription>& nextSlice);
    // A request that was not served: no announcement is expected.
    void ExpectNothing() { mExpectedName.clear(); }
    // The engine took an entry of its slice.
    void SliceEntryTaken();

    // ---- announcements ----
    // The name the last served request asked for.
    const std::string& ExpectedName() const { return mExpectedName; }
    // Records the next entry as announced under `transferId` with `size`
    // and returns its local path.
    std::string Announce(uint32_t transferId, uint64_t size);
    // The announced source of a transfer, or null.
    const AnnouncedSource* SourceOf(uint32_t transferId) const;
    // The local path of the next entry ("" past the end).
    std::string PathOfNext() const;

    // ---- entries not copied ----
    RefusalVerdict Refuse(uint64_t index, const std::string& reason, std::string& path);
    // The entries from the next one to the end: nobody will ask for them.
    std::vector<SkippedEntry> PassOverRest() { return passOver(mEntries.size()); }
    bool NothingSkipped() const { return mSkipped.Empty(); }
    std::vector<SkippedEntry> Skipped() const { return mSkipped.InListOrder(); }
    // "the receiver refused 2 of 9 entries, ..." for the summary.
    std::string SkippedText() const { return mSkipped.Text(mEntries.size()); }

private:
    std::vector<SkippedEntry> passOver(size_t index);

    std::vector<FileDescription> mEntries;
    std::string mJson;
    size_t mSliceLeft = 0;
    size_t mNextIndex = 0;
    std::string mExpectedName;
    std::map<uint32_t, AnnouncedSource> mAnnounced;
    SkippedEntries mSkipped;
};

}  // namespace orin::xfer::host::detail
