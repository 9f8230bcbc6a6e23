#include "ReceiverEndpointImpl.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "DestinationFiles.h"

namespace orin::xfer::host {

using namespace receiver;

namespace {

std::string errorText(int error)
{
    return std::strerror(error);
}

}  // namespace

void ReceiverEndpoint::Impl::runSession()
{
    bool ok = waitUntil([this] { return mListReady; }, false);
    ParsedFileList list;
    if (ok) {
        std::lock_guard<std::mutex> lock(mMutex);
        list = mList;
    }
    for (size_t index = 0; ok && index < list.entries.size(); ++index) {
        const FileListEntry& entry = list.entries[index];
        ok = entry.isDirectory ? copyDirectory(index, entry) : copyFile(index, entry);
    }
    conclude(ok);
}

void ReceiverEndpoint::Impl::beginEntry(size_t index, const FileListEntry& entry)
{
    std::lock_guard<std::mutex> lock(mMutex);
    mCurrent = Current{};
    mCurrent.active = true;
    mCurrent.index = index;
    mCurrent.taskId = static_cast<uint32_t>(index + 1);
    mCurrent.name = entry.RequestName();
    mCurrent.isDirectory = entry.isDirectory;
    mCurrent.fileSize = entry.fileSize;
    mLastActivity = Clock::now();
}

void ReceiverEndpoint::Impl::endEntry()
{
    std::lock_guard<std::mutex> lock(mMutex);
    mCurrent.active = false;
}

void ReceiverEndpoint::Impl::requestEntry(size_t index, const FileListEntry& entry)
{
    NextFileRequest request;
    request.taskId = static_cast<uint32_t>(index + 1);
    request.index = index;
    request.name = entry.RequestName();
    {
        std::lock_guard<std::mutex> lock(mMutex);
        request.totalSize = mList.totalFileBytes;
        mLastActivity = Clock::now();
    }
    mTransport->Send(std::move(request));
}

bool ReceiverEndpoint::Impl::copyDirectory(size_t index, const FileListEntry& entry)
{
    beginEntry(index, entry);
    requestEntry(index, entry);
    if (!waitUntil([this] { return mCurrent.completed; }, true)) {
        return false;
    }
    endEntry();
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

bool ReceiverEndpoint::Impl::copyFile(size_t index, const FileListEntry& entry)
{
    beginEntry(index, entry);
    const std::string name = entry.RequestName();
    FileDescription description;
    description.filePath = entry.filePath;
    description.fileName = entry.fileName;
    description.destFilePath = entry.filePath;
    description.destFileName = entry.fileName;
    description.attribute = kAttributeNormal;
    description.mode = entry.mode;
    description.fileSize = entry.fileSize;
    {
        // One file at a time: the pending list holds only this one, so
        // RequestFile stops the writer (and drops its marker) when it
        // returns, and the record walk stays short.
        std::lock_guard<std::mutex> input(mEngineInputMutex);
        mManager->ClearDownloadFileRecordList();
        mManager->PushDownloadFile(description);
    }
    postRequest(description);
    if (!waitForRequestToWait(name)) {
        return false;
    }
    notifyObserver([&](ReceiverObserver& observer) { observer.OnFileStarted(name, entry.fileSize); });
    requestEntry(index, entry);
    if (!waitUntil([this] { return mCurrent.completed && mRequestsPosted == mRequestsReturned; }, true)) {
        return false;
    }
    uint64_t expected = 0;
    {
        std::lock_guard<std::mutex> lock(mMutex);
        expected = mCurrent.fileSize;
    }
    endEntry();
    return landFile(entry, name, expected);
}

void ReceiverEndpoint::Impl::postRequest(const FileDescription& description)
{
    {
        std::lock_guard<std::mutex> lock(mMutex);
        ++mRequestsPosted;
    }
    mRequestLooper->Post("RequestFile", [this, description] {
        mManager->RequestFile(description, false);  // blocks until written or stopped
        {
            std::lock_guard<std::mutex> lock(mMutex);
            ++mRequestsReturned;
        }
        mChanged.notify_all();
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

bool ReceiverEndpoint::Impl::landFile(const FileListEntry& entry, const std::string& name, uint64_t expected)
{
    const std::string cached = CacheDirectory() + "/" + name;
    struct stat status {};
    if (stat(cached.c_str(), &status) != 0 || static_cast<uint64_t>(status.st_size) != expected) {
        const std::string path = finalParentOf(entry) + "/" + entry.fileName;
        const uint64_t got = stat(cached.c_str(), &status) == 0 ? static_cast<uint64_t>(status.st_size) : 0;
        fail(path, path + ": writing failed (" + std::to_string(got) + " of " + std::to_string(expected) +
                       " bytes reached the disk)",
             false);
        return false;
    }
    std::string finalPath;
    const int error = detail::ClaimName(
        finalParentOf(entry), entry.fileName, false, proposer(),
        [&cached](const std::string& path) { return detail::MoveNoReplace(cached, path); }, finalPath);
    if (error != 0) {
        const std::string path = finalParentOf(entry) + "/" + entry.fileName;
        fail(path, path + ": cannot be moved into place: " + errorText(error), false);
        return false;
    }
    if (entry.mode != 0) {
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
        taskId = mCurrent.taskId;
        senderId = mCurrent.senderId;
        mCurrent.active = false;
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
    notifyObserver([&](ReceiverObserver& observer) { observer.OnFinished(summary); });
}

void ReceiverEndpoint::Impl::abortEngine()
{
    {
        std::lock_guard<std::mutex> input(mEngineInputMutex);
        mAborting = true;
    }
    std::unique_lock<std::mutex> lock(mMutex);
    const bool requestInFlight = mRequestsPosted != mRequestsReturned;
    if (requestInFlight) {
        const std::string marker = mCacheDir + "/" + mCurrent.name;
        lock.unlock();
        const auto deadline = Clock::now() + kRequestStartLimit;
        while (access(marker.c_str(), F_OK) != 0 && Clock::now() < deadline && !requestReturned()) {
            std::this_thread::sleep_for(std::chrono::microseconds(200));
        }
        lockBarrier();
        lock.lock();
        // A completed file has already woken its RequestFile, which is now
        // taking the file off the engine's pending list: Cancel clears that
        // list without a lock, so such a request must return first.
        mChanged.wait_for(lock, kWriterDrainLimit, [this] {
            return mRequestsPosted == mRequestsReturned ||
                   (mCurrent.chunksAccounted >= mCurrent.chunksSubmitted && !mCurrent.completed);
        });
    }
    lock.unlock();
    mManager->Cancel();
    lock.lock();
    if (!mChanged.wait_for(lock, kRequestReleaseLimit,
                           [this] { return mRequestsPosted == mRequestsReturned; })) {
        HOST_LOG_E << "the engine did not release a pending file request";
    }
}

}  // namespace orin::xfer::host
