#include "xferfm/host/ReceiverEndpoint.h"

#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <condition_variable>
#include <cstring>
#include <map>
#include <mutex>
#include <optional>
#include <thread>
#include <utility>
#include <vector>

#include "DestinationFiles.h"
#include "HostLog.h"
#include "IFileTransferManager.h"
#include "SessionText.h"
#include "xferfm/host/ThreadLooper.h"
#include "xferfm/host/ThreadLooperFactory.h"

namespace orin::xfer::host {

namespace {

using Clock = std::chrono::steady_clock;
constexpr uint32_t kNoTransferId = 0xFFFFFFFF;
constexpr const char* kCachePrefix = ".xferfm-cache-";
constexpr const char* kRequestLooperName = "xfer-request";
// Local engine steps that take microseconds; the bounds only guard
// against an engine that never answers.
constexpr auto kRequestStartLimit = std::chrono::seconds(10);
constexpr auto kWriterDrainLimit = std::chrono::seconds(5);
constexpr auto kRequestReleaseLimit = std::chrono::seconds(10);
constexpr auto kWaitSlice = std::chrono::milliseconds(50);

// The entry being brought in now.
struct Current {
    bool active = false;
    size_t index = 0;
    uint32_t taskId = 0;
    std::string name;  // request name
    bool isDirectory = false;
    uint64_t fileSize = 0;
    bool announced = false;
    uint32_t senderId = 0;
    uint32_t receiverId = 0;  // senderId + 1: even, never 0
    uint32_t window = 0;
    bool completed = false;
    uint64_t bytesWritten = 0;
    uint64_t chunksWritten = 0;
    uint64_t chunksSubmitted = 0;  // handed to ProcessFileDownloadData
    uint64_t chunksAccounted = 0;  // reported back by the writer
};

std::string errorText(int error)
{
    return std::strerror(error);
}

}  // namespace

class ReceiverEndpoint::Impl final : public ITransportHandler, public FileTransferListener {
public:
    Impl(std::unique_ptr<ITransport> transport, ReceiverOptions options)
        : mOptions(std::move(options)), mTransport(std::move(transport))
    {
        mManager = IFileTransferManager::NewInstance(this, std::make_unique<ThreadLooperFactory>(), false, nullptr);
        mRequestLooper = std::make_unique<ThreadLooper>(kRequestLooperName);
        mTransport->Start(*this);
    }

    ~Impl() override
    {
        Cancel();
        if (mSession.joinable()) {
            mSession.join();
        }
        mTransport->Close();
        bool requestInFlight = false;
        {
            std::lock_guard<std::mutex> lock(mMutex);
            requestInFlight = mRequestsPosted != mRequestsReturned;
        }
        if (requestInFlight) {
            mManager->Cancel();  // last resort; the session normally released it
        }
        mRequestLooper.reset();
        mManager.reset();  // the listener (this) outlives the engine
        detail::RemoveTree(mCacheDir);
    }

    bool Start(std::string& error)
    {
        {
            std::lock_guard<std::mutex> lock(mMutex);
            if (mStarted || mFinished) {
                error = mStarted ? "the receiver was started already" : "the receiver was cancelled";
                return false;
            }
            mStarted = true;
        }
        if (!prepareDestination(error)) {
            std::lock_guard<std::mutex> lock(mMutex);
            mFinished = true;
            mSummary.error = error;
            return false;
        }
        {
            std::lock_guard<std::mutex> lock(mMutex);
            mSessionStarted = true;
            mLastActivity = Clock::now();
        }
        mSession = std::thread([this] { runSession(); });
        std::lock_guard<std::mutex> input(mEngineInputMutex);
        mManager->RequestFileDesc();  // onRequestFileDesc sends the request
        return true;
    }

    bool prepareDestination(std::string& error)
    {
        char resolved[PATH_MAX];
        struct stat status {};
        if (realpath(mOptions.destinationDir.c_str(), resolved) == nullptr ||
            stat(resolved, &status) != 0) {
            error = mOptions.destinationDir + ": " + errorText(errno);
            return false;
        }
        if (!S_ISDIR(status.st_mode)) {
            error = mOptions.destinationDir + ": not a directory";
            return false;
        }
        mDestination = resolved;
        std::string cache;
        if (!detail::MakePrivateDirectory(mDestination, kCachePrefix, cache, error)) {
            return false;
        }
        mManager->SetCacheDir(cache);  // wipes it: the engine re-creates it on demand
        mkdir(cache.c_str(), 0700);
        std::lock_guard<std::mutex> lock(mMutex);
        mCacheDir = cache;
        return true;
    }

