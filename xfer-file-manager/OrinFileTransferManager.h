// The engine: the one implementation of IFileTransferManager.
//
// Every member is public so that hosts and tests can observe the engine's
// state directly; hosts should drive it through IFileTransferManager.
//
// Threading contract:
// - Control operations (setters, Cancel, ClearTask, TriggerLocalCopy,
//   RequestFileDesc, PushDownloadFile, UploadFiles, ...) come from the
//   host's control thread; they take no lock unless stated.
// - mTaskMutex guards mFileTaskList for deleteTask, UploadFiles' append,
//   ProcessFileUploadData, ProcessFileDownloadStart's append and the normal
//   ProcessFileDownloadData path. RequestFile (download mode) holds it for
//   its whole run and waits on mDownloadCondition with it.
// - ClearTask, getFileTaskList and stopWriteFileThread take no lock of their
//   own and touch the task list without it: call stopWriteFileThread with
//   mTaskMutex held (as RequestFile does), and do not run ClearTask or
//   getFileTaskList while a looper or worker may be inside deleteTask.
//   The engine's other stops (a failed write, ProcessXferError for a
//   download, the failures of ProcessFileDownloadStart) take mTaskMutex
//   around their task-list steps: never call those holding it.
// - A job of a writer being retired never waits for mTaskMutex (a stop may
//   hold it while it tears that writer down): deleteTask called there, for
//   instance from a listener callback, gives up; the stop drops the tasks.
// - mUploadMutex / mUploadCondition guard the acknowledgement wait;
//   delayUpload sleeps while holding mUploadMutex, so NotifyUpload blocks
//   for the length of a bandwidth delay.
// - The main looper makes every listener call of the upload data path and
//   posts the "RequestFile" job; the writer looper ("xfer-downloader") runs
//   writeFile for every received chunk in arrival order.
// - One detached worker thread per uploaded file runs doFileUploadTask. The
//   counters and flags it shares with the host thread are atomics.
//
// Lifetime: the listener must outlive the manager. The destructor clears the
// tasks, stops the upload worker and waits until it has left its loop (it
// reads at most one more chunk), waits for a failed writer job that is still
// replacing its writer, then destroys the writer looper, the main looper and
// the factory, in that order. Never destroy the manager from
// inside a listener callback or a looper job of its own.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "IFileTransferManager.h"

namespace orin::xfer {

class OrinFileTransferManager : public IFileTransferManager {
public:
    OrinFileTransferManager(FileTransferListener* listener, std::unique_ptr<IFileTransferLooperFactory> looperFactory,
                            bool flowControl, std::unique_ptr<IFileTransferRateLimiter> rateLimiter);
    ~OrinFileTransferManager() override;

    OrinFileTransferManager(const OrinFileTransferManager&) = delete;
    OrinFileTransferManager& operator=(const OrinFileTransferManager&) = delete;

    // IFileTransferManager, in slot order.
    void SetFlowControl(bool enabled) override;
    void SetCacheDir(const std::string& path) override;
    void RequestFile(const FileDescription& file, bool registerOnly) override;
    void TriggerLocalCopy(const std::vector<FileDescription>& files) override;
    void Cancel() override;
    void RequestFileDesc() override;
    void SendFileDesc() override;
    uint32_t UploadFiles(uint32_t taskId, size_t totalSize, const std::string& recordTag,
                         std::multimap<std::string, std::string>& records, bool& listEmpty) override;
    void ProcessFileDownloadStart(uint32_t taskId, uint32_t transferId, uint64_t taskTotalSize, uint64_t fileSize,
                                  const std::string& fileName, bool isDir, const std::string& recordTag,
                                  std::multimap<std::string, std::string>& records, std::string destDir,
                                  uint32_t flag) override;
    void ProcessFileDownloadData(uint32_t taskId, uint32_t transferId, uint64_t length, uint8_t* data) override;
    void ProcessFileUploadData(uint32_t transferId) override;
    void PushDownloadFile(const FileDescription& file) override;
    void ClearDownloadFileRecordList() override;
    std::vector<FileDescription>& GetDownloadFileList() override;
    void ProcessXferError(uint32_t taskId, uint32_t transferId) override;
    void NotifyUpload() override;
    bool IsUploading() override;
    void SetUploadWindowsSize(uint32_t size) override;
    void ProcessTansferDisconnect() override;
    void ClearTask() override;
    void SetBandwidth(uint32_t kbps) override;
    void SetSystemType(const std::string& type) override;
    bool ValidateFileList(std::vector<FileDescription>& list, size_t& totalSize, bool& hasDirectory,
                          std::vector<FileDescription>& expanded) override;
    void ParseFilePath(const std::string& path, FileDescription& desc, const std::string& root) override;
    void RenameDuplicatedFilePath(std::vector<FileDescription>& files) override;

