// The messages a sender endpoint and a receiver endpoint exchange. One
// session copies one file list:
//
//   receiver                                   sender
//   FileListRequest (hello)            ->
//                                      <-      FileListMessage (JSON list)
//   EntryRefused for each entry the
//   receiver will not take              ->
//   (asked with OfferOptions ahead of the list: an EntryLanding for each
//   top-level entry and, resuming, an EntryComplete for each entry it has
//   complete already, which it then never asks for; a dry run ends here,
//   with nothing asked for and nothing written)
//   for each other entry, in list order:
//   NextFileRequest (task id, index)   ->
//                                      <-      FileStart (transfer id, window)
//   files only:
//   FileAccept                         ->
//                                      <-      FileData ... (64 KiB pieces;
//                                              one empty piece for a 0-byte file)
//   DataAck every `ackWindow` written
//   chunks (and once at accept for a
//   window of 0)                       ->
//   finally:
//   Disconnect (completed)             ->
//
// The entries overlap: the receiver may send the next requests before an
// entry is done, and the sender announces each at once, but file data
// still flows one file at a time, in list order (the sender streams a file
// once it is accepted and the one before it is out; the receiver holds a
// FileAccept back while the files accepted before it owe much data).
//
// Requests go up the list and never back: a request may pass over entries
// (the ones the receiver refused, each named in an EntryRefused first),
// which are then not copied while the rest of the list is. A request for
// an entry already announced or passed over, or for one the receiver
// refused, ends the session.
//
// Either side may send TransferError for one transfer or Disconnect to
// leave the session early; EndOfList answers a request beyond the list.
// Transfer ids in messages are always the SENDER's (odd) ids.
//
// Payloads are movable: a FileData owns its bytes in a vector that travels
// by move from the sender's hand-off to the receiver's engine.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "xferfm/host/FileList.h"

