// The engine as a host sees it. Include this header alone: it brings every
// type a host needs.
//
// Threading: every operation runs on the caller's thread. RequestFile in
// download mode blocks its caller until the requested file is written (or
// the writer is stopped). The host calls the control operations from one
// control thread; the data entry points (ProcessFileDownloadData,
// ProcessFileUploadData, NotifyUpload) may come from the host's channel
// thread. Failures never cross this interface as exceptions, except what
// the host's own collaborators throw.
//
// Lifetime: the listener must outlive the manager. Destroying the manager
// stops both workers and blocks until the running upload worker has left;
// it must not be destroyed from inside one of its own loopers' jobs or
// listener callbacks.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "FileTransferListener.h"
#include "FileTransferTypes.h"
#include "IFileTransferLooperFactory.h"
#include "IFileTransferRateLimiter.h"

namespace orin::xfer {

class IFileTransferManager {
public:
    // Creates the engine. The factory must not be null; the rate limiter may
    // be. The listener is not owned and may be null.
    static std::unique_ptr<IFileTransferManager> NewInstance(
        FileTransferListener* listener, std::unique_ptr<IFileTransferLooperFactory> looperFactory,
        bool flowControl, std::unique_ptr<IFileTransferRateLimiter> rateLimiter);

    virtual ~IFileTransferManager() = default;
    virtual void SetFlowControl(bool enabled) = 0;
    virtual void SetCacheDir(const std::string& path) = 0;
    virtual void RequestFile(const FileDescription& file, bool registerOnly) = 0;
    virtual void TriggerLocalCopy(const std::vector<FileDescription>& files) = 0;
    virtual void Cancel() = 0;
    virtual void RequestFileDesc() = 0;
    virtual void SendFileDesc() = 0;
    virtual uint32_t UploadFiles(uint32_t taskId, size_t totalSize, const std::string& recordTag,
                                 std::multimap<std::string, std::string>& records, bool& listEmpty) = 0;
    virtual void ProcessFileDownloadStart(uint32_t taskId, uint32_t transferId, uint64_t taskTotalSize,
                                          uint64_t fileSize, const std::string& fileName, bool isDir,
                                          const std::string& recordTag,
                                          std::multimap<std::string, std::string>& records,
                                          std::string destDir, uint32_t flag) = 0;
    // `data` stays the caller's: the engine copies the `length` bytes before
    // returning (the write happens later from that copy) and never writes
    // through the pointer, so the buffer may be freed or reused at once.
    // `data` may be null when `length` is 0.
    virtual void ProcessFileDownloadData(uint32_t taskId, uint32_t transferId, uint64_t length,
                                         uint8_t* data) = 0;
    virtual void ProcessFileUploadData(uint32_t transferId) = 0;
    virtual void PushDownloadFile(const FileDescription& file) = 0;
    virtual void ClearDownloadFileRecordList() = 0;
    virtual std::vector<FileDescription>& GetDownloadFileList() = 0;
    virtual void ProcessXferError(uint32_t taskId, uint32_t transferId) = 0;
    virtual void NotifyUpload() = 0;
    virtual bool IsUploading() = 0;
    virtual void SetUploadWindowsSize(uint32_t size) = 0;
    virtual void ProcessTansferDisconnect() = 0;
    virtual void ClearTask() = 0;
    virtual void SetBandwidth(uint32_t kbps) = 0;
    virtual void SetSystemType(const std::string& type) = 0;
    // Checks that every entry of `list` exists and sets its attribute and
    // fileSize (a directory: the sum of the files beneath it); `totalSize`
    // is the sum for the list. `hasDirectory` is only ever set to true, so
    // initialise it. For each directory entry, one description per regular
    // file beneath it (hidden names skipped, sub-directories not listed) is
    // appended to `expanded`, which is not cleared first. False as soon as a
    // path is missing or a directory cannot be read. destFileName and
    // destFilePath are left to the host, which must set them before
    // TriggerLocalCopy: the file announcement names destFilePath/destFileName.
    virtual bool ValidateFileList(std::vector<FileDescription>& list, size_t& totalSize, bool& hasDirectory,
                                  std::vector<FileDescription>& expanded) = 0;
    // Fills sourceDir, filePath and fileName from a local path (clears only
    // filePath and fileName). A directory: sourceDir its parent, fileName its
    // last component. A file: with `root` empty, sourceDir its directory;
    // under a copied directory `root`, sourceDir is `root` and filePath the
    // part between root and the name ("photos/2024"). A path without a
    // separator leaves fileName empty.
    virtual void ParseFilePath(const std::string& path, FileDescription& desc, const std::string& root) = 0;
    virtual void RenameDuplicatedFilePath(std::vector<FileDescription>& files) = 0;
};

}  // namespace orin::xfer
