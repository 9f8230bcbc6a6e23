// What the receiver sends the sender endpoint, on the transport's delivery
// thread. Requests are served in list order through the offered list (see
// OfferedList.cpp); acknowledgements and accepts go to the upload pacer
// (see UploadPacer.cpp); errors and goodbyes end the session.
#include <map>

#include "HostLog.h"
#include "SenderEndpointImpl.h"

namespace orin::xfer::host {

using detail::SenderState;

void SenderEndpoint::Impl::OnMessage(Message message)
{
    std::visit([this](auto& body) { handle(body); }, message);
}

void SenderEndpoint::Impl::OnTransportClosed(const std::string& reason)
{
    if (Finished()) {
        return;
    }
    {
        std::lock_guard<std::mutex> engine(mEngineMutex);
        mManager->ProcessTansferDisconnect();
    }
    finish(Outcome::kFailed, "", "the link to the receiver was lost: " + reason);
}

void SenderEndpoint::Impl::handle(FileListRequest&)
{
    bool sendNow = false;
    std::string json;
    {
        std::lock_guard<std::mutex> lock(mMutex);
        if (mState.Current() == SenderState::kCreated) {
            mState.SetState(SenderState::kListRequested, "the receiver asked for the list before the offer");
        } else if (mState.Current() == SenderState::kOffered) {
            sendNow = mState.SetState(SenderState::kListSent, "the receiver asked for the list");
            json = mList.TakeJson();
        }
    }
    if (sendNow) {
        mTransport->Send(FileListMessage{std::move(json)});
    }
}

// Requests go up the list (see OfferedList.cpp): one that passes over
// entries hands the engine a fresh slice from the requested entry; one
// that may not be served ends the session.
void SenderEndpoint::Impl::handle(NextFileRequest& request)
{
    std::lock_guard<std::mutex> engine(mEngineMutex);
    std::vector<FileDescription> nextSlice;
    std::vector<SkippedEntry> passedOver;
    detail::RequestVerdict verdict = detail::RequestVerdict::kServe;
    std::string problem;
    {
        std::lock_guard<std::mutex> lock(mMutex);
        if (mState.Finished()) {
            return;
        }
        verdict = mList.CheckRequest(request.index);
        if (verdict == detail::RequestVerdict::kServe) {
            passedOver = mList.Serve(static_cast<size_t>(request.index), request.name, nextSlice);
        } else {
            problem = mList.DescribeRefusedRequest(verdict, request.index);
            mList.ExpectNothing();
        }
    }
    reportSkipped(passedOver);
    if (verdict != detail::RequestVerdict::kServe) {
        if (verdict == detail::RequestVerdict::kBeyondList) {
            mTransport->Send(EndOfList{});
        }
        finish(Outcome::kFailed, "", problem);
        return;
    }
    if (!nextSlice.empty()) {
        mManager->TriggerLocalCopy(nextSlice);
    }
    std::multimap<std::string, std::string> records;
    bool listEmpty = false;
    const uint32_t transferId =
        mManager->UploadFiles(request.taskId, static_cast<size_t>(request.totalSize), "", records, listEmpty);
    if (transferId != kNoTransferId) {
        std::lock_guard<std::mutex> lock(mMutex);
        mList.SliceEntryTaken();
    }
    if (transferId == kNoTransferId && listEmpty) {
        mTransport->Send(EndOfList{});
        finish(Outcome::kFailed, "", "the upload was abandoned: nothing is left to send");
    }
    // A missing source file was reported through onFileTransferFailed.
}

// The receiver will not take this entry: recorded, and told to the
// observer, at once. An entry already announced or passed over, or one
// outside the list, is ignored: it changes nothing on this side.
void SenderEndpoint::Impl::handle(EntryRefused& refused)
{
    std::string path;
    {
        std::lock_guard<std::mutex> lock(mMutex);
        const detail::RefusalVerdict verdict = mState.Current() == SenderState::kListSent
                                                   ? mList.Refuse(refused.index, refused.reason, path)
                                                   : detail::RefusalVerdict::kNotAhead;
        if (verdict == detail::RefusalVerdict::kNotAhead) {
            HOST_LOG_W << "the receiver refused entry " << refused.index << ", which is not ahead in the list";
            return;
        }
        if (verdict == detail::RefusalVerdict::kAlreadyRecorded) {
            return;
        }
    }
    mObserver.Notify([&](SenderObserver& observer) { observer.OnEntrySkipped(path, refused.reason); });
}

void SenderEndpoint::Impl::handle(TransferError& error)
{
    std::string path;
    {
        std::lock_guard<std::mutex> lock(mMutex);
        if (const detail::AnnouncedSource* known = mList.SourceOf(error.transferId)) {
            path = known->path;
        }
    }
    // Finish first, so the engine's own failure report is not echoed.
    const bool first = finish(Outcome::kFailed, path, "the receiver failed: " + error.message, false);
    if (first && error.transferId != 0 && (error.transferId & 1u) != 0) {
        std::lock_guard<std::mutex> engine(mEngineMutex);
        mManager->ProcessXferError(error.taskId, error.transferId);
    }
}

void SenderEndpoint::Impl::handle(Disconnect& goodbye)
{
    if (goodbye.completed) {
        // The entries never asked for were passed over.
        std::vector<SkippedEntry> passedOver;
        {
            std::lock_guard<std::mutex> lock(mMutex);
            if (mState.Current() == SenderState::kListSent) {
                passedOver = mList.PassOverRest();
            }
        }
        reportSkipped(passedOver);
        finish(Outcome::kCompleted, "", "", false);
    } else if (ReasonOf(goodbye) == DisconnectReason::kCancelled) {
        finish(Outcome::kCancelled, "", "the receiver cancelled the copy", false);
    } else {
        finish(Outcome::kFailed, "", "the receiver left: " + goodbye.reason, false);
    }
}

}  // namespace orin::xfer::host
