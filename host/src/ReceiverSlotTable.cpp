#include "ReceiverSlotTable.h"

#include <algorithm>
#include <utility>

namespace orin::xfer::host::detail {

void ReceiverSlotTable::Add(size_t index, uint32_t taskId, std::string name, bool isDirectory, uint64_t fileSize)
{
    ReceiverSlot slot;
    slot.index = index;
    slot.taskId = taskId;
    slot.name = std::move(name);
    slot.isDirectory = isDirectory;
    slot.fileSize = fileSize;
    slot.requestedAt = std::chrono::steady_clock::now();
    mSlots.push_back(std::move(slot));
}

AnnouncementCheck ReceiverSlotTable::Announce(const std::string& name, bool isDirectory, uint32_t senderId,
                                              uint32_t window, uint64_t fileSize, std::string& expectedName,
                                              ReceiverSlot& slot)
{
    auto expected =
        std::find_if(mSlots.begin(), mSlots.end(), [](const ReceiverSlot& candidate) { return !candidate.announced; });
    if (expected == mSlots.end()) {
        return AnnouncementCheck::Unasked;
    }
    expectedName = expected->name;
    if (name != expected->name) {
        return AnnouncementCheck::NotTheExpectedEntry;
    }
    if (isDirectory != expected->isDirectory) {
        return AnnouncementCheck::WrongKind;
    }
    if ((senderId & 1u) == 0 || senderId == kNoTransferId || BySenderId(senderId) != nullptr) {
        return AnnouncementCheck::InvalidTransferId;
    }
    expected->announced = true;
    expected->senderId = senderId;
    expected->receiverId = senderId + 1;
    expected->window = window;
    expected->fileSize = fileSize;  // the file may have changed since it was listed
    slot = *expected;
    return AnnouncementCheck::Expected;
}

bool ReceiverSlotTable::MarkAcceptDue(uint32_t senderId)
{
    ReceiverSlot* slot = bySenderId(senderId);
    if (slot == nullptr) {
        return false;
    }
    slot->acceptDue = true;
    ++mAcceptsDue;
    return true;
}

std::vector<ReceiverAccept> ReceiverSlotTable::TakeDueAccepts()
{
    std::vector<ReceiverAccept> due;
    if (mAcceptsDue == 0) {
        return due;
    }
    uint64_t owed = 0;
    for (const ReceiverSlot& slot : mSlots) {
        if (slot.accepted && !slot.completed) {
            owed += slot.fileSize - std::min(slot.fileSize, slot.bytesWritten);
        }
    }
    for (ReceiverSlot& slot : mSlots) {
        if (!slot.acceptDue) {
            continue;
        }
        if (owed > 0 && owed + slot.fileSize > kAcceptBacklogBytes) {
            break;  // in list order: the sender streams them in that order
        }
        slot.acceptDue = false;
        slot.accepted = true;
        --mAcceptsDue;
        owed += slot.fileSize;
        due.push_back(ReceiverAccept{slot.senderId, slot.window});
    }
    return due;
}

const ReceiverSlot* ReceiverSlotTable::RecordChunkWritten(uint32_t receiverId, uint64_t size, bool& ackDue)
{
    ackDue = false;
    ReceiverSlot* slot = byReceiverId(receiverId);
    if (slot == nullptr) {
        return nullptr;
    }
    slot->bytesWritten += size;
    ++slot->chunksWritten;
    mBytesWritten += size;
    ackDue = slot->window > 0 && slot->chunksWritten % slot->window == 0;
    return slot;
}

const ReceiverSlot* ReceiverSlotTable::Complete(uint32_t receiverId)
{
    ReceiverSlot* slot = byReceiverId(receiverId);
    if (slot == nullptr) {
        return nullptr;
    }
    slot->completed = true;
    if (!slot->isDirectory) {
        mBytesWritten += slot->fileSize - slot->bytesWritten;
        slot->bytesWritten = slot->fileSize;
    }
    return slot;
}

const ReceiverSlot* ReceiverSlotTable::ByReceiverId(uint32_t receiverId) const
{
    for (const ReceiverSlot& slot : mSlots) {
        if (slot.announced && slot.receiverId == receiverId) {
            return &slot;
        }
    }
    return nullptr;
}

bool ReceiverSlotTable::RecordDataReceived(uint32_t senderId, uint64_t size)
{
    ReceiverSlot* slot = bySenderId(senderId);
    if (slot == nullptr || size > slot->fileSize - std::min(slot->bytesReceived, slot->fileSize)) {
        return false;
    }
    slot->bytesReceived += size;
    return true;
}

const ReceiverSlot* ReceiverSlotTable::BySenderId(uint32_t senderId) const
{
    for (const ReceiverSlot& slot : mSlots) {
        if (slot.announced && slot.senderId == senderId) {
            return &slot;
        }
    }
    return nullptr;
}

ReceiverSlot* ReceiverSlotTable::byReceiverId(uint32_t receiverId)
{
    return const_cast<ReceiverSlot*>(std::as_const(*this).ByReceiverId(receiverId));
}

ReceiverSlot* ReceiverSlotTable::bySenderId(uint32_t senderId)
{
    return const_cast<ReceiverSlot*>(std::as_const(*this).BySenderId(senderId));
}

bool ReceiverSlotTable::SettleDue() const
{
    size_t completed = 0;
    for (const ReceiverSlot& slot : mSlots) {
        if (!slot.completed) {
            break;
        }
        ++completed;
    }
    return completed > 0 && (completed >= kSettleBatch || completed == mSlots.size());
}

std::optional<size_t> ReceiverSlotTable::NextFileAfterFront() const
{
    if (mSlots.empty()) {
        return std::nullopt;
    }
    const size_t front = mSlots.front().index;
    for (const ReceiverSlot& slot : mSlots) {
        if (slot.index > front && !slot.isDirectory) {
            return slot.index;
        }
    }
    return std::nullopt;
}

void ReceiverSlotTable::Clear()
{
    mSlots.clear();
    mAcceptsDue = 0;
}

}  // namespace orin::xfer::host::detail