    bool WaitFinished(std::chrono::milliseconds timeout)
    {
        std::unique_lock<std::mutex> lock(mMutex);
        return mChanged.wait_for(lock, timeout, [this] { return mFinished; });
    }

    bool Finished() const
    {
        std::lock_guard<std::mutex> lock(mMutex);
        return mFinished;
    }

    void Cancel()
    {
        {
            std::lock_guard<std::mutex> lock(mMutex);
            if (mFinished || mCancelRequested) {
                return;
            }
            mCancelRequested = true;
            if (!mSessionStarted) {
                mFinished = true;  // nothing runs: the session never began
                mSummary.cancelled = true;
                mSummary.error = "cancelled";
            }
        }
        mChanged.notify_all();
    }

    TransferSummary Summary() const
    {
        std::lock_guard<std::mutex> lock(mMutex);
        return mSummary;
    }

    std::string CacheDirectory() const
    {
        std::lock_guard<std::mutex> lock(mMutex);
        return mCacheDir;
    }

    // ---- messages from the sender (delivery thread) ----

    void OnMessage(Message message) override
    {
        touch();
        std::visit([this](auto& body) { handle(body); }, message);
    }

    void OnTransportClosed(const std::string& reason) override
    {
        fail("", "the link to the sender was lost: " + reason, true);
        std::lock_guard<std::mutex> input(mEngineInputMutex);
        if (!mAborting) {
            mManager->ProcessTansferDisconnect();
        }
    }

    // ---- engine listener ----

    void onRequestFileDesc() override { mTransport->Send(FileListRequest{}); }

    // Writer looper: one call per written chunk that did not end the file.
    void onFileTransferProgress(uint32_t taskId, uint32_t transferId, uint32_t percent, uint64_t chunkSize) override
    {
        (void)taskId, (void)percent;
        std::optional<DataAck> ack;
        Progress progress;
        {
            std::lock_guard<std::mutex> lock(mMutex);
            if (!mCurrent.active || mCurrent.receiverId != transferId) {
                return;
            }
            mLastActivity = Clock::now();
            mCurrent.bytesWritten += chunkSize;
            ++mCurrent.chunksWritten;
            ++mCurrent.chunksAccounted;
            mBytesWritten += chunkSize;
            if (mCurrent.window > 0 && mCurrent.chunksWritten % mCurrent.window == 0) {
                ack = DataAck{mCurrent.senderId, mCurrent.chunksWritten};
            }
            progress = progressLocked();
        }
        mChanged.notify_all();
        if (ack) {
            mTransport->Send(*ack);
        }
        reportProgress(progress);
    }

    // Writer looper for a file; inside ProcessFileDownloadStart (delivery
    // thread) for a directory.
    void onFileTransferCompleted(uint32_t taskId, uint32_t transferId, uint32_t result) override
    {
        (void)taskId, (void)result;
        Progress progress;
        {
            std::lock_guard<std::mutex> lock(mMutex);
            if (!mCurrent.active || mCurrent.receiverId != transferId || !mCurrent.announced) {
                return;
            }
            mLastActivity = Clock::now();
            mCurrent.completed = true;
            if (!mCurrent.isDirectory) {
                ++mCurrent.chunksAccounted;
                mBytesWritten += mCurrent.fileSize - mCurrent.bytesWritten;
                mCurrent.bytesWritten = mCurrent.fileSize;
            }
            progress = progressLocked();
        }
        mChanged.notify_all();
        if (!progress.name.empty() && progress.fileSize > 0) {
            reportProgress(progress);
        }
    }

