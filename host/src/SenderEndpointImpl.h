// The sending endpoint's inside, shared by its three source files:
// SenderEndpoint.cpp (lifecycle, Offer and the end of the session),
// SenderMessages.cpp (what arrives from the receiver) and
// SenderEngineEvents.cpp (what the engine reports). The session's phase is
// a SenderSessionState, the list an OfferedList, the pacing of the upload
// worker an UploadPacer; the endpoint wires them to the transport, the
// engine and the observer. How it honours the engine is at the top of each
// source file.
#pragma once

#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "IFileTransferManager.h"
#include "ObserverRelay.h"
#include "OfferedList.h"
#include "SenderSessionState.h"
#include "UploadPacer.h"
#include "xferfm/host/SenderEndpoint.h"

namespace orin::xfer::host {

// The engine's "no transfer" id: UploadFiles found nothing to send, or a
// failure belongs to no task.
inline constexpr uint32_t kNoTransferId = 0xFFFFFFFF;

class SenderEndpoint::Impl final : public ITransportHandler, public FileTransferListener {
public:
    Impl(std::unique_ptr<ITransport> transport, SenderOptions options);
    ~Impl() override;

    bool Offer(const SourcePlan& plan, std::string& error);
    bool WaitFinished(std::chrono::milliseconds timeout);
    bool Finished() const;
    void Cancel();
    TransferSummary Summary() const;

    // ---- messages from the receiver (delivery thread; SenderMessages.cpp) ----
    void OnMessage(Message message) override;
    void OnTransportClosed(const std::string& reason) override;

    // ---- engine listener (SenderEngineEvents.cpp) ----
    void onSendFileDesc(const std::string& jsonData) override;
    void onSendFileStart(uint32_t taskId, uint32_t transferId, const std::string& fileName, const std::string& dest,
                         bool isDir, uint32_t flag, uint64_t totalSize, uint64_t size) override;
    void onSendFileData(uint32_t taskId, uint32_t transferId, const uint8_t* data, int64_t size) override;
    void onFileTransferFailed(uint32_t taskId, uint32_t transferId, uint32_t result) override;

private:
    enum class Outcome { kCompleted, kFailed, kCancelled };

    bool offer(const SourcePlan& plan, std::string& error);

    void handle(FileListRequest&);
    void handle(NextFileRequest& request);
    void handle(EntryRefused& refused);
    void handle(FileAccept& accept) { mPacer->Accept(accept.transferId); }
    void handle(DataAck& ack) { mPacer->Acknowledge(ack.transferId, ack.chunksWritten); }
    void handle(TransferError& error);
    void handle(Disconnect& goodbye);
    void handle(FileListMessage&) {}
    void handle(FileStart&) {}
    void handle(FileData&) {}
    void handle(EndOfList&) {}
    // Read below the endpoint by a network session's link (NetworkSender).
    void handle(OfferOptions&) {}
    void handle(EntryLanding&) {}
    void handle(EntryComplete&) {}

    bool finish(Outcome outcome, const std::string& path, const std::string& message, bool tellPeer = true);
    void reportSkipped(const std::vector<SkippedEntry>& skipped);
    TransferSummary summaryLocked() const;
    void checkInvariants() const;

    SenderOptions mOptions;
    std::unique_ptr<ITransport> mTransport;
    std::unique_ptr<IFileTransferManager> mManager;
    // Serialises the engine operations the endpoint's threads make (all but
    // NotifyUpload). Inside a listener callback it is only ever tried.
    std::mutex mEngineMutex;
    detail::ObserverRelay<SenderObserver> mObserver;
    std::unique_ptr<detail::UploadPacer> mPacer;

    mutable std::mutex mMutex;  // the session lock: guards everything below
    std::condition_variable mChanged;
    detail::SenderSessionState mState;
    detail::OfferedList mList;
    TransferSummary mSummary;
};

}  // namespace orin::xfer::host
