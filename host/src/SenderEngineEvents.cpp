// What the engine reports to the sender endpoint (its listener), and how
// the endpoint honours it:
//
// - Names: UploadFiles announces destFilePath + "/" + destFileName (or
//   destFileName alone), and every entry of the list has destFilePath =
//   filePath and destFileName = fileName (UploadList.cpp), so the announced
//   name is the request name; onSendFileStart checks it against the name
//   the receiver asked for.
// - Transfer ids: this engine draws odd ids (3, 5, ...); they travel as
//   they are; the receiver maps them to even ones.
// - Directories: the announcement alone creates one remotely; it is never
//   handed to the pacer, so never to ProcessFileUploadData.
// - Failures: the engine reports a failed upload as onClipboardRelease,
//   onFileTransferFailed(taskId, transferId, 1), onReportEvent; a missing
//   source file at UploadFiles as onFileTransferFailed(taskId, 0, 1) with
//   the entry left at the front; remote errors reach the engine through
//   ProcessXferError (result 3 for an upload), a lost link through
//   ProcessTansferDisconnect (0xFFFFFFFF, 0, 1). Each is reported once to
//   the observer and to the receiver (TransferError naming the path) and
//   ends the session.
#include "SenderEndpointImpl.h"

namespace orin::xfer::host {

// Only Offer asks for the description; it is sent once requested.
void SenderEndpoint::Impl::onSendFileDesc(const std::string& jsonData)
{
    std::lock_guard<std::mutex> lock(mMutex);
    mList.KeepJson(jsonData);
}

void SenderEndpoint::Impl::onSendFileStart(uint32_t taskId, uint32_t transferId, const std::string& fileName,
                                           const std::string& dest, bool isDir, uint32_t flag, uint64_t totalSize,
                                           uint64_t size)
{
    (void)dest, (void)flag;
    std::string mismatch;
    std::string sourcePath;
    size_t index = 0;
    {
        std::lock_guard<std::mutex> lock(mMutex);
        if (mState.Finished()) {
            return;
        }
        if (fileName != mList.ExpectedName()) {
            mismatch = "the sender announced \"" + fileName + "\" where the receiver asked for \"" +
                       mList.ExpectedName() + "\"";
        } else {
            index = mList.NextIndex();
            sourcePath = mList.Announce(transferId, size);
            if (isDir) {
                ++mSummary.directoriesDone;  // nothing to stream
            }
        }
    }
    if (!mismatch.empty()) {
        finish(Outcome::kFailed, "", mismatch);
        return;
    }
    if (!isDir) {
        mPacer->Announce(index, taskId, transferId, sourcePath, size);
    }
    mObserver.Notify([&](SenderObserver& observer) { observer.OnFileStarted(sourcePath, size); });
    mTransport->Send(FileStart{taskId, transferId, fileName, isDir, size, totalSize, mOptions.ackWindow});
}

// Main looper for file data; for the one empty piece of a 0-byte file,
// the thread that started the upload (delivery or pump thread).
void SenderEndpoint::Impl::onSendFileData(uint32_t taskId, uint32_t transferId, const uint8_t* data,
                                          int64_t size)
{
    (void)taskId;
    const uint64_t length = size > 0 ? static_cast<uint64_t>(size) : 0;
    detail::DataSeen seen = mPacer->CountData(transferId, length);
    uint64_t bytesSent = 0;
    {
        std::lock_guard<std::mutex> lock(mMutex);
        if (mState.Finished()) {
            return;
        }
        const detail::AnnouncedSource* known = mList.SourceOf(transferId);
        if (seen.kind == detail::DataSeen::Kind::kUnknown && length > 0 && known != nullptr) {
            seen.kind = detail::DataSeen::Kind::kGrew;  // all announced bytes went out already
            seen.sourcePath = known->path;
            seen.announced = known->size;
        }
        if (seen.kind != detail::DataSeen::Kind::kGrew) {
            mSummary.filesDone += seen.kind == detail::DataSeen::Kind::kFileDone ? 1 : 0;
            mSummary.bytesDone += length;
            bytesSent = mSummary.bytesDone;
        }
    }
    if (seen.kind == detail::DataSeen::Kind::kGrew) {
        finish(Outcome::kFailed, seen.sourcePath,
               seen.sourcePath + ": changed while it was read (it grew past the " +
                   std::to_string(seen.announced) + " bytes announced)");
        return;
    }
    if (seen.releaseNow) {
        mPacer->Release();
    }
    if (seen.startNext) {
        // Before this piece goes on, so the next worker's start overlaps
        // the receiver's handling of it.
        mPacer->StartUploads(false);
    }
    mTransport->SendData(transferId, data, static_cast<size_t>(length));
    mObserver.Notify([&](SenderObserver& observer) { observer.OnBytesSent(bytesSent); });
}

void SenderEndpoint::Impl::onFileTransferFailed(uint32_t taskId, uint32_t transferId, uint32_t result)
{
    // A lost link is reported with no task (0xFFFFFFFF) and transfer id
    // 0; a missing source with its task and transfer id 0.
    const bool linkLost = taskId == kNoTransferId;
    std::string path;
    {
        std::lock_guard<std::mutex> lock(mMutex);
        if (mState.Finished()) {
            return;
        }
        const detail::AnnouncedSource* known = mList.SourceOf(transferId);
        if (linkLost) {
            // No file to name.
        } else if (known != nullptr) {
            path = known->path;
        } else if (transferId == 0) {
            path = mList.PathOfNext();  // UploadFiles found it missing
        }
    }
    std::string message;
    if (linkLost || (transferId == 0 && path.empty())) {
        message = "the link to the receiver was lost";
    } else if (result == 3) {
        message = "the receiver reported an error for " + path;
    } else if (transferId == 0) {
        message = path + ": no longer exists";
    } else {
        message = path + ": cannot be read";
    }
    finish(Outcome::kFailed, path, message);
}

}  // namespace orin::xfer::host