    // Any thread: write failures on the writer looper, set-up failures on
    // the caller of ProcessFileDownloadStart or RequestFile.
    void onFileTransferFailed(uint32_t taskId, uint32_t transferId, uint32_t result) override
    {
        (void)result;
        std::string path;
        std::string message;
        {
            std::lock_guard<std::mutex> lock(mMutex);
            if (!mCurrent.active) {
                return;  // the link or a teardown: reported by its own path
            }
            path = destinationGuessLocked();
            if (transferId == mCurrent.receiverId && transferId != 0) {
                message = mCurrent.isDirectory ? path + ": cannot be created" : path + ": writing failed";
            } else if (taskId == kNoTransferId && transferId == 0) {
                message = path + ": cannot be prepared in the cache directory " + mCacheDir;
            } else {
                return;
            }
        }
        fail(path, message, false);
    }

private:
    struct Progress {
        std::string name;
        uint64_t fileBytes = 0;
        uint64_t fileSize = 0;
        uint64_t totalBytes = 0;
        uint64_t total = 0;
    };

    // ---- delivery-thread handlers ----

    void handle(FileListMessage& list)
    {
        ParsedFileList parsed;
        std::string error;
        const bool accepted = ParseFileList(list.json, parsed, error, mOptions.listLimits);
        if (!accepted) {
            fail("", "rejected the sender's file list: " + error, false);
            return;
        }
        size_t entries = 0;
        uint64_t bytes = 0;
        {
            std::lock_guard<std::mutex> lock(mMutex);
            if (mListReady) {
                return;  // one list per session
            }
            mList = std::move(parsed);
            mListReady = true;
            entries = mList.entries.size();
            bytes = mList.totalFileBytes;
            mSummary.entriesTotal = entries;
            mSummary.bytesTotal = bytes;
        }
        mChanged.notify_all();
        notifyObserver([&](ReceiverObserver& observer) { observer.OnListReceived(entries, bytes); });
    }

    void handle(FileStart& start)
    {
        std::string problem;
        Current current;
        {
            std::lock_guard<std::mutex> lock(mMutex);
            if (!mCurrent.active || mCurrent.announced) {
                problem = "the sender announced \"" + start.name + "\" unasked";
            } else if (start.name != mCurrent.name || start.isDirectory != mCurrent.isDirectory) {
                problem = "the sender announced \"" + start.name + "\" where \"" + mCurrent.name + "\" was asked for";
            } else if ((start.transferId & 1u) == 0 || start.transferId == kNoTransferId) {
                problem = "the sender announced \"" + start.name + "\" with an invalid transfer id";
            } else {
                mCurrent.announced = true;
                mCurrent.senderId = start.transferId;
                mCurrent.receiverId = start.transferId + 1;
                mCurrent.window = start.ackWindow;
                mCurrent.fileSize = start.fileSize;  // the file may have changed since it was listed
                current = mCurrent;
            }
        }
        if (!problem.empty()) {
            fail("", problem, false);
            return;
        }
        {
            std::lock_guard<std::mutex> input(mEngineInputMutex);
            if (mAborting) {
                return;
            }
            std::multimap<std::string, std::string> records;
            mManager->ProcessFileDownloadStart(current.taskId, current.receiverId, start.totalSize, start.fileSize,
                                               start.name, start.isDirectory, "", records, "", 0);
        }
        if (start.isDirectory || failed()) {
            return;
        }
        mTransport->Send(FileAccept{start.transferId});
        if (start.ackWindow == 0) {
            mTransport->Send(DataAck{start.transferId, 0});  // the worker waits before its first chunk
        }
    }

    void handle(FileData& data)
    {
        uint32_t taskId = 0;
        uint32_t receiverId = 0;
        {
            std::lock_guard<std::mutex> lock(mMutex);
            if (!mCurrent.active || !mCurrent.announced || mCurrent.isDirectory ||
                mCurrent.senderId != data.transferId || mFailed) {
                return;
            }
            taskId = mCurrent.taskId;
            receiverId = mCurrent.receiverId;
        }
        std::lock_guard<std::mutex> input(mEngineInputMutex);
        if (mAborting) {
            return;
        }
        {
            std::lock_guard<std::mutex> lock(mMutex);
            ++mCurrent.chunksSubmitted;
        }
        mManager->ProcessFileDownloadData(taskId, receiverId, data.bytes.size(), data.bytes.data());
    }

    void handle(TransferError& error) { fail(currentDestination(), "the sender failed: " + error.message, true); }

