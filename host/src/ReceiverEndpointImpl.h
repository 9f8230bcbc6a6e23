// The receiving endpoint's inside, shared by its three source files:
// ReceiverEndpoint.cpp (lifecycle and shared state), ReceiverMessages.cpp
// (what arrives from the sender and from the engine) and ReceiverSession.cpp
// (the session thread that walks the list). The threading contract and the
// engine contracts are in xferfm/host/ReceiverEndpoint.h.
#pragma once

#include <chrono>
#include <condition_variable>
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
#include "xferfm/host/ReceiverEndpoint.h"
#include "xferfm/host/ThreadLooper.h"

namespace orin::xfer::host {

namespace receiver {

using Clock = std::chrono::steady_clock;
inline constexpr uint32_t kNoTransferId = 0xFFFFFFFF;
inline constexpr const char* kCachePrefix = ".xferfm-cache-";
inline constexpr const char* kRequestLooperName = "xfer-request";
// Local engine steps that take microseconds; the bounds only guard
// against an engine that never answers.
inline constexpr auto kRequestStartLimit = std::chrono::seconds(10);
inline constexpr auto kWriterDrainLimit = std::chrono::seconds(5);
inline constexpr auto kRequestReleaseLimit = std::chrono::seconds(10);
inline constexpr auto kWaitSlice = std::chrono::milliseconds(50);

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

}  // namespace receiver

class ReceiverEndpoint::Impl final : public ITransportHandler, public FileTransferListener {
public:
    Impl(std::unique_ptr<ITransport> transport, ReceiverOptions options);

    ~Impl() override;

    bool Start(std::string& error);
    bool WaitFinished(std::chrono::milliseconds timeout);
    bool Finished() const;
    void Cancel();
    TransferSummary Summary() const;
    std::string CacheDirectory() const;

    // ---- messages from the sender (delivery thread) ----

    void OnMessage(Message message) override;
    void OnTransportClosed(const std::string& reason) override;

    // ---- engine listener ----

    void onRequestFileDesc() override { mTransport->Send(FileListRequest{}); }

    // Writer looper: one call per written chunk that did not end the file.
    void onFileTransferProgress(uint32_t taskId, uint32_t transferId, uint32_t percent, uint64_t chunkSize) override;

    // Writer looper for a file; inside ProcessFileDownloadStart (delivery
    // thread) for a directory.
    void onFileTransferCompleted(uint32_t taskId, uint32_t transferId, uint32_t result) override;

    // Any thread: write failures on the writer looper, set-up failures on
    // the caller of ProcessFileDownloadStart or RequestFile.
    void onFileTransferFailed(uint32_t taskId, uint32_t transferId, uint32_t result) override;

private:
    struct Progress {
        std::string name;
        uint64_t fileBytes = 0;
        uint64_t fileSize = 0;
        uint64_t totalBytes = 0;
        uint64_t total = 0;
    };

    bool prepareDestination(std::string& error);

    // ---- delivery-thread handlers ----

    void handle(FileListMessage& list);
    void handle(FileStart& start);
    void handle(FileData& data);

    void handle(TransferError& error) { fail(currentDestination(), "the sender failed: " + error.message, true); }
    void handle(EndOfList&) { fail("", "the sender has nothing left to send", true); }
    void handle(Disconnect& goodbye);

    void handle(FileListRequest&) {}
    void handle(NextFileRequest&) {}
    void handle(FileAccept&) {}
    void handle(DataAck&) {}

    // ---- session thread ----

    void runSession();
    void beginEntry(size_t index, const FileListEntry& entry);
    void endEntry();
    void requestEntry(size_t index, const FileListEntry& entry);
    bool copyDirectory(size_t index, const FileListEntry& entry);
    bool copyFile(size_t index, const FileListEntry& entry);
    void postRequest(const FileDescription& description);

    // RequestFile wipes the cache on the first request and treats a file it
    // finds in the cache as already done, so the sender may only be asked
    // once RequestFile waits: its marker file exists, and a data call for
    // an id no task has (which takes the engine's task lock) has gone
    // through, proving the lock was released by the wait.
    bool waitForRequestToWait(const std::string& name);
    void lockBarrier();
    bool landFile(const FileListEntry& entry, const std::string& name, uint64_t expected);

    // Where an entry's parent directory landed.
    std::string finalParentOf(const FileListEntry& entry);
    detail::NameProposer proposer();

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
            if (watchStall && receiver::Clock::now() - mLastActivity > mOptions.stallTimeout) {
                const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(mOptions.stallTimeout);
                mFailed = true;
                mFailurePath = destinationGuessLocked();
                mFailureMessage = "no data from the sender for " + std::to_string(seconds.count()) + " s while copying " +
                                  (mFailurePath.empty() ? std::string("the list") : mFailurePath);
                return false;
            }
            mChanged.wait_for(lock, receiver::kWaitSlice);
        }
    }

    // Ends the session on every path: releases the engine, settles the
    // directories, removes the cache, tells the sender and the observer.
    void conclude(bool ok);

    // The engine's Cancel (ClearTask) clears its task list without the
    // task lock, so nothing else may touch the engine while it runs: no
    // more input from the link, no RequestFile still setting up, no writer
    // job still queued. Cancel then releases a waiting RequestFile.
    void abortEngine();
    bool requestReturned();

    // Records the first failure and wakes the session.
    void fail(const std::string& path, const std::string& message, bool fromPeer);
    bool failed();
    void touch();
    std::string currentDestination();

    // The destination path of the current entry, before it has its final name.
    std::string destinationGuessLocked() const;
    Progress progressLocked() const;
    void reportProgress(const Progress& progress);

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
    receiver::Current mCurrent;
    uint64_t mRequestsPosted = 0;
    uint64_t mRequestsReturned = 0;
    uint64_t mBytesWritten = 0;
    std::map<std::string, std::string> mFinalDirectories;  // request name -> final path
    std::vector<std::pair<std::string, uint32_t>> mDirectoryModes;
    receiver::Clock::time_point mLastActivity = receiver::Clock::now();
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

}  // namespace orin::xfer::host
