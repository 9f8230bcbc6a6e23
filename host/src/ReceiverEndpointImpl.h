// The receiving endpoint's inside, shared by its three source files:
// ReceiverEndpoint.cpp (lifecycle and shared state), ReceiverMessages.cpp
// (what arrives from the sender and from the engine) and ReceiverSession.cpp
// (the session thread that walks the list). The user's contract is in
// xferfm/host/ReceiverEndpoint.h, the engine contracts at the top of
// ReceiverEndpoint.cpp.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <condition_variable>
#include <deque>
#include <map>
#include <mutex>
#include <optional>
#include <thread>
#include <utility>
#include <vector>

#include "DestinationFiles.h"
#include "HostLog.h"
#include "xferfm/host/JobCountingLooperFactory.h"
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

// Entries requested ahead of the one being settled. Enough to keep the
// sender busy across the request and announcement round trips of small
// files, in bursts of half of it; the engine's per-file work stays one
// file at a time regardless.
inline constexpr size_t kRequestAhead = 32;
// Completed entries that wake the session to settle them together.
inline constexpr size_t kSettleBatch = 8;
// Bytes that accepted files may still have to write before the next file
// is accepted. The sender streams a file once accepted, and the window
// only bounds each file on its own: without this a slow disk would let
// whole files pile up in the writer's queue.
inline constexpr uint64_t kAcceptBacklogBytes = 4u << 20;

// One requested entry, from its request until it is settled (moved into
// place, or its directory created).
struct Slot {
    size_t index = 0;
    uint32_t taskId = 0;
    std::string name;  // request name
    bool isDirectory = false;
    uint64_t fileSize = 0;
    bool announced = false;
    uint32_t senderId = 0;
    uint32_t receiverId = 0;  // senderId + 1: even, never 0
    uint32_t window = 0;
    bool acceptDue = false;  // set up in the engine; its FileAccept waits for room
    bool accepted = false;
    bool completed = false;
    uint64_t bytesWritten = 0;
    uint64_t chunksWritten = 0;
};

// A FileAccept to send (with the window-0 acknowledgement where needed).
struct Accept {
    uint32_t senderId = 0;
    uint32_t window = 0;
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
    void OnData(uint32_t transferId, const uint8_t* bytes, size_t size) override
    {
        receiveData(transferId, bytes, size);
    }

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
    void receiveData(uint32_t senderId, const uint8_t* bytes, size_t size);

    void handle(TransferError& error) { fail(currentDestination(), "the sender failed: " + error.message, true); }
    void handle(EndOfList&) { fail("", "the sender has nothing left to send", true); }
    void handle(Disconnect& goodbye);

    void handle(FileListRequest&) {}
    void handle(NextFileRequest&) {}
    void handle(FileAccept&) {}
    void handle(DataAck&) {}
    void handle(EntryRefused&) {}  // the receiver's own message; a sender has no say in it

    // ---- session thread ----

    void runSession();
    // Asks for one entry; the first file of the list goes through
    // requestFirstFile instead.
    void requestEntry(size_t index, const FileListEntry& entry);
    bool requestFirstFile(size_t index, const FileListEntry& entry);
    void sendRequest(size_t index, const FileListEntry& entry);
    // Waits for the oldest requested entry and puts it in place.
    bool settleOldest(const FileListEntry& entry, bool firstFile);
    bool settleDirectory(const FileListEntry& entry);
    bool settleFile(const FileListEntry& entry, uint64_t expected, bool firstFile);
    void postRequest(const FileDescription& description);
    void pushPending(size_t index, const FileListEntry& entry);