    void handle(EndOfList&) { fail("", "the sender has nothing left to send", true); }

    void handle(Disconnect& goodbye)
    {
        if (goodbye.reason == kCancelledReason) {
            {
                std::lock_guard<std::mutex> lock(mMutex);
                mPeerCancelled = true;
            }
            fail("", "the sender cancelled the copy", true);
        } else {
            fail("", "the sender left: " + goodbye.reason, true);
        }
    }

    void handle(FileListRequest&) {}
    void handle(NextFileRequest&) {}
    void handle(FileAccept&) {}
    void handle(DataAck&) {}

    // ---- session thread ----

    void runSession()
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

    void beginEntry(size_t index, const FileListEntry& entry)
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

    void endEntry()
    {
        std::lock_guard<std::mutex> lock(mMutex);
        mCurrent.active = false;
    }

    void requestEntry(size_t index, const FileListEntry& entry)
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

    bool copyDirectory(size_t index, const FileListEntry& entry)
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

    bool copyFile(size_t index, const FileListEntry& entry)
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

    void postRequest(const FileDescription& description)
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

    // RequestFile wipes the cache on the first request and treats a file it
    // finds in the cache as already done, so the sender may only be asked
    // once RequestFile waits: its marker file exists, and a data call for
    // an id no task has (which takes the engine's task lock) has gone
    // through, proving the lock was released by the wait.
    bool waitForRequestToWait(const std::string& name)
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

    void lockBarrier()
    {
        mManager->ProcessFileDownloadData(kNoTransferId, kNoTransferId, 0, nullptr);
    }

    bool landFile(const FileListEntry& entry, const std::string& name, uint64_t expected)
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

    // Where an entry's parent directory landed.
    std::string finalParentOf(const FileListEntry& entry)
    {
        if (entry.filePath.empty()) {
            return mDestination;
        }
        std::lock_guard<std::mutex> lock(mMutex);
        auto found = mFinalDirectories.find(entry.filePath);
        return found != mFinalDirectories.end() ? found->second : mDestination + "/" + entry.filePath;
    }

    detail::NameProposer proposer()
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

    // Waits for `done` (checked under the lock); false on failure, cancel,
    // or a sender silent for longer than the stall timeout.
    template <typename Done>
    bool waitUntil(Done done, bool watchStall)
    {
        std::unique_lock<std::mutex> lock(mMutex);
        while (true) {
            if (mFailed || mCancelRequested) {
                return false;
            }
            if (done()) {
                return true;
            }
            if (watchStall && Clock::now() - mLastActivity > mOptions.stallTimeout) {
                const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(mOptions.stallTimeout);
                mFailed = true;
                mFailurePath = destinationGuessLocked();
                mFailureMessage = "no data from the sender for " + std::to_string(seconds.count()) + " s while copying " +
                                  (mFailurePath.empty() ? std::string("the list") : mFailurePath);
                return false;
            }
            mChanged.wait_for(lock, kWaitSlice);
        }
    }

    // Ends the session on every path: releases the engine, settles the
    // directories, removes the cache, tells the sender and the observer.
    void conclude(bool ok)
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

