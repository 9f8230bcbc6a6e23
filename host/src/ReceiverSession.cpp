#include "ReceiverEndpointImpl.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "DestinationFiles.h"

namespace orin::xfer::host {

using namespace receiver;

namespace {

std::string errorText(int error)
{
    return std::strerror(error);
}

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

// Entries are requested up to kRequestAhead ahead of the oldest unsettled
// one and settled strictly in list order, so a directory always exists
// before its children move in. The first file of the list is the
// exception: its RequestFile wipes the cache, so it goes alone, with
// nothing else in flight.
void ReceiverEndpoint::Impl::runSession()
{
    bool ok = waitUntil([this] { return mListReady; }, false);
    ParsedFileList list;
    if (ok) {
        std::lock_guard<std::mutex> lock(mMutex);
        list = mList;
    }
    const size_t count = list.entries.size();
    size_t next = 0;
    size_t settled = 0;
    size_t firstFile = count;
    while (ok && settled < count) {
        // Requests go out in bursts (refilled at half the window), so the
        // threads on their way wake once per burst rather than per entry.
        const bool refill = next - settled <= kRequestAhead / 2;
        while (ok && refill && next < count && next - settled < kRequestAhead) {
            const FileListEntry& entry = list.entries[next];
            if (!entry.isDirectory && !mCacheWiped) {
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
    conclude(ok);
}

void ReceiverEndpoint::Impl::requestEntry(size_t index, const FileListEntry& entry)
{
    if (!entry.isDirectory) {
        notifyObserver([&](ReceiverObserver& observer) { observer.OnFileStarted(entry.RequestName(), entry.fileSize); });
    }
    sendRequest(index, entry);
}

bool ReceiverEndpoint::Impl::requestFirstFile(size_t index, const FileListEntry& entry)
{
    const std::string name = entry.RequestName();
    pushPending(index, entry);
    {
        std::lock_guard<std::mutex> lock(mMutex);
        mRequestMarker = name;
    }
    postRequest(describe(entry));
    mCacheWiped = true;
    if (!waitForRequestToWait(name)) {
        return false;
    }
    notifyObserver([&](ReceiverObserver& observer) { observer.OnFileStarted(name, entry.fileSize); });
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
        Slot slot;
        slot.index = index;
        slot.taskId = request.taskId;
        slot.name = request.name;
        slot.isDirectory = entry.isDirectory;
        slot.fileSize = entry.fileSize;
        mSlots.push_back(std::move(slot));
        request.totalSize = mList.totalFileBytes;
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
        [this, firstFile] {
            return !mSlots.empty() && mSlots.front().completed && (!firstFile || mRequestsPosted == mRequestsReturned);
        },
        true);
    if (!done) {
        return false;
    }
    uint64_t expected = 0;
    {
        std::lock_guard<std::mutex> lock(mMutex);
        expected = mSlots.front().fileSize;  // as announced: the file may have changed since it was listed
    }
    const bool ok = entry.isDirectory ? settleDirectory(entry) : settleFile(entry, expected, firstFile);
    if (ok) {
        std::lock_guard<std::mutex> lock(mMutex);
        mSlots.pop_front();
    }
    return ok;
}

bool ReceiverEndpoint::Impl::settleDirectory(const FileListEntry& entry)
{
    const std::string name = entry.RequestName();
    const mode_t createMode = entry.mode != 0 ? 0700 : 0777;
    std::string finalPath;
    int error = 0;
    if (entry.filePath.empty()) {
        error = detail::ClaimName(
            mDestination, entry.fileName, true, proposer(),
            [createMode](const std::string& path) { return detail::MakeDirectory(path, createMode); }, finalPath);
    } else {
        finalPath = finalParentOf(entry) + "/" + entry.fileName;
        error = detail::MakeDirectory(finalPath, createMode);
    }
    if (error != 0) {
        const std::string path = finalPath.empty() ? mDestination + "/" + name : finalPath;
        fail(path, path + ": " + errorText(error), false);
        return false;
    }
    {
        std::lock_guard<std::mutex> lock(mMutex);
        mFinalDirectories[name] = finalPath;
        if (entry.mode != 0) {
            mDirectoryModes.emplace_back(finalPath, entry.mode);
        }
        ++mSummary.directoriesDone;
    }
    notifyObserver([&](ReceiverObserver& observer) { observer.OnDirectoryCreated(name, finalPath); });
    return true;
}

// A later file is complete before its RequestFile runs, so that call finds
// it in the cache and returns at once ("direct copy"); it is made only
// after the size check, because a file the engine could not create would
// make RequestFile register a marker and wait.
bool ReceiverEndpoint::Impl::settleFile(const FileListEntry& entry, uint64_t expected, bool firstFile)
{
    const std::string cached = CacheDirectory() + "/" + entry.RequestName();
    mode_t cachedMode = 0;
    if (!checkCachedFile(entry, cached, expected, cachedMode)) {
        return false;
    }
    if (!firstFile) {
        size_t index = 0;
        std::optional<std::pair<size_t, FileListEntry>> nextFile;
        {
            std::lock_guard<std::mutex> lock(mMutex);
            index = mSlots.front().index;
            for (const Slot& slot : mSlots) {
                if (slot.index > index && !slot.isDirectory) {
                    nextFile.emplace(slot.index, mList.entries[slot.index]);
                    break;
                }
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
    return landFile(entry, cached, expected, cachedMode);
}

void ReceiverEndpoint::Impl::postRequest(const FileDescription& description)
{
    {
        std::lock_guard<std::mutex> lock(mMutex);
        ++mRequestsPosted;
        mWriterEventsAtRequest = mWriterEvents;
    }
    mRequestLooper->Post("RequestFile", [this, description] {
        mManager->RequestFile(description, false);  // blocks until written or stopped
        {
            std::lock_guard<std::mutex> lock(mMutex);
            ++mRequestsReturned;
        }
        wakeSession();
    });
}

bool ReceiverEndpoint::Impl::waitForRequestToWait(const std::string& name)
{
    const std::string marker = CacheDirectory() + "/" + name;
    const auto deadline = Clock::now() + kRequestStartLimit;
    auto pause = std::chrono::microseconds(20);
    while (true) {
        if (access(marker.c_str(), F_OK) == 0) {
            break;
        }
        {
            std::lock_guard<std::mutex> lock(mMutex);
            if (mFailed || mCancelRequested) {
                return false;
            }
            if (mRequestsPosted == mRequestsReturned) {
                break;  // RequestFile gave up; its failure was reported
            }
        }
        if (Clock::now() > deadline) {
            fail(mDestination + "/" + name, "the engine did not start the request for " + name, false);
            return false;
        }
        std::this_thread::sleep_for(pause);
        pause = std::min(pause * 2, std::chrono::microseconds(1000));
    }
    lockBarrier();
    std::lock_guard<std::mutex> lock(mMutex);
    if (mRequestsPosted == mRequestsReturned && !mFailed) {
        mFailed = true;
        mFailurePath = mDestination + "/" + name;
        mFailureMessage = mFailurePath + ": the engine refused the request";
    }
    return !mFailed && !mCancelRequested;
}

void ReceiverEndpoint::Impl::lockBarrier()
{
    mManager->ProcessFileDownloadData(kNoTransferId, kNoTransferId, 0, nullptr);
}

// A write error the stream only meets when it is closed leaves a short
// file behind without a report: the size tells.
bool ReceiverEndpoint::Impl::checkCachedFile(const FileListEntry& entry, const std::string& cached, uint64_t expected,
                                             mode_t& mode)
{
    struct stat status {};
    const bool present = stat(cached.c_str(), &status) == 0;
    if (present && static_cast<uint64_t>(status.st_size) == expected) {
        mode = status.st_mode & 07777;
        return true;
    }
    const std::string path = finalParentOf(entry) + "/" + entry.fileName;
    const uint64_t got = present ? static_cast<uint64_t>(status.st_size) : 0;
    fail(path, path + ": writing failed (" + std::to_string(got) + " of " + std::to_string(expected) +
                   " bytes reached the disk)",
         false);
    return false;
}

bool ReceiverEndpoint::Impl::landFile(const FileListEntry& entry, const std::string& cached, uint64_t expected,
                                      mode_t cachedMode)
{
    const std::string name = entry.RequestName();
    std::string finalPath;
    const int error = detail::ClaimName(
        finalParentOf(entry), entry.fileName, false, proposer(),
        [&cached](const std::string& path) { return detail::MoveNoReplace(cached, path); }, finalPath);
    if (error != 0) {
        const std::string path = finalParentOf(entry) + "/" + entry.fileName;
        fail(path, path + ": cannot be moved into place: " + errorText(error), false);
        return false;
    }
    // The file was created with the process's default mode: change it only
    // when that is not already the one wanted.
    if (entry.mode != 0 && cachedMode != (entry.mode & 0777)) {
        chmod(finalPath.c_str(), entry.mode & 0777);
    }
    {
        std::lock_guard<std::mutex> lock(mMutex);
        ++mSummary.filesDone;
        mSummary.bytesDone += expected;
    }
    notifyObserver([&](ReceiverObserver& observer) { observer.OnFileCompleted(name, finalPath); });
    return true;
}

std::string ReceiverEndpoint::Impl::finalParentOf(const FileListEntry& entry)
{
    if (entry.filePath.empty()) {
        return mDestination;
    }
    std::lock_guard<std::mutex> lock(mMutex);
    auto found = mFinalDirectories.find(entry.filePath);
    return found != mFinalDirectories.end() ? found->second : mDestination + "/" + entry.filePath;
}

detail::NameProposer ReceiverEndpoint::Impl::proposer()
{
    return [this](const std::string& parent, const std::string& name, bool isDirectory) {
        std::vector<FileDescription> one(1);
        one[0].destDir = parent;
        one[0].fileName = name;
        one[0].attribute = isDirectory ? kAttributeDirectory : kAttributeNormal;
        mManager->RenameDuplicatedFilePath(one);
        return one[0].destFileName;
    };
}

void ReceiverEndpoint::Impl::conclude(bool ok)
{
    if (!ok) {
        abortEngine();
    }
    std::vector<std::pair<std::string, uint32_t>> modes;
    {
        std::lock_guard<std::mutex> lock(mMutex);
        modes = mDirectoryModes;
    }
    // Children first, so a read-only directory does not block its parent's.
    for (auto it = modes.rbegin(); it != modes.rend(); ++it) {
        chmod(it->first.c_str(), it->second & 0777);
    }
    detail::RemoveTree(CacheDirectory());

    TransferSummary summary;
    std::string failurePath;
    std::string failureMessage;
    bool fromPeer = false;
    bool cancelled = false;
    bool failedHere = false;
    bool cancelRequested = false;
    uint32_t taskId = 0;
    uint32_t senderId = 0;
    {
        std::lock_guard<std::mutex> lock(mMutex);
        cancelled = mCancelRequested || mPeerCancelled;
        failedHere = mFailed;
        cancelRequested = mCancelRequested;
        if (ok) {
            mSummary.completed = true;
        } else {
            mSummary.cancelled = cancelled;
            mSummary.error = mFailed ? mFailureMessage : "cancelled";
        }
        failurePath = mFailurePath;
        failureMessage = mSummary.error;
        fromPeer = mFailureFromPeer;
        if (!mSlots.empty()) {
            taskId = mSlots.front().taskId;
            senderId = mSlots.front().senderId;
        }
        mSlots.clear();  // late engine callbacks find nothing to report
        mAcceptsDue = 0;
        summary = mSummary;
    }
    if (ok) {
        mTransport->Send(Disconnect{true, ""});
    } else if (cancelRequested && !failedHere) {
        mTransport->Send(Disconnect{false, kCancelledReason});
    } else {
        if (!fromPeer) {
            mTransport->Send(TransferError{taskId, senderId, failureMessage});
        }
        mTransport->Send(Disconnect{false, failureMessage});
    }
    if (!ok && failedHere) {
        HOST_LOG_W << "copy failed: " << failureMessage;
        notifyObserver([&](ReceiverObserver& observer) { observer.OnFailure(failurePath, failureMessage); });
    }
    {
        std::lock_guard<std::mutex> lock(mMutex);
        mFinished = true;
    }
    mChanged.notify_all();
    notifyObserver([&](ReceiverObserver& observer) { observer.OnFinished(summary); }, true);
}

void ReceiverEndpoint::Impl::abortEngine()
{
    {
        std::lock_guard<std::mutex> input(mEngineInputMutex);
        mAborting = true;
    }
    // With no more input, the loopers' jobs are the last engine work that
    // can wake the first file's RequestFile.
    if (!mEngineJobs->WaitIdle(kWriterDrainLimit)) {
        HOST_LOG_E << "the engine's writer did not finish its queued chunks";
    }
    std::string marker;
    bool woken = false;
    {
        std::lock_guard<std::mutex> lock(mMutex);
        if (mRequestsPosted != mRequestsReturned) {
            marker = mCacheDir + "/" + mRequestMarker;
            woken = mWriterEvents != mWriterEventsAtRequest;
        }
    }
    if (woken) {
        // Woken by a completion or a writer failure, it is walking the
        // lists that Cancel clears without a lock: let it return first.
        std::unique_lock<std::mutex> lock(mMutex);
        mSessionWake.wait_for(lock, kRequestReleaseLimit, [this] { return mRequestsPosted == mRequestsReturned; });
    } else if (!marker.empty()) {
        // One still setting up must reach its wait, where it touches
        // nothing until Cancel itself wakes it.
        const auto deadline = Clock::now() + kRequestStartLimit;
        while (access(marker.c_str(), F_OK) != 0 && Clock::now() < deadline && !requestReturned()) {
            std::this_thread::sleep_for(std::chrono::microseconds(200));
        }
        lockBarrier();
    }
    mManager->Cancel();
    std::unique_lock<std::mutex> lock(mMutex);
    if (!mSessionWake.wait_for(lock, kRequestReleaseLimit,
                               [this] { return mRequestsPosted == mRequestsReturned; })) {
        HOST_LOG_E << "the engine did not release a pending file request";
    }
}

}  // namespace orin::xfer::host
