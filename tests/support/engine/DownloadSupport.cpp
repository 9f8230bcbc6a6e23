#include "DownloadSupport.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>

#include <gtest/gtest.h>

namespace orin::xfer::test {

FileDescription RemoteFile(const std::string& filePath, const std::string& fileName, uint64_t size,
                           const std::string& sourceDir)
{
    FileDescription file;
    file.sourceDir = sourceDir;
    file.filePath = filePath;
    file.fileName = fileName;
    file.attribute = kAttributeNormal;
    file.fileSize = size;
    return file;
}

std::string RequestNameOf(const FileDescription& file)
{
    return file.filePath.empty() ? file.fileName : file.filePath + "/" + file.fileName;
}

std::vector<FileTransferTask> TaskSnapshot(OrinFileTransferManager& manager)
{
    std::lock_guard<std::mutex> lock(manager.mTaskMutex);
    std::vector<FileTransferTask> tasks;
    for (const auto& task : manager.mFileTaskList) {
        tasks.push_back(*task);
    }
    return tasks;
}

std::vector<uint32_t> TransferIdsOf(const std::vector<FileTransferTask>& tasks)
{
    std::vector<uint32_t> ids;
    for (const auto& task : tasks) {
        ids.push_back(task.transferId);
    }
    return ids;
}

bool WaitForMarkerTask(OrinFileTransferManager& manager, const std::string& requestName,
                       std::chrono::milliseconds timeout)
{
    return waitUntil(
        [&] {
            std::lock_guard<std::mutex> lock(manager.mTaskMutex);
            return std::any_of(manager.mFileTaskList.begin(), manager.mFileTaskList.end(), [&](const auto& task) {
                return task->fileName == requestName && task->transferId == 0;
            });
        },
        timeout);
}

size_t SendChunks(IFileTransferManager& manager, uint32_t taskId, uint32_t transferId,
                  const std::vector<uint8_t>& bytes, const std::vector<size_t>& chunkSizes)
{
    if (bytes.empty()) {
        manager.ProcessFileDownloadData(taskId, transferId, 0, nullptr);
        return 1;
    }
    // The engine takes a mutable pointer; hand it a private copy.
    std::vector<uint8_t> payload = bytes;
    size_t offset = 0;
    size_t messages = 0;
    while (offset < payload.size()) {
        const size_t wanted = chunkSizes.empty() ? payload.size() : chunkSizes[messages % chunkSizes.size()];
        const size_t length = std::min(std::max<size_t>(wanted, 1), payload.size() - offset);
        manager.ProcessFileDownloadData(taskId, transferId, length, payload.data() + offset);
        offset += length;
        ++messages;
    }
    return messages;
}

void StartFile(IFileTransferManager& manager, uint32_t taskId, uint32_t transferId, const std::string& fileName,
               uint64_t size, const std::string& destDir)
{
    std::multimap<std::string, std::string> records;
    manager.ProcessFileDownloadStart(taskId, transferId, size, size, fileName, false, "tag", records, destDir, 0);
}

RequestRunner::RequestRunner(OrinFileTransferManager& manager, FileDescription file, bool registerOnly)
    : mManager(manager)
{
    mThread = std::thread([this, file = std::move(file), registerOnly] {
        mManager.RequestFile(file, registerOnly);
        mReturned = true;
    });
    mThreadId = mThread.get_id();
}

RequestRunner::~RequestRunner()
{
    if (!Finish()) {
        ADD_FAILURE() << "RequestFile was still blocked when its runner went away";
    }
}

bool RequestRunner::Finish(std::chrono::milliseconds bound)
{
    if (mFinished) {
        return mInTime;
    }
    mFinished = true;
    mInTime = waitUntil([this] { return Returned(); }, bound);
    // Release a request that overstayed, a few times in case of a lost wake-up.
    for (int attempt = 0; attempt < 50 && !Returned(); ++attempt) {
        mManager.stopWriteFileThread();
        waitUntil([this] { return Returned(); }, std::chrono::milliseconds(100));
    }
    if (!Returned()) {
        std::fprintf(stderr, "RequestFile stays blocked even after stopWriteFileThread\n");
        std::abort();
    }
    mThread.join();
    return mInTime;
}

const std::vector<std::string>& FailureCalls()
{
    static const std::vector<std::string> calls = {"onClipboardRelease", "onFileTransferFailed", "onReportEvent"};
    return calls;
}

std::vector<std::string> Messages(const CapturingLogger& logger, int level)
{
    std::vector<std::string> messages;
    for (const LogLine& line : logger.Lines()) {
        if (level < 0 || line.level == level) {
            messages.push_back(MessageOf(line.text));
        }
    }
    return messages;
}

bool ContainsInOrder(const std::vector<std::string>& messages, const std::vector<std::string>& expected)
{
    auto from = messages.begin();
    for (const std::string& wanted : expected) {
        from = std::find(from, messages.end(), wanted);
        if (from == messages.end()) {
            return false;
        }
        ++from;
    }
    return true;
}

std::vector<std::string> NamesAmong(const RecordingListener& listener, const std::vector<std::string>& names)
{
    std::vector<std::string> found;
    for (const std::string& name : listener.Names()) {
        if (std::find(names.begin(), names.end(), name) != names.end()) {
            found.push_back(name);
        }
    }
    return found;
}

ScopedFileSizeLimit::ScopedFileSizeLimit(rlim_t bytes)
{
    struct sigaction ignore {};
    ignore.sa_handler = SIG_IGN;
    sigemptyset(&ignore.sa_mask);
    if (sigaction(SIGXFSZ, &ignore, &mSavedAction) != 0 || getrlimit(RLIMIT_FSIZE, &mSaved) != 0) {
        throw std::runtime_error("cannot prepare the file-size limit");
    }
    rlimit lowered = mSaved;
    lowered.rlim_cur = bytes;
    if (setrlimit(RLIMIT_FSIZE, &lowered) != 0) {
        throw std::runtime_error("cannot lower the file-size limit");
    }
}

ScopedFileSizeLimit::~ScopedFileSizeLimit()
{
    setrlimit(RLIMIT_FSIZE, &mSaved);
    sigaction(SIGXFSZ, &mSavedAction, nullptr);
}

ScopedWorkingDirectory::ScopedWorkingDirectory(const std::string& path)
{
    char buffer[PATH_MAX];
    if (!getcwd(buffer, sizeof buffer) || chdir(path.c_str()) != 0) {
        throw std::runtime_error("cannot change the working directory to " + path);
    }
    mSaved = buffer;
}

ScopedWorkingDirectory::~ScopedWorkingDirectory()
{
    if (chdir(mSaved.c_str()) != 0) {
        std::fprintf(stderr, "cannot return to %s\n", mSaved.c_str());
    }
}

std::unique_ptr<IFileTransferLooper> ThreadNotingLooperFactory::CreateLooper(const std::string& name)
{
    {
        std::lock_guard<std::mutex> lock(mMutex);
        mCreators.push_back(std::this_thread::get_id());
    }
    return TestLooperFactory::CreateLooper(name);
}

std::vector<std::thread::id> ThreadNotingLooperFactory::CreatorThreads() const
{
    std::lock_guard<std::mutex> lock(mMutex);
    return mCreators;
}

}  // namespace orin::xfer::test