    // The engine's Cancel (ClearTask) clears its task list without the
    // task lock, so nothing else may touch the engine while it runs: no
    // more input from the link, no RequestFile still setting up, no writer
    // job still queued. Cancel then releases a waiting RequestFile.
    void abortEngine()
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
            mChanged.wait_for(lock, kWriterDrainLimit, [this] {
                return mRequestsPosted == mRequestsReturned ||
                       mCurrent.chunksAccounted >= mCurrent.chunksSubmitted;
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

    bool requestReturned()
    {
        std::lock_guard<std::mutex> lock(mMutex);
        return mRequestsPosted == mRequestsReturned;
    }

    // Records the first failure and wakes the session.
    void fail(const std::string& path, const std::string& message, bool fromPeer)
    {
        {
            std::lock_guard<std::mutex> lock(mMutex);
            if (mFailed || mFinished) {
                return;
            }
            mFailed = true;
            mFailureFromPeer = fromPeer;
            mFailurePath = path;
            mFailureMessage = message;
            if (!mSessionStarted) {
                // No session to conclude (never started): end here.
                mFinished = true;
                mSummary.error = message;
            }
        }
        mChanged.notify_all();
    }

    bool failed()
    {
        std::lock_guard<std::mutex> lock(mMutex);
        return mFailed;
    }

    void touch()
    {
        std::lock_guard<std::mutex> lock(mMutex);
        mLastActivity = Clock::now();
    }

    std::string currentDestination()
    {
        std::lock_guard<std::mutex> lock(mMutex);
        return destinationGuessLocked();
    }

    // The destination path of the current entry, before it has its final name.
    std::string destinationGuessLocked() const
    {
        if (!mCurrent.active) {
            return {};
        }
        const size_t slash = mCurrent.name.find('/');
        if (slash == std::string::npos) {
            return mDestination + "/" + mCurrent.name;
        }
        auto top = mFinalDirectories.find(mCurrent.name.substr(0, slash));
        const std::string root = top != mFinalDirectories.end() ? top->second : mDestination + "/" + mCurrent.name.substr(0, slash);
        return root + mCurrent.name.substr(slash);
    }

    Progress progressLocked() const
    {
        Progress progress;
        progress.name = mCurrent.name;
        progress.fileBytes = mCurrent.bytesWritten;
        progress.fileSize = mCurrent.fileSize;
        progress.totalBytes = mBytesWritten;
        progress.total = mList.totalFileBytes;
        return progress;
    }

    void reportProgress(const Progress& progress)
    {
        notifyObserver([&](ReceiverObserver& observer) {
            observer.OnProgress(progress.name, progress.fileBytes, progress.fileSize, progress.totalBytes,
                                progress.total);
        });
    }

    template <typename Call>
    void notifyObserver(Call&& call)
    {
        if (mOptions.observer == nullptr) {
            return;
        }
        std::lock_guard<std::mutex> lock(mObserverMutex);
        call(*mOptions.observer);
    }

    ReceiverOptions mOptions;
    std::unique_ptr<ITransport> mTransport;
    std::unique_ptr<IFileTransferManager> mManager;
    std::unique_ptr<IFileTransferLooper> mRequestLooper;  // the only caller of RequestFile
    std::string mDestination;                             // set by Start, then read-only

    // Held by the delivery thread around its engine calls; the session sets
    // mAborting under it to shut that input off before tearing down.
    std::mutex mEngineInputMutex;
    bool mAborting = false;
    std::mutex mObserverMutex;

    mutable std::mutex mMutex;  // guards everything below
    std::condition_variable mChanged;
    bool mStarted = false;
    bool mSessionStarted = false;
    std::string mCacheDir;
    ParsedFileList mList;
    bool mListReady = false;
    Current mCurrent;
    uint64_t mRequestsPosted = 0;
    uint64_t mRequestsReturned = 0;
    uint64_t mBytesWritten = 0;
    std::map<std::string, std::string> mFinalDirectories;  // request name -> final path
    std::vector<std::pair<std::string, uint32_t>> mDirectoryModes;
    Clock::time_point mLastActivity = Clock::now();
    bool mFailed = false;
    bool mFailureFromPeer = false;
    std::string mFailurePath;
    std::string mFailureMessage;
    bool mCancelRequested = false;
    bool mPeerCancelled = false;
    bool mFinished = false;
    TransferSummary mSummary;
    std::thread mSession;
};

ReceiverEndpoint::ReceiverEndpoint(std::unique_ptr<ITransport> transport, ReceiverOptions options)
    : mImpl(std::make_unique<Impl>(std::move(transport), std::move(options)))
{
}

ReceiverEndpoint::~ReceiverEndpoint() = default;

bool ReceiverEndpoint::Start(std::string& error)
{
    return mImpl->Start(error);
}

bool ReceiverEndpoint::WaitFinished(std::chrono::milliseconds timeout)
{
    return mImpl->WaitFinished(timeout);
}

bool ReceiverEndpoint::Finished() const
{
    return mImpl->Finished();
}

void ReceiverEndpoint::Cancel()
{
    mImpl->Cancel();
}

TransferSummary ReceiverEndpoint::Summary() const
{
    return mImpl->Summary();
}

std::string ReceiverEndpoint::CacheDirectory() const
{
    return mImpl->CacheDirectory();
}

}  // namespace orin::xfer::host
