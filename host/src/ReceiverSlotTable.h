// The receiver's table of requested entries, from the request until the
// entry is settled (moved into place, or its directory created), in list
// order. It decides three things:
// - which announcement is valid: announcements come in list order, so
//   each one must name the oldest requested entry not yet announced, with
//   an odd, unused sender transfer id;
// - which announced files may be accepted: the sender streams a file once
//   accepted and its window only bounds each file on its own, so a file is
//   accepted only while the files accepted before it still have at most
//   kAcceptBacklogBytes to write (a larger file goes when nothing is owed).
//   Without this a slow disk would let whole files pile up in the writer;
// - when the session should wake to settle: once kSettleBatch entries at
//   the front are complete, or every requested one is, so it wakes once
//   per batch rather than per file.
//
// THREADING CONTRACT: none of its own; the endpoint keeps it under its
// lock. Pointers it returns are valid until the next Add, PopFront or Clear.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <vector>

namespace orin::xfer::host::detail {

// Never a transfer id of this session (also the engine's "no task" id).
inline constexpr uint32_t kNoTransferId = 0xFFFFFFFF;
// Completed entries that wake the session to settle them together.
inline constexpr size_t kSettleBatch = 8;
// Bytes that accepted files may still have to write before the next file
// is accepted.
inline constexpr uint64_t kAcceptBacklogBytes = 4u << 20;

// One requested entry.
struct ReceiverSlot {
    size_t index = 0;
    uint32_t taskId = 0;
    std::string name;  // request name
    bool isDirectory = false;
    uint64_t fileSize = 0;  // as listed, then as announced
    bool announced = false;
    uint32_t senderId = 0;
    uint32_t receiverId = 0;  // senderId + 1: even, never 0
    uint32_t window = 0;
    bool acceptDue = false;  // set up in the engine; its FileAccept waits for room
    bool accepted = false;
    bool completed = false;
    uint64_t bytesWritten = 0;
    uint64_t chunksWritten = 0;
    uint64_t bytesReceived = 0;  // data the sender sent for it, written or not
    std::chrono::steady_clock::time_point requestedAt;
};

// A FileAccept to send (with the window-0 acknowledgement where needed).
struct ReceiverAccept {
    uint32_t senderId = 0;
    uint32_t window = 0;
};

enum class AnnouncementCheck {
    Expected,            // recorded: the slot is announced
    Unasked,             // nothing requested waits for an announcement
    NotTheExpectedEntry, // another entry than the oldest one asked for
    WrongKind,           // the entry asked for, as a file where the list has a directory or back
    InvalidTransferId,   // even, the reserved id, or one in use
};

class ReceiverSlotTable {
public:
    // A request for entry `index` went out.
    void Add(size_t index, uint32_t taskId, std::string name, bool isDirectory, uint64_t fileSize);

    // Checks an announcement and, when it is the expected one, records it
    // (ids, window, the announced size). `expectedName` gets the name that
    // was due, `slot` a copy of the recorded slot.
    AnnouncementCheck Announce(const std::string& name, bool isDirectory, uint32_t senderId, uint32_t window,
                               uint64_t fileSize, std::string& expectedName, ReceiverSlot& slot);

    // The file announced by `senderId` is set up in the engine: its accept
    // is due. False when it is no longer in flight.
    bool MarkAcceptDue(uint32_t senderId);
    // The due accepts that fit now, oldest first, marked accepted.
    std::vector<ReceiverAccept> TakeDueAccepts();

    // `size` bytes of data arrived for the file announced by `senderId`.
    // False, and nothing counted, when that takes the file beyond its
    // announced size: such data must never reach the engine.
    bool RecordDataReceived(uint32_t senderId, uint64_t size);
    // A chunk of a file was written; null when the transfer is not in
    // flight. `ackDue` tells whether the chunk closes an acknowledgement
    // window.
    const ReceiverSlot* RecordChunkWritten(uint32_t receiverId, uint64_t size, bool& ackDue);
    // The engine completed the transfer; null when it is not in flight.
    const ReceiverSlot* Complete(uint32_t receiverId);

    // Announced slots by the receiver's or the sender's id; null when the
    // transfer is not in flight.
    const ReceiverSlot* ByReceiverId(uint32_t receiverId) const;
    const ReceiverSlot* BySenderId(uint32_t senderId) const;

    // Whether enough completed entries wait at the front to be settled.
    bool SettleDue() const;
    bool Empty() const { return mSlots.empty(); }
    size_t Size() const { return mSlots.size(); }
    const ReceiverSlot& Front() const { return mSlots.front(); }
    void PopFront() { mSlots.pop_front(); }
    // The list index of the first file requested after the front entry.
    std::optional<size_t> NextFileAfterFront() const;
    // Forgets every slot: late engine callbacks find nothing.
    void Clear();

    // Bytes written by the engine for this session so far.
    uint64_t BytesWritten() const { return mBytesWritten; }

private:
    ReceiverSlot* byReceiverId(uint32_t receiverId);
    ReceiverSlot* bySenderId(uint32_t senderId);

    std::deque<ReceiverSlot> mSlots;
    size_t mAcceptsDue = 0;  // slots whose FileAccept waits for room
    uint64_t mBytesWritten = 0;
};

}  // namespace orin::xfer::host::detail
