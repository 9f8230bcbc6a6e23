// The sending end of a copy: offers local files and streams them through
// its own engine to a ReceiverEndpoint at the other end of a transport.
//
// Usage: construct with a transport end, Offer(paths), then WaitFinished.
// One endpoint serves one session (one offered list).
//
// THREADING CONTRACT
// - Public operations may be called from any host thread; Offer once.
// - The endpoint runs on: the transport's delivery thread (requests, acks,
//   errors from the receiver: UploadFiles and ProcessFileUploadData are
//   called there), the engine's main looper (data hand-off), the engine's
//   upload worker, and an acknowledgement pump thread of its own (with a
//   bandwidth limit the only thread that calls NotifyUpload, because
//   NotifyUpload can then block for a whole bandwidth delay; without one,
//   an acknowledgement or a window boundary releases the worker directly
//   from the delivery thread or the hand-off, and the pump only repeats
//   the release and nudges; it also starts a file accepted while the one
//   before it was streaming when the hand-off could not, and stops the
//   engine once the session is over, so Cancel() is safe from inside
//   observer callbacks).
// - Engine operations are never called with the endpoint's lock held, and
//   never from the engine's own listener callbacks, with one exception:
//   when the data hand-off (onSendFileData, main looper) sees the last
//   piece of a file it starts the next accepted one there
//   (ProcessFileUploadData takes only the engine's task lock, which the
//   hand-off never holds); it only tries the endpoint's engine lock and
//   leaves the start to the pump when that is busy.
// - The destructor cancels a running session, closes the transport, then
//   destroys the engine (the listener outlives it). Never destroy the
//   endpoint from one of its observer's callbacks.
//
// ENGINE CONTRACTS this endpoint honours
// - List: the engine's enumeration (getTotalSize) skips hidden entries and
//   never lists directories, and ValidateFileList leaves top-level
//   directories as entries with their files in `expanded`. To copy like
//   `cp -r` (hidden files and empty directories included) the endpoint
//   builds the list itself, directories before their children: for each
//   entry sourceDir = the copied root's parent, filePath = the relative
//   sub-directory ("" at the top), fileName = the last component,
//   attribute 0x10 (directory) or 0x80 (file), fileSize (a directory: the
//   sum beneath it) and mode = the permission bits from stat (the engine's
//   enumeration leaves mode 0). Symbolic links are followed; anything that
//   is neither a file nor a directory is refused by Offer.
// - Names: UploadFiles announces destFilePath + "/" + destFileName (or
//   destFileName alone), so every entry gets destFilePath = filePath and
//   destFileName = fileName: the announced name is then the request name
//   the receiver's engine matches its records and marker tasks against.
// - Upload list: UploadFiles erases the front entry of the engine's list,
//   which costs time linear in the list's length, so the engine holds the
//   list in slices of 64 entries refilled with TriggerLocalCopy; the JSON
//   list (SendFileDesc) is taken once, from the whole list, by Offer.
// - Order: UploadFiles always takes the FRONT of the upload list, whatever
//   task id it is given; the receiver requests entries in list order, one
//   request per entry, and the endpoint checks the announced name against
//   the one requested. A request may pass over entries the receiver will
//   not take (each refused first with an EntryRefused naming the rule):
//   the engine is then handed a fresh slice starting at the requested
//   entry (TriggerLocalCopy replaces the upload list and leaves the
//   transfers in flight alone). Passed-over entries are not a failure of
//   the sender: they are reported to the observer (OnEntrySkipped) and in
//   the summary (`skipped`; the session then ends `partial`, not
//   `completed`). A request for an entry already announced or passed
//   over, for one the receiver refused, or beyond the list ends the
//   session with a TransferError; a refusal of an entry that is not ahead
//   in the list is ignored. Requests may come ahead of the file streaming now:
//   each is announced at once, but files stream one at a time, in list
//   order (the worker's window count and flags are shared by all
//   workers): ProcessFileUploadData for an accepted file waits until the
//   data of the file before it has all been handed off.
// - Transfer ids: this engine draws odd ids (3, 5, ...); they travel as
//   they are; the receiver maps them to even ones.
// - Directories: never ProcessFileUploadData for a directory (its worker
//   would try to read it); the announcement alone creates it remotely.
//   A 0-byte file gets exactly one onSendFileData(null, 0), sent as an
//   empty FileData.
// - Window: the worker waits (up to 30 s, then QUITS and drops the upload
//   list silently) whenever its unacknowledged-chunk count EQUALS the
//   window; the count resets after each wait and at the end of each file;
//   the acknowledged flag is CLEARED when a wait begins, so an
//   acknowledgement that arrives before the wait is lost; NotifyUpload is
//   ignored while IsUploading() is false; window 0 waits before the first
//   chunk. So the window travels in FileStart and the receiver
//   acknowledges every `window` written chunks (and once at accept for
//   window 0). The worker pauses after every `window` chunks handed out;
//   the pump releases it once the receiver has written all but the last
//   window (window 0: once acknowledged), so the receiver still has a
//   window of data to write while the acknowledgement travels, and at
//   most two windows are unwritten. A release is repeated at a short
//   interval until the worker's next chunk is seen (one that beats the
//   worker into its wait is lost); since the data trails the worker, each
//   release is checked against the chunks the worker has really read
//   (counted through the rate limiter the endpoint gives the engine) and
//   the worker cannot read on while it is sent. As a safety net against a skewed count
//   (the count is shared with the previous file's worker), the pump also
//   nudges a transfer that has sent nothing for a while although the same
//   rule would let it go.
// - Bandwidth: with bandwidthKbps set, a TokenBucketRateLimiter is given to
//   the engine and flow control is switched on; the engine's own delays
//   floor to whole milliseconds, the bucket corrects the rate.
// - Failures: the engine reports a failed upload as onClipboardRelease,
//   onFileTransferFailed(taskId, transferId, 1), onReportEvent; a missing
//   source file at UploadFiles as onFileTransferFailed(taskId, 0, 1) with
//   the entry left at the front; remote errors reach the engine through
//   ProcessXferError (result 3 for an upload), a lost link through
//   ProcessTansferDisconnect (0xFFFFFFFF, 0, 1). Each is reported once to
//   the observer and to the receiver (TransferError naming the path) and
//   ends the session.
// - Threads: the listener is called on the engine's loopers (data on the
//   main looper) and on the caller's thread; it only queues messages and
//   updates counters. The engine is never destroyed from its own callbacks
//   or loopers, and the listener outlives it. Teardown calls Cancel()
//   (ClearTask) on the engine.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "xferfm/host/TransferObserver.h"
#include "xferfm/host/Transport.h"