    // Task table, cancellation and errors.
    void deleteTask(uint32_t transferId);
    std::vector<std::shared_ptr<FileTransferTask>>& getFileTaskList();
    void notifyTransferFailed(uint32_t taskId, uint32_t transferId, const std::string& message, bool flag);
    void notifyRemoteClipboardRelease();

    // Filesystem helpers.
    bool isFileExist(const std::string& path, bool& isDir);
    int32_t createDir(const std::string& dirPath);
    int32_t removeDir(const std::string& path);

    // Transfer ids and text.
    uint32_t getTaskId();
    std::wstring utf8ToWstring(const std::string& text);

    // Outgoing side.
    bool getTotalSize(const std::string& dirPath, size_t& totalSize, std::vector<FileDescription>& files,
                      const std::string& root);
    void sendFileStartXfer(uint32_t id, uint32_t transferId, const std::string& fileName, const std::string& dest,
                           bool isDir, uint32_t flag, size_t totalSize, size_t size);
    void doFileUploadTask(std::shared_ptr<FileTransferTask> task);
    void waitUpload();
    void delayUpload(uint64_t milliseconds);
    void processWaitUploadTimeout();
    void quitUploadThread();

    // Incoming side.
    bool isFileInTask(const std::string& requestName);
    bool writeFile(std::shared_ptr<FileTransferTask> task, std::shared_ptr<WriteFileData> data);
    void stopWriteFileThread();

    // State, in declaration order (which fixes the order of destruction).
    std::mutex mTaskMutex;
    std::condition_variable mDownloadCondition;
    std::atomic<bool> mDownloadComplete{false};
    std::string mCacheDirPath;
    std::vector<FileDescription> mUploadFileList;
    std::vector<FileDescription> mDownloadFileList;
    std::vector<FileDescription> mDownloadFileRecordList;
    bool mFileRequested = false;
    std::vector<std::shared_ptr<FileTransferTask>> mFileTaskList;
    bool mRegisterOnlyRequest = false;
    uint32_t mCurrentDownloadTransferId = 0;
    std::mutex mUploadMutex;
    std::condition_variable mUploadCondition;
    std::atomic<bool> mUploadAcked{true};
    std::atomic<uint32_t> mUnackedChunkCount{0};
    std::atomic<bool> mUploading{false};
    std::atomic<bool> mQuitUpload{false};
    int32_t mProgressCountdown = 0;
    std::atomic<uint32_t> mUploadWindowSize{0};
    uint32_t mBandwidth = 0;
    std::unique_ptr<IFileTransferRateLimiter> mRateLimiter;
    std::string mSystemType;
    FileTransferListener* mListener;
    std::atomic<bool> mFlowControl;
    std::unique_ptr<IFileTransferLooperFactory> mLooperFactory;
    std::unique_ptr<IFileTransferLooper> mMainLooper;
    std::unique_ptr<IFileTransferLooper> mWriterLooper;
    std::atomic<uint32_t> mLastPercent{0};

    static std::atomic<uint32_t> mTaskId;

private:
    void processRegisteredDownloadData(uint32_t taskId, uint32_t transferId, uint64_t length, uint8_t* data);
    void tickProgress(uint32_t taskId, uint32_t transferId);
    void postToWriter(std::function<void()> job);

    void deleteTaskLocked(uint32_t transferId);
    bool lockTaskListForWriter(std::unique_lock<std::mutex>& lock);
    enum class TaskListLock { kHeldByCaller, kTakenHere };
    void stopWriter(TaskListLock taskListLock);
    void stopWriterUnderTaskLock();

    // Guards the writer looper pointer, which a failing write replaces from
    // the writer's own thread while the host thread posts chunks, and the
    // retired flag of the writer in service.
    std::mutex mWriterLooperMutex;
    // Set when the writer in service is retired. Its jobs stop waiting for
    // the task-list mutex then: the stop may hold that mutex while it tears
    // down the very thread they run on.
    std::shared_ptr<std::atomic<bool>> mWriterRetired = std::make_shared<std::atomic<bool>>(false);

    // Bookkeeping that lets the destructor outwait a detached upload worker
    // and lets a quit cut a bandwidth delay short.
    void waitForUploadWorkers();
    std::mutex mWorkerMutex;
    std::condition_variable mWorkerCondition;
    uint32_t mActiveUploadWorkers = 0;
    std::mutex mDelayMutex;
    std::condition_variable mDelayCondition;
    // stopWriteFileThread calls still running (guarded by mWorkerMutex);
    // one made by a failed writer job runs on the retired writer's thread,
    // which nobody joins.
    uint32_t mWriterStopsInFlight = 0;
};

}  // namespace orin::xfer
