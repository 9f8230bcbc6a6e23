// The host's ear: every message the engine wants sent to the remote side and
// every event the user should see arrives through one of these operations.
//
// Threading: the engine calls the listener on whatever thread it is on: the
// host's calling thread for control operations, the main (unnamed) looper's
// thread for upload data and upload failures, the "xfer-downloader" looper's
// thread for write progress and completion. Never from two loopers for the
// same transferId at once. The engine never owns or deletes the listener.
//
// Buffers and strings: everything passed to a callback (data pointers,
// strings, the record map) belongs to the engine and is valid only during
// the call; copy what you keep, never store the pointer.
//
// Result codes of onFileTransferFailed and the per-transfer notifications:
// 0 success, 1 local failure or disconnect, 2 download error reported by the
// remote side, 3 upload error reported by the remote side.
#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "FileTransferTypes.h"

namespace orin::xfer {

class FileTransferListener {
public:
    virtual ~FileTransferListener() = default;

    virtual void onUploadFileListReady() {}
    virtual void onRequestFileDesc() {}
    virtual void onRequestFile() {}
    // The JSON file list to send to the remote side (schema in
    // docs/host-guide.md): {"fileList": [{"filePath", "fileName",
    // "attribute", "mode", "fileSize"}, ...], "root"}.
    virtual void onSendFileDesc(const std::string& jsonData) { (void)jsonData; }
    virtual void onClipboardRelease() {}
    virtual void onFileTransferFailed(uint32_t taskId, uint32_t transferId, uint32_t result)
    {
        (void)taskId, (void)transferId, (void)result;
    }
    virtual void onReportEvent(const std::string& event, bool flag) { (void)event, (void)flag; }
    // Registration-only mode: `data` is the buffer the host passed to
    // ProcessFileDownloadData, valid only during that call.
    virtual void onFileDownloaded(const FileDescription& record, const uint8_t* data, uint64_t size)
    {
        (void)record, (void)data, (void)size;
    }
    // One piece of an upload, at most 65,536 bytes; (nullptr, 0) for an
    // empty file. `data` is the engine's and valid only during this call:
    // send or copy it before returning.
    virtual void onSendFileData(uint32_t taskId, uint32_t transferId, const uint8_t* data, int64_t size)
    {
        (void)taskId, (void)transferId, (void)data, (void)size;
    }
    virtual void onSendFileStart(uint32_t taskId, uint32_t transferId, const std::string& fileName,
                                 const std::string& dest, bool isDir, uint32_t flag, uint64_t totalSize,
                                 uint64_t size)
    {
        (void)taskId, (void)transferId, (void)fileName, (void)dest, (void)isDir, (void)flag;
        (void)totalSize, (void)size;
    }
    virtual void onFileTransferStarted(uint32_t taskId, uint32_t transferId, uint32_t result)
    {
        (void)taskId, (void)transferId, (void)result;
    }
    virtual void onFileDataAck(uint32_t taskId, uint32_t transferId, uint32_t result)
    {
        (void)taskId, (void)transferId, (void)result;
    }
    virtual void onFileTransferCompleted(uint32_t taskId, uint32_t transferId, uint32_t result)
    {
        (void)taskId, (void)transferId, (void)result;
    }
    // Kept for hosts that track cancellation; the engine itself never calls it.
    virtual void onFileTransferCanceled(uint32_t taskId, uint32_t transferId, uint32_t result)
    {
        (void)taskId, (void)transferId, (void)result;
    }
    virtual void onFileTransferProgress(uint32_t taskId, uint32_t transferId, uint32_t percent,
                                        uint64_t chunkSize)
    {
        (void)taskId, (void)transferId, (void)percent, (void)chunkSize;
    }
    virtual void onTransferRecord(std::string recordTag, std::multimap<std::string, std::string>& records)
    {
        (void)recordTag, (void)records;
    }
};

}  // namespace orin::xfer
