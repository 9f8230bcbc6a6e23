// The receiving end of a copy: asks a SenderEndpoint for its list and
// brings every entry into a destination directory through its own engine,
// like `cp -r SOURCE... DEST_DIR`.
//
// Usage: construct with a transport end and options, Start(), then
// WaitFinished. One endpoint serves one session (one list).
//
// What lands where: each entry goes to destinationDir + "/" + its relative
// path. A top-level name that already exists is never overwritten: the
// entry gets the engine's duplicate name ("name(1).ext", "dir(1)") and its
// children follow it. Files are received into a private cache directory
// (".xferfm-cache-XXXXXX" inside destinationDir, so on the same
// filesystem), checked for their full size and moved to their final name
// with a rename that refuses to replace anything; a file that fails is
// never visible under a final name. Permission bits from the list's "mode"
// are applied to files when they land and to directories at the end
// (children first), so read-only directories still receive their content.
//
// THREADING CONTRACT
// - Public operations may be called from any host thread; Start once.
// - The endpoint runs on: the transport's delivery thread (file list,
//   announcements and data: ProcessFileDownloadStart and
//   ProcessFileDownloadData are called there; with an in-process link that
//   delivers data inline, data arrive on the sender's hand-off thread
//   instead), a session thread of its own (walks the list, moves files,
//   calls RequestFile for every file but the first, decides success or
//   failure), a request thread of its own (the first file's RequestFile,
//   the only call that blocks) and the engine's loopers (write progress
//   and completion).
// - Engine operations are never called with the endpoint's lock held, and
//   never from the engine's own listener callbacks. The calls of the
//   delivery thread and of the session thread are serialised by an input
//   lock, because the engine's lists and flags behind them are unguarded.
// - The destructor cancels a running session, closes the transport,
//   releases the request thread, destroys the engine and removes the cache
//   directory. Never destroy the endpoint from an observer callback.
//
// ENGINE CONTRACTS this endpoint honours
// - Transfer ids: the sending engine draws odd ids; this engine treats
//   every even id as a download and every odd one as an upload, so the
//   receiver uses sender id + 1. Id 0 is never used here (RequestFile's
//   marker tasks carry transferId 0).
// - Order and names: the sender's UploadFiles takes the FRONT of its list,
//   so entries are requested in list order, one request per entry. The
//   announced name is the request name (filePath + "/" + fileName) and is
//   passed as fileName to ProcessFileDownloadStart, so it matches the
//   pending entry pushed with PushDownloadFile and RequestFile's marker.
// - Pipelining: entries are requested up to 32 ahead of the oldest one not
//   yet in place (in bursts, refilled at half that), and put in place
//   strictly in list order, in batches (the session thread wakes once 8
//   are complete, or when everything requested is). The sender streams one file at a time, so
//   files arrive, are written and complete in list order too.
// - RequestFile(file, false) blocks until ANY download completes or the
//   writer is stopped; the first one of a paste wipes the cache directory
//   and posts onRequestFile on the main looper; when the pending list
//   becomes empty it stops the writer (dropping every download task and
//   every queued chunk). Hence:
//   * the first file of the list goes alone: everything before it is in
//     place, its RequestFile runs on the request thread, and the request
//     goes to the sender only once the marker file exists in the cache and
//     a lock barrier through the engine (a data call for an id no task
//     has) has proved that RequestFile waits; nothing else is requested
//     until it is in place. Otherwise the wipe could delete a file being
//     received;
//   * every later file is complete (and its size checked) before its
//     RequestFile runs, on the session thread: the call finds the file in
//     the cache and returns at once ("direct copy");
//   * a file is pushed to the pending list just before its RequestFile,
//     together with the next file already requested, so the list only
//     empties (and the writer is only replaced) when nothing else is in
//     flight, and RequestFile's walk of the list stays two entries long.
//     The record list is kept empty: its walk on every announcement would
//     grow with the list, and the endpoint reports no records.
// - A directory entry is never requested with RequestFile (it would create
//   a plain file of that name in the cache and wait): its announcement goes
//   to ProcessFileDownloadStart(isDir = true), which mkdirs in the cache and
//   reports completion at once without waking any RequestFile; the endpoint
//   then creates the directory at its destination. The list must carry
//   each directory before its children.
// - A 0-byte file completes only when its 0-length data message arrives.
// - Acknowledgements: the engine's onFileDataAck fires every 50th data
//   message, which only matches a window of 50; it is ignored. Instead the
//   endpoint acknowledges every `ackWindow` chunks WRITTEN (counted from
//   onFileTransferProgress on the writer looper), so the sender's window
//   bounds the data in memory end to end; a window of 0 is acknowledged
//   once at accept. The window bounds each file on its own, so across
//   files the accept is the brake: a file is accepted (FileAccept, which
//   lets the sender stream it) only while the files accepted before it
//   still have at most 4 MiB to write, or nothing at all.
// - Failures: the engine reports a local failure as onClipboardRelease,
//   onFileTransferFailed(taskId, transferId, 1), onReportEvent. A write
//   failure replaces the writer and drops every download task, which also
//   releases a blocked RequestFile: the session then fails cleanly. A
//   write error the stream only sees when closing is caught by checking
//   the cached file's size before the move. Remote errors arrive as
//   TransferError, a lost link as OnTransportClosed
//   (ProcessTansferDisconnect); a silent sender fails the session after
//   `stallTimeout`.
// - Teardown: the engine's Cancel()/ClearTask touch the task list without
//   its lock, so before calling Cancel the endpoint stops feeding the
//   engine, waits until the engine's loopers hold no job (its looper
//   factory counts them) and until a RequestFile that a completion or a
//   writer failure has woken has returned; Cancel then releases a
//   RequestFile still waiting. The listener outlives the engine, which is
//   never destroyed from its own callbacks or loopers. The cache directory
//   is removed on every exit path.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

#include "xferfm/host/FileList.h"
#include "xferfm/host/TransferObserver.h"
#include "xferfm/host/Transport.h"

namespace orin::xfer::host {

struct ReceiverOptions {
    std::string destinationDir;  // must exist
    // A sender silent this long during a transfer fails the session.
    std::chrono::milliseconds stallTimeout{45000};
    FileListLimits listLimits;
    ReceiverObserver* observer = nullptr;  // not owned; may be null
};

class ReceiverEndpoint final {
public:
    // Starts the transport. The endpoint owns it from now on.
    ReceiverEndpoint(std::unique_ptr<ITransport> transport, ReceiverOptions options);
    ~ReceiverEndpoint();
    ReceiverEndpoint(const ReceiverEndpoint&) = delete;
    ReceiverEndpoint& operator=(const ReceiverEndpoint&) = delete;

    // Creates the cache directory and asks the sender for its list. False
    // with `error` set when the destination cannot be used.
    bool Start(std::string& error);

    // True once the session has ended (completed, failed or cancelled).
    bool WaitFinished(std::chrono::milliseconds timeout);
    bool Finished() const;
    void Cancel();
    TransferSummary Summary() const;

    // The private cache directory ("" before Start).
    std::string CacheDirectory() const;

private:
    class Impl;
    std::unique_ptr<Impl> mImpl;
};

}  // namespace orin::xfer::host