    // The first RequestFile of a paste wipes the cache, so the first file
    // may only be asked for once RequestFile waits: its marker file exists,
    // and a data call for an id no task has (which takes the engine's task
    // lock) has gone through, proving the lock was released by the wait.
    bool waitForRequestToWait(const std::string& name);
    void lockBarrier();
    // The size check; `mode` gets the cached file's permission bits.
    bool checkCachedFile(const FileListEntry& entry, const std::string& cached, uint64_t expected, mode_t& mode);
    bool landFile(const FileListEntry& entry, const std::string& cached, uint64_t expected, mode_t cachedMode);

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
            mSessionWake.wait_for(lock, receiver::kWaitSlice);
        }
    }

    // Ends the session on every path: releases the engine, settles the
    // directories, removes the cache, tells the sender and the observer.
    void conclude(bool ok);

    // The engine's Cancel (ClearTask) clears its task list without the
    // task lock, so nothing else may touch the engine while it runs: no
    // more input from the link, no RequestFile still setting up, no job
    // still held by the engine's loopers. Cancel then releases a waiting
    // RequestFile.
    void abortEngine();
    bool requestReturned();

    // Records the first failure and wakes the session.
    void fail(const std::string& path, const std::string& message, bool fromPeer);
    bool failed();
    void touch();
    std::string currentDestination();
    // Wakes the session thread (and WaitFinished callers only on the end).
    void wakeSession() { mSessionWake.notify_all(); }
    // Whether enough completed entries wait to be settled. mMutex held.
    bool settleDueLocked() const;
    // The announced files that may be accepted now, oldest first, marked
    // accepted: while the accepted ones still have to write at most
    // kAcceptBacklogBytes (a larger file goes when nothing else is owed).
    // mMutex held.
    std::vector<receiver::Accept> takeDueAcceptsLocked();
    void sendAccepts(const std::vector<receiver::Accept>& accepts);

    // The slot of a transfer by the receiver's or the sender's id; null
    // when the transfer is not in flight. Called with mMutex held.
    receiver::Slot* slotByReceiverId(uint32_t receiverId);
    receiver::Slot* slotBySenderId(uint32_t senderId);

    // The destination path of the oldest unsettled entry, before it has its
    // final name.
    std::string destinationGuessLocked() const;
    Progress progressLocked(const receiver::Slot& slot) const;
    void reportProgress(const Progress& progress);

    // Calls the observer unless OnFinished was already delivered: a late
    // callback racing the end of the session is dropped, never reordered.
    template <typename Call>
    void notifyObserver(Call&& call, bool last = false)
    {
        if (mOptions.observer == nullptr) {
            return;
        }
        std::lock_guard<std::mutex> lock(mObserverMutex);
        if (mObserverDone) {
            return;
        }
        mObserverDone = last;
        call(*mOptions.observer);
    }

    ReceiverOptions mOptions;
    std::unique_ptr<ITransport> mTransport;
    std::shared_ptr<JobCounter> mEngineJobs;  // jobs the engine's loopers hold
    std::unique_ptr<IFileTransferManager> mManager;
    std::unique_ptr<IFileTransferLooper> mRequestLooper;  // runs the first file's blocking RequestFile
    std::string mDestination;                             // set by Start, then read-only

    // Held around every engine call that may overlap another thread's:
    // the delivery thread's (and inline data deliveries'), and the session
    // thread's list and request calls. The session sets mAborting under it
    // to shut the input off before tearing down.
    std::mutex mEngineInputMutex;
    bool mAborting = false;
    std::mutex mObserverMutex;
    bool mObserverDone = false;  // OnFinished delivered; guarded by mObserverMutex

    // Session thread only.
    size_t mPushedThrough = 0;  // entries below this index were pushed as pending downloads
    bool mCacheWiped = false;   // the first file's RequestFile has run

    mutable std::mutex mMutex;  // guards everything below
    std::condition_variable mChanged;      // the session finished
    std::condition_variable mSessionWake;  // an entry completed or failed, or a request returned
    bool mStarted = false;
    bool mSessionStarted = false;
    std::string mCacheDir;
    ParsedFileList mList;
    bool mListReady = false;
    std::deque<receiver::Slot> mSlots;  // requested, not yet settled, in list order; emptied at the end
    size_t mAcceptsDue = 0;             // slots whose FileAccept waits for room
    uint64_t mRequestsPosted = 0;
    uint64_t mRequestsReturned = 0;
    std::string mRequestMarker;  // the cached name the first file's RequestFile creates
    // Completions and failures heard from the engine, which each wake a
    // waiting RequestFile; the count when the first file's request waited.
    uint64_t mWriterEvents = 0;
    uint64_t mWriterEventsAtRequest = 0;
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
