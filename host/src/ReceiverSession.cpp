// The session thread of the receiving endpoint: walks the list, requests
// entries, settles them in list order through FileLanding, and ends the
// session.
//
// ENGINE CONTRACTS honoured here (the first file's wait is RequestGate's)
// - Pipelining: entries are requested ahead of the oldest one not yet in
//   place, as far as RequestAhead sizes the window from the measured pace
//   and request-to-completion delay (in bursts, refilled at half the
//   window), and put in place
//   strictly in list order, in batches (the session thread wakes once 8
//   are complete, or when everything requested is). The sender streams
//   one file at a time, so files arrive, are written and complete in list
//   order too.
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
//     received, and its waking would empty the pending list and replace
//     the writer under the files in flight. It also keeps a failure of the
//     second file (its source gone, say) from ending the session before
//     the first is in place. This costs about two round trips a session;
//     then the window fills;
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
#include "ReceiverEndpointImpl.h"

#include <sys/types.h>

#include "HostLog.h"

namespace orin::xfer::host {

using detail::LandingResult;
using detail::ReceiverState;
using detail::RequestStart;

namespace {

FileDescription describe(const FileListEntry& entry)
{
    FileDescription description;
    description.filePath = entry.filePath;
    description.fileName = entry.fileName;
    description.destFilePath = entry.filePath;
    description.destFileName = entry.fileName;
    description.attribute = kAttributeNormal;
    description.mode = entry.mode;
    description.fileSize = entry.fileSize;
    return description;
}

}  // namespace

// Entries are requested up to the window ahead of the oldest unsettled
// one and settled strictly in list order, so a directory always exists
// before its children move in. The first file of the list is the
// exception: its RequestFile wipes the cache, so it goes alone, with
// nothing else in flight.
void ReceiverEndpoint::Impl::runSession()
{
    bool ok = waitUntil([this] { return mList != nullptr; }, false);
    std::shared_ptr<const ParsedFileList> shared;  // the one copy: the session reads it in place
    if (ok) {
        std::lock_guard<std::mutex> lock(mMutex);
        shared = mList;
        mState.SetState(ReceiverState::Receiving, "the list arrived");
    }
    static const ParsedFileList kNone;
    const ParsedFileList& list = shared ? *shared : kNone;
    const size_t count = list.entries.size();
    size_t next = 0;
    size_t settled = 0;
    size_t firstFile = count;
    size_t window = 0;
    while (ok && settled < count) {
        const size_t previousWindow = window;
        window = mAhead.Window();
        if (window != previousWindow && mAhead.Delay()) {
            HOST_LOG_D << "request window: " << window << " entries (request to completion "
                       << std::chrono::duration_cast<std::chrono::microseconds>(*mAhead.Delay()).count() << " us)";
        }
        // Requests go out in bursts (refilled at half the window), so the
        // threads on their way wake once per burst rather than per entry.
        const bool refill = next - settled <= window / 2;
        while (ok && refill && next < count && next - settled < window) {
            const FileListEntry& entry = list.entries[next];
            if (!entry.isDirectory && !mGate->FirstPosted()) {
                if (next != settled) {
                    break;  // the first file waits until everything before it is settled
                }
                firstFile = next;
                ok = requestFirstFile(next, entry);
                ++next;
                break;
            }
            requestEntry(next, entry);
            ++next;
        }
        ok = ok && settleOldest(list.entries[settled], settled == firstFile);
        ++settled;
    }
    if (!ok && shared) {
        landCompletedFront(list);
    }
    conclude(ok);
}

// After a failure or a stop, the entries already complete at the front of
// the list are put in place as usual, so what arrived before stays. The
// engine is aborted next, so their RequestFile is skipped. Nothing is
// retried after an entry that could not be put in place.
void ReceiverEndpoint::Impl::landCompletedFront(const ParsedFileList& list)
{
    while (!mLandingFailed) {
        size_t index = 0;
        uint64_t expected = 0;
        {
            std::lock_guard<std::mutex> lock(mMutex);
            if (mSlots.Empty() || !mSlots.Front().completed || mSlots.Front().index >= list.entries.size()) {
                return;
            }
            index = mSlots.Front().index;
            expected = mSlots.Front().fileSize;
        }
        const FileListEntry& entry = list.entries[index];
        if (!(entry.isDirectory ? settleDirectory(entry) : settleFile(entry, expected, true))) {
            return;
        }
        std::lock_guard<std::mutex> lock(mMutex);
        mSlots.PopFront();
    }
}

void ReceiverEndpoint::Impl::requestEntry(size_t index, const FileListEntry& entry)
{
    if (!entry.isDirectory) {
        mObserver.Notify([&](ReceiverObserver& observer) { observer.OnFileStarted(entry.RequestName(), entry.fileSize); });
    }
    sendRequest(index, entry);
}

bool ReceiverEndpoint::Impl::requestFirstFile(size_t index, const FileListEntry& entry)
{
    const std::string name = entry.RequestName();
    pushPending(index, entry);
    mGate->PostFirst(describe(entry), mLanding.CachedPathOf(entry));
    const std::string path = mLanding.Destination() + "/" + name;
    switch (mGate->AwaitWaiting([this] { return stopping(); })) {
    case RequestStart::Waiting:
        break;
    case RequestStart::Refused:
        fail(path, path + ": the engine refused the request", false);  // unless its own failure came first
        break;
    case RequestStart::NotStarted:
        fail(path, "the engine did not start the request for " + name, false);
        return false;
    case RequestStart::Stopped:
        return false;
    }
    if (stopping()) {
        return false;
    }
    mObserver.Notify([&](ReceiverObserver& observer) { observer.OnFileStarted(name, entry.fileSize); });
    sendRequest(index, entry);
    return true;
}

void ReceiverEndpoint::Impl::sendRequest(size_t index, const FileListEntry& entry)
{
    NextFileRequest request;
    request.taskId = static_cast<uint32_t>(index + 1);
    request.index = index;
    request.name = entry.RequestName();
    {
        std::lock_guard<std::mutex> lock(mMutex);
        mSlots.Add(index, request.taskId, request.name, entry.isDirectory, entry.fileSize);
        if (index < mOfferedIndex.size()) {
            request.index = mOfferedIndex[index];  // entries refused for their names are passed over
        }
        request.totalSize = mList->totalFileBytes;
        mLastActivity = Clock::now();
    }
    mTransport->Send(std::move(request));
}

// The engine's pending list decides when its writer is replaced: the
// RequestFile that empties it stops the writer and drops every download
// task. So an entry is pushed just before its own RequestFile, together
// with the next file already requested: the list then empties only when
// nothing else is in flight, and RequestFile's walk of it stays short.
// The record list is kept empty (its walk on every announcement would
// grow with the list; the endpoint reports no records).
void ReceiverEndpoint::Impl::pushPending(size_t index, const FileListEntry& entry)
{
    if (index < mPushedThrough) {
        return;
    }
    std::lock_guard<std::mutex> input(mEngineInputMutex);
    mManager->PushDownloadFile(describe(entry));
    mManager->ClearDownloadFileRecordList();
    mPushedThrough = index + 1;
}

bool ReceiverEndpoint::Impl::settleOldest(const FileListEntry& entry, bool firstFile)
{
    const bool done = waitUntil(
        [this, firstFile] { return !mSlots.Empty() && mSlots.Front().completed && (!firstFile || mGate->Returned()); },
        true);
    if (!done) {
        return false;
    }
    uint64_t expected = 0;
    Clock::time_point requestedAt;
    {
        std::lock_guard<std::mutex> lock(mMutex);
        expected = mSlots.Front().fileSize;  // as announced: the file may have changed since it was listed
        requestedAt = mSlots.Front().requestedAt;
    }
    // The pace counts from the first file on: up to it, entries go alone.
    if (!firstFile && mGate->FirstPosted()) {
        const Clock::time_point now = Clock::now();
        mAhead.Settled(now, now - requestedAt);
    }
    const bool ok = entry.isDirectory ? settleDirectory(entry) : settleFile(entry, expected, firstFile);
    if (ok) {
        std::lock_guard<std::mutex> lock(mMutex);
        mSlots.PopFront();
    }
    return ok;
}

bool ReceiverEndpoint::Impl::settleDirectory(const FileListEntry& entry)
{
    const LandingResult landed = mLanding.LandDirectory(entry);
    if (!landed.landed) {
        mLandingFailed = true;
        fail(landed.failurePath, landed.failureMessage, false);
        return false;
    }
    {
        std::lock_guard<std::mutex> lock(mMutex);
        ++mState.Summary().directoriesDone;
    }
    const std::string name = entry.RequestName();
    mObserver.Notify([&](ReceiverObserver& observer) { observer.OnDirectoryCreated(name, landed.finalPath); });
    return true;
}

// A later file is complete before its RequestFile runs, so that call finds
// it in the cache and returns at once ("direct copy"); it is made only
// after the size check, because a file the engine could not create would
// make RequestFile register a marker and wait.
bool ReceiverEndpoint::Impl::settleFile(const FileListEntry& entry, uint64_t expected, bool firstFile)
{
    mode_t cachedMode = 0;
    const LandingResult checked = mLanding.CheckCachedFile(entry, expected, cachedMode);
    if (!checked.landed) {
        mLandingFailed = true;
        fail(checked.failurePath, checked.failureMessage, false);
        return false;
    }
    if (!firstFile) {
        size_t index = 0;
        std::optional<std::pair<size_t, FileListEntry>> nextFile;
        {
            std::lock_guard<std::mutex> lock(mMutex);
            index = mSlots.Front().index;
            if (const std::optional<size_t> nextIndex = mSlots.NextFileAfterFront()) {
                nextFile.emplace(*nextIndex, mList->entries[*nextIndex]);
            }
        }
        pushPending(index, entry);
        if (nextFile) {
            pushPending(nextFile->first, nextFile->second);
        }
        std::lock_guard<std::mutex> input(mEngineInputMutex);
        if (mAborting) {
            return false;
        }
        mManager->RequestFile(describe(entry), false);
    }
    const LandingResult landed = mLanding.LandFile(entry, cachedMode);
    if (!landed.landed) {
        mLandingFailed = true;
        fail(landed.failurePath, landed.failureMessage, false);
        return false;
    }
    {
        std::lock_guard<std::mutex> lock(mMutex);
        ++mState.Summary().filesDone;
        mState.Summary().bytesDone += expected;
    }
    const std::string name = entry.RequestName();
    mObserver.Notify([&](ReceiverObserver& observer) { observer.OnFileCompleted(name, landed.finalPath); });
    return true;
}

void ReceiverEndpoint::Impl::conclude(bool ok)
{
    {
        std::lock_guard<std::mutex> lock(mMutex);
        const char* why = ok ? "every entry is in place"
                             : mState.Failure() ? "the session failed" : "the session was cancelled";
        mState.SetState(ReceiverState::Finishing, why);
    }
    if (!ok) {
        abortEngine();
    }
    mLanding.ApplyDirectoryModes();
    mLanding.RemoveCache();

    TransferSummary summary;
    std::string failurePath;
    std::string failureMessage;
    bool fromPeer = false;
    bool failedHere = false;
    bool cancelRequested = false;
    uint32_t taskId = 0;
    uint32_t senderId = 0;
    {
        std::lock_guard<std::mutex> lock(mMutex);
        const std::optional<detail::ReceiverFailure>& failure = mState.Failure();
        failedHere = failure.has_value();
        cancelRequested = mState.CancelRequested();
        TransferSummary& outcome = mState.Summary();
        if (ok) {
            outcome.completed = true;
        } else {
            outcome.cancelled = cancelRequested || mState.PeerCancelled();
            outcome.error = failure ? failure->message : "cancelled";
        }
        if (failure) {
            failurePath = failure->path;
            fromPeer = failure->fromPeer;
        }
        failureMessage = outcome.error;
        if (!mSlots.Empty()) {
            taskId = mSlots.Front().taskId;
            senderId = mSlots.Front().senderId;
        }
        mSlots.Clear();  // late engine callbacks find nothing to report
        summary = outcome;
    }
    if (ok) {
        mTransport->Send(Disconnect{true, ""});
    } else if (cancelRequested && !failedHere) {
        mTransport->Send(CancelledDisconnect());
    } else {
        if (!fromPeer) {
            mTransport->Send(TransferError{taskId, senderId, failureMessage});
        }
        mTransport->Send(Disconnect{false, failureMessage});
    }
    if (!ok && failedHere) {
        HOST_LOG_W << "copy failed: " << failureMessage;
        mObserver.Notify([&](ReceiverObserver& observer) { observer.OnFailure(failurePath, failureMessage); });
    }
    // OnFinished before the state says Finished: a host that returns from
    // WaitFinished has heard everything its observer will hear.
    mObserver.NotifyLast([&](ReceiverObserver& observer) { observer.OnFinished(summary); });
    {
        std::lock_guard<std::mutex> lock(mMutex);
        mState.SetState(ReceiverState::Finished, ok ? "completed" : "ended early");
    }
    mChanged.notify_all();
}

void ReceiverEndpoint::Impl::abortEngine()
{
    {
        std::lock_guard<std::mutex> input(mEngineInputMutex);
        mAborting = true;
    }
    mGate->CancelEngine(*mEngineJobs);
}

}  // namespace orin::xfer::host