namespace orin::xfer::host {

struct SenderOptions {
    uint32_t ackWindow = 50;       // chunks between pauses; at most two windows are unwritten
    uint32_t bandwidthKbps = 0;    // 0: unlimited; otherwise a token bucket at this rate
    bool flowControl = false;      // forced on when bandwidthKbps is set
    // Re-sending of a release until the worker moves on.
    std::chrono::microseconds renotifyInterval{200};
    // A transfer silent this long with window room left gets nudged (a
    // worker whose shared count the previous file's worker skewed).
    std::chrono::milliseconds idleNudgeAfter{2};
    SenderObserver* observer = nullptr;  // not owned; may be null
};

class SenderEndpoint final {
public:
    // Starts the transport. The endpoint owns it from now on.
    SenderEndpoint(std::unique_ptr<ITransport> transport, SenderOptions options = {});
    ~SenderEndpoint();
    SenderEndpoint(const SenderEndpoint&) = delete;
    SenderEndpoint& operator=(const SenderEndpoint&) = delete;

    // Describes the local paths (files or directories, copied with their
    // contents) and offers them: the JSON list goes out as soon as the
    // receiver has asked for it. False with `error` naming the path when a
    // path cannot be offered; nothing is offered then.
    bool Offer(const std::vector<std::string>& paths, std::string& error);

    // True once the session has ended (completed, failed or cancelled).
    bool WaitFinished(std::chrono::milliseconds timeout);
    bool Finished() const;
    void Cancel();
    TransferSummary Summary() const;

private:
    class Impl;
    std::unique_ptr<Impl> mImpl;
};

}  // namespace orin::xfer::host
