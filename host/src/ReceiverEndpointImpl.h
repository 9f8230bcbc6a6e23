// The receiving endpoint's inside: the owner that wires the transport, the
// engine (as its listener), the observer and the collaborators that hold
// the session's rules:
// - ReceiverSessionState: the lifecycle, the first failure, cancels, the summary;
// - ReceiverSlotTable: the requested entries, announcements, accepts, settling;
// - FileLanding: the destination, the cache, final names and modes;
// - RequestGate: the first file's blocking RequestFile and the engine's Cancel.
// Its code is in three files by concept: ReceiverEndpoint.cpp (lifecycle,
// failures, the lock and the engine contracts), ReceiverMessages.cpp (what
// the sender and the engine report) and ReceiverSession.cpp (walking the
// list: requests, settling, the end of the session). The user's contract
// is in xferfm/host/ReceiverEndpoint.h.
#pragma once

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "FileLanding.h"
#include "IFileTransferManager.h"
#include "ObserverRelay.h"
#include "ReceiverSessionState.h"
#include "ReceiverSlotTable.h"
#include "RequestAhead.h"
#include "RequestGate.h"
#include "xferfm/host/JobCountingLooperFactory.h"
#include "xferfm/host/ReceiverEndpoint.h"

namespace orin::xfer::host {

class ReceiverEndpoint::Impl final : public ITransportHandler, public FileTransferListener {
public:
    Impl(std::unique_ptr<ITransport> transport, ReceiverOptions options);
    ~Impl() override;

    bool Start(std::string& error);
    bool SetNameRules(std::optional<ReceiverNameRules> rules);
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
    using Clock = std::chrono::steady_clock;

    struct Progress {
        std::string name;
        uint64_t fileBytes = 0;
        uint64_t fileSize = 0;
        uint64_t totalBytes = 0;
        uint64_t total = 0;
    };

    // ---- delivery-thread handlers (ReceiverMessages.cpp) ----

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
    // A network session's link answers these below the endpoint (NetworkReceiver).
    void handle(OfferOptions&) {}
    void handle(EntryLanding&) {}
    void handle(EntryComplete&) {}
    void sendAccepts(const std::vector<detail::ReceiverAccept>& accepts);

    // ---- walking the list (ReceiverSession.cpp) ----

    void runSession();
    // Asks for one entry; the first file of the list goes through
    // requestFirstFile instead.
    void requestEntry(size_t index, const FileListEntry& entry);
    bool requestFirstFile(size_t index, const FileListEntry& entry);
    void sendRequest(size_t index, const FileListEntry& entry);
    void pushPending(size_t index, const FileListEntry& entry);
    // Waits for the oldest requested entry and puts it in place.
    bool settleOldest(const FileListEntry& entry, bool firstFile);
    bool settleDirectory(const FileListEntry& entry);
    // `firstFile`: its RequestFile has run already (or is skipped).
    bool settleFile(const FileListEntry& entry, uint64_t expected, bool firstFile);
    void landCompletedFront(const ParsedFileList& list);
    // Ends the session on every path: releases the engine, settles the
    // directories, removes the cache, tells the sender and the observer.
    void conclude(bool ok);
    // Shuts the engine's input off, then lets the gate cancel the engine.
    void abortEngine();

    // ---- shared (ReceiverEndpoint.cpp) ----

    // Waits for `done` (checked under the lock); false on failure, cancel,
    // or a sender silent for longer than the stall timeout.
    template <typename Done>
    bool waitUntil(Done done, bool watchStall)
    {
        std::unique_lock<std::mutex> lock(mMutex);
        while (true) {
            if (mState.Stopping()) {
                return false;
            }
            if (done()) {
                return true;
            }
            if (watchStall && Clock::now() - mLastActivity > mOptions.stallTimeout) {
                recordStallLocked();
                return false;
            }
            mSessionWake.wait_for(lock, kWaitSlice);
        }
    }
    void recordStallLocked();

    // Records the first failure and wakes the session.
    void fail(const std::string& path, const std::string& message, bool fromPeer);
    bool failed() const;
    bool stopping() const;
    void touch();
    // The destination path of the oldest unsettled entry, before it has
    // its final name.
    std::string currentDestination() const;
    std::string destinationGuessLocked() const;
    Progress progressLocked(const detail::ReceiverSlot& slot) const;
    void reportProgress(const Progress& progress);
    // Wakes the session thread; takes the lock first so a wait that just
    // checked its condition cannot miss it.
    void wakeSession();
    // The session state's invariants, after each public call (debug builds).
    void checkInvariants() const;

    static constexpr auto kWaitSlice = std::chrono::milliseconds(50);

    ReceiverOptions mOptions;
    std::unique_ptr<ITransport> mTransport;
    std::shared_ptr<JobCounter> mEngineJobs;  // jobs the engine's loopers hold
    std::unique_ptr<IFileTransferManager> mManager;
    detail::ObserverRelay<ReceiverObserver> mObserver;
    detail::FileLanding mLanding;
    std::unique_ptr<detail::RequestGate> mGate;  // shut down before the engine is destroyed

    // Held around every engine call that may overlap another thread's:
    // the delivery thread's (and inline data deliveries'), and the session
    // thread's list and request calls. The session sets mAborting under it
    // to shut the input off before tearing down.
    std::mutex mEngineInputMutex;
    bool mAborting = false;

    size_t mPushedThrough = 0;  // session thread: entries below were pushed as pending downloads
    bool mLandingFailed = false;  // session thread: an entry could not be put in place
    detail::RequestAhead mAhead;  // session thread: how many entries are asked for ahead

    mutable std::mutex mMutex;             // guards everything below
    std::condition_variable mChanged;      // the session finished
    std::condition_variable mSessionWake;  // an entry completed or failed, or a request returned
    detail::ReceiverSessionState mState;
    // The sender's list, once it arrived: read once, shared with the link
    // that read it and with the session thread, never copied.
    std::shared_ptr<const ParsedFileList> mList;
    // With name rules: per entry of mList, its index in the list as offered
    // (empty: the same index).
    std::vector<size_t> mOfferedIndex;
    detail::ReceiverSlotTable mSlots;     // emptied at the end
    Clock::time_point mLastActivity = Clock::now();
    std::thread mSession;
};

}  // namespace orin::xfer::host
