// Helpers for the tests of the incoming side: remote file descriptions, a
// watchdog around a blocking RequestFile, the remote side's messages, and a
// few process-level guards.
#pragma once

#include <sys/resource.h>

#include <signal.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include "TestSupport.h"

namespace orin::xfer::test {

// A remote regular file as the host describes it before requesting it.
FileDescription RemoteFile(const std::string& filePath, const std::string& fileName, uint64_t size = 0,
                           const std::string& sourceDir = "/remote/src");

// filePath + "/" + fileName, or fileName alone when filePath is empty.
std::string RequestNameOf(const FileDescription& file);

// Copy of the task list taken under the task-list mutex.
std::vector<FileTransferTask> TaskSnapshot(OrinFileTransferManager& manager);
std::vector<uint32_t> TransferIdsOf(const std::vector<FileTransferTask>& tasks);

// True once a request marker (transfer id 0) for `requestName` is listed.
// RequestFile holds the task-list mutex from before it adds the marker until
// it waits, so seeing the marker under that mutex means the request waits.
bool WaitForMarkerTask(OrinFileTransferManager& manager, const std::string& requestName,
                       std::chrono::milliseconds timeout = std::chrono::seconds(10));

// Sends `bytes` as data messages whose lengths cycle through `chunkSizes`
// (an empty payload is one 0-length message). Returns the message count.
size_t SendChunks(IFileTransferManager& manager, uint32_t taskId, uint32_t transferId,
                  const std::vector<uint8_t>& bytes, const std::vector<size_t>& chunkSizes);

// Announces one file with an empty record map and a fixed tag.
void StartFile(IFileTransferManager& manager, uint32_t taskId, uint32_t transferId, const std::string& fileName,
               uint64_t size, const std::string& destDir = "");

// Runs RequestFile on a thread of its own. Finish() bounds the wait: if the
// call has not returned in time it is released with stopWriteFileThread (so
// a defect fails the test instead of hanging it) and Finish reports false.
class RequestRunner {
public:
    RequestRunner(OrinFileTransferManager& manager, FileDescription file, bool registerOnly = false);
    ~RequestRunner();
    RequestRunner(const RequestRunner&) = delete;
    RequestRunner& operator=(const RequestRunner&) = delete;

    bool Returned() const { return mReturned.load(); }
    std::thread::id ThreadId() const { return mThreadId; }
    bool Finish(std::chrono::milliseconds bound = std::chrono::seconds(10));

private:
    OrinFileTransferManager& mManager;
    std::atomic<bool> mReturned{false};
    std::thread mThread;
    std::thread::id mThreadId;
    bool mFinished = false;
    bool mInTime = false;
};

// The listener calls of a reported transfer failure, in their order.
const std::vector<std::string>& FailureCalls();

// Messages of the captured lines (level -1: every level), in order.
std::vector<std::string> Messages(const CapturingLogger& logger, int level = -1);
// True when every item of `expected` occurs in `messages` in that order.
bool ContainsInOrder(const std::vector<std::string>& messages, const std::vector<std::string>& expected);
// Names of the recorded listener calls that are among `names`, in order.
std::vector<std::string> NamesAmong(const RecordingListener& listener, const std::vector<std::string>& names);

// Lowers the process's file-size limit for its lifetime and ignores SIGXFSZ,
// so that a write past the limit fails with EFBIG after a partial write.
class ScopedFileSizeLimit {
public:
    explicit ScopedFileSizeLimit(rlim_t bytes);
    ~ScopedFileSizeLimit();
    ScopedFileSizeLimit(const ScopedFileSizeLimit&) = delete;
    ScopedFileSizeLimit& operator=(const ScopedFileSizeLimit&) = delete;

private:
    rlimit mSaved{};
    struct sigaction mSavedAction {};
};

// Changes the working directory for its lifetime.
class ScopedWorkingDirectory {
public:
    explicit ScopedWorkingDirectory(const std::string& path);
    ~ScopedWorkingDirectory();
    ScopedWorkingDirectory(const ScopedWorkingDirectory&) = delete;
    ScopedWorkingDirectory& operator=(const ScopedWorkingDirectory&) = delete;

private:
    std::string mSaved;
};

// A looper factory that also notes which thread asked for each named looper.
class ThreadNotingLooperFactory : public TestLooperFactory {
public:
    using TestLooperFactory::TestLooperFactory;
    std::unique_ptr<IFileTransferLooper> CreateLooper(const std::string& name) override;
    using TestLooperFactory::CreateLooper;
    std::vector<std::thread::id> CreatorThreads() const;

private:
    mutable std::mutex mMutex;
    std::vector<std::thread::id> mCreators;
};

}  // namespace orin::xfer::test
