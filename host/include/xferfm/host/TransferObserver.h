// What a host (a command-line tool's progress bar and summary) hears from
// the endpoints of a copy.
//
// THREADING CONTRACT: an endpoint never calls its observer concurrently
// (calls are serialised by the endpoint), but they come from several of its
// threads: the session thread, the transport's delivery thread and the
// engine's writer looper. Callbacks must be quick and must not block on
// the endpoint; calling the endpoint's Cancel() from one is allowed,
// destroying the endpoint from one is not. The observer must outlive the
// endpoint.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace orin::xfer::host {

// An entry of the list that was not copied because the receiving side
// would not take it; the session went on with the rest of the list.
struct SkippedEntry {
    std::string path;    // the sender's source path of the entry
    std::string reason;  // the receiver's words (escape them before printing)
};

struct TransferSummary {
    bool completed = false;  // every entry of the list arrived
    bool cancelled = false;  // Cancel() was called on this end or the peer's
    // The session ran to its end but `skipped` entries were not copied:
    // not `completed`, and `error` names them. Set by the sender; on the
    // receiving side the entries a RemoteNameGuardTransport refuses never
    // reach the endpoint, and the guard reports them to the host.
    bool partial = false;
    std::vector<SkippedEntry> skipped;  // in list order
    size_t entriesTotal = 0;
    size_t filesDone = 0;
    size_t directoriesDone = 0;
    uint64_t bytesTotal = 0;
    uint64_t bytesDone = 0;
    std::string error;  // the first failure, naming its path; empty on success
    // Receiving side with name rules (ReceiverOptions::names), decided when
    // the list arrived: the entries refused for their names (left out;
    // `completed` still tells whether the rest all arrived), with the
    // request name as `path`, and the entries landed under a mapped name:
    // (request name, mapped request name), in list order.
    std::vector<SkippedEntry> namesRefused;
    std::vector<std::pair<std::string, std::string>> namesMapped;
};

class ReceiverObserver {
public:
    virtual ~ReceiverObserver() = default;
    // The sender's list was accepted.
    virtual void OnListReceived(size_t entryCount, uint64_t totalBytes)
    {
        (void)entryCount, (void)totalBytes;
    }
    // With name rules, when the list arrives (all of these before the first
    // OnFileStarted): an entry left out for its name, `reason` naming the
    // entry and the rule; `index` counts in the list the endpoint received.
    virtual void OnNameRefused(size_t index, const std::string& name, const std::string& reason)
    {
        (void)index, (void)name, (void)reason;
    }
    // ... and an entry that lands under `mapped` (its request name with the
    // entry's own last component mapped, and its parents' as they land).
    virtual void OnNameMapped(const std::string& name, const std::string& mapped) { (void)name, (void)mapped; }
    // A file is about to be requested; `name` is its path relative to the
    // destination as the sender names it.
    virtual void OnFileStarted(const std::string& name, uint64_t fileSize) { (void)name, (void)fileSize; }
    // Bytes of the current file written so far, and of the whole copy.
    virtual void OnProgress(const std::string& name, uint64_t fileBytesDone, uint64_t fileSize,
                            uint64_t totalBytesDone, uint64_t totalBytes)
    {
        (void)name, (void)fileBytesDone, (void)fileSize, (void)totalBytesDone, (void)totalBytes;
    }
    // A file is complete under its final path.
    virtual void OnFileCompleted(const std::string& name, const std::string& finalPath)
    {
        (void)name, (void)finalPath;
    }
    // A directory exists under its final path.
    virtual void OnDirectoryCreated(const std::string& name, const std::string& finalPath)
    {
        (void)name, (void)finalPath;
    }
    // The copy failed; reported once. `path` is the file or directory
    // concerned (empty when none is).
    virtual void OnFailure(const std::string& path, const std::string& message) { (void)path, (void)message; }
    // Last call, on every exit path.
    virtual void OnFinished(const TransferSummary& summary) { (void)summary; }
};

class SenderObserver {
public:
    virtual ~SenderObserver() = default;
    virtual void OnFileStarted(const std::string& sourcePath, uint64_t fileSize)
    {
        (void)sourcePath, (void)fileSize;
    }
    virtual void OnBytesSent(uint64_t totalBytesSent) { (void)totalBytesSent; }
    // An entry will not be sent: the receiver refused it (or passed over
    // it). Not a failure of the sender; the rest of the list goes on.
    virtual void OnEntrySkipped(const std::string& sourcePath, const std::string& reason)
    {
        (void)sourcePath, (void)reason;
    }
    // Resuming over a network link (NetworkSender): the receiver has this
    // entry complete already and keeps it; it is not sent, and not skipped.
    virtual void OnEntryKept(const std::string& sourcePath) { (void)sourcePath; }
    virtual void OnFailure(const std::string& path, const std::string& message) { (void)path, (void)message; }
    virtual void OnFinished(const TransferSummary& summary) { (void)summary; }
};

}  // namespace orin::xfer::host