namespace orin::xfer::host {

// Changes whenever a message is added or its meaning changes (2: entries
// may be refused one by one; 3: OfferOptions, EntryLanding, EntryComplete).
// The link's hello carries the same number.
constexpr uint32_t kProtocolVersion = 3;

// Receiver -> sender: opens the session and asks for the list on offer.
struct FileListRequest {
    uint32_t protocolVersion = kProtocolVersion;
};

// Sender -> receiver: the list on offer, as the engine serialises it.
// Only `json` travels. On the receiving side the first link that reads the
// list (RemoteNameGuardTransport) sets `parsed` and empties `json`, so the
// list is read once per session and held once: the links behind it and the
// endpoint use `parsed` when it is set.
struct FileListMessage {
    std::string json;
    std::shared_ptr<const ParsedFileList> parsed = nullptr;  // null until a receiving link has read the list
};

// Receiver -> sender: announce and send the next entry of the list.
struct NextFileRequest {
    uint32_t taskId = 0;     // the receiver's id for this entry, echoed back
    uint64_t index = 0;      // position of the entry in the list
    std::string name;        // the request name the receiver expects
    uint64_t totalSize = 0;  // bytes of the whole copy
};

// Sender -> receiver: one entry is coming.
struct FileStart {
    uint32_t taskId = 0;
    uint32_t transferId = 0;  // the sender's (odd) id
    std::string name;         // request name: filePath + "/" + fileName, or fileName
    bool isDirectory = false;
    uint64_t fileSize = 0;
    uint64_t totalSize = 0;
    uint32_t ackWindow = 0;   // chunks the sender sends before it waits for a DataAck
};

// Receiver -> sender: the file is set up, send its data.
struct FileAccept {
    uint32_t transferId = 0;
};

// Sender -> receiver: the next piece of a file, in order.
struct FileData {
    uint32_t transferId = 0;
    std::vector<uint8_t> bytes;
};

// Receiver -> sender: `chunksWritten` chunks of the transfer are on disk.
struct DataAck {
    uint32_t transferId = 0;
    uint64_t chunksWritten = 0;
};

// Either way: one transfer failed; the message names the path.
struct TransferError {
    uint32_t taskId = 0;
    uint32_t transferId = 0;
    std::string message;
};

// Sender -> receiver: a request found nothing left to send.
struct EndOfList {};

// Receiver -> sender: the entry at `index` of the list will not be copied
// (its name is refused on this side); the rest of the list still is.
struct EntryRefused {
    uint64_t index = 0;  // position of the entry in the list as offered
    std::string reason;  // names the entry and the rule it broke
};

// Sender -> receiver, right before its FileListMessage, when it wants more
// than a plain copy of the list.
struct OfferOptions {
    bool dryRun = false;  // say where each entry would land and what is refused; ask for nothing, write nothing
    bool resume = false;  // continue an interrupted copy: reuse the names it landed under, keep what is complete
};

// Receiver -> sender, asked with OfferOptions: where a top-level entry of
// the list lands (or would, in a dry run).
struct EntryLanding {
    std::string name;      // the top-level name as offered
    std::string landedAs;  // its name in the destination: the same, a "name(1)" rename, or the resumed name
    bool resumed = false;  // continues what an interrupted copy landed as `landedAs`
};

// Receiver -> sender, resuming: the entry with request name `name` is
// complete in the destination (same size and modification time); it is
// kept and never asked for.
struct EntryComplete {
    std::string name;
};

// Either way: this end leaves the session. Read why with ReasonOf (and
// VerdictOf after a verification); build the ones with a fixed meaning
// with the functions below rather than by hand.
struct Disconnect {
    bool completed = false;  // true after a full copy
    std::string reason;
};

using Message = std::variant<FileListRequest, FileListMessage, NextFileRequest, FileStart, FileAccept, FileData,
                             DataAck, TransferError, EndOfList, EntryRefused, Disconnect, OfferOptions, EntryLanding,
                             EntryComplete>;

// Data messages are the ones subject to backpressure.
inline bool IsDataMessage(const Message& message)
{
    return std::holds_alternative<FileData>(message);
}

inline uint64_t DataBytesOf(const Message& message)
{
    const auto* data = std::get_if<FileData>(&message);
    return data ? data->bytes.size() : 0;
}

// A short name of the message kind, for logs and errors.
const char* MessageName(const Message& message);

// Why an end left a session: the typed form of a Disconnect. A Disconnect
// keeps its wire form (the completed flag and a text), and the kinds with a
// fixed meaning have fixed texts (docs/protocol.md); this header is the one
// place that writes and reads them, so no other code compares the texts.
enum class DisconnectReason {
    kCompleted,     // the whole list was copied
    kVerified,      // copied, and every copy matched its source's digest
    kCancelled,     // a user cancelled the copy at the end that left
    kBusy,          // the receiver serves another sender; try again later
    kVerifyFailed,  // copied, but some copies differ from their sources
    kFailed,        // any other end of the session; the text says why
};

// A short name of the reason, for logs.
const char* DisconnectReasonName(DisconnectReason reason);

// The receiving end's verdict on a copy whose list carried digests.
struct VerifyVerdict {
    bool matched = false;         // every file compared matched its digest
    uint64_t filesCompared = 0;
    uint64_t filesDiffering = 0;  // 0 when matched
    std::string details;          // names what differs, when not matched

    // The verdict in words, as both ends print it: "verified 3 files: ..."
    // or "verify failed: 1 of 3 files differ from their source: ...".
    std::string Text() const;
};

DisconnectReason ReasonOf(const Disconnect& goodbye);
// The verdict a Disconnect (kVerified, kVerifyFailed) or a TransferError
// carries, if any.
std::optional<VerifyVerdict> VerdictOf(const Disconnect& goodbye);
std::optional<VerifyVerdict> VerdictOf(const TransferError& error);

// The goodbyes with a fixed meaning. `server` names the busy receiver in
// the words its user knows it by ("xferfm serve"); `session` numbers the
// session it is busy with.
Disconnect CancelledDisconnect();
Disconnect BusyDisconnect(const std::string& server, unsigned session);
Disconnect VerdictDisconnect(const VerifyVerdict& verdict);
// The TransferError that goes ahead of a failed verdict's Disconnect.
TransferError VerdictError(const VerifyVerdict& verdict);

}  // namespace orin::xfer::host
