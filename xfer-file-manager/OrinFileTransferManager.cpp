// The clipboard file-transfer engine.
//
// Sections, in order: helpers; construction and configuration; task table,
// cancellation and errors; cache directory and filesystem helpers; local
// enumeration and the JSON file list; upload start; upload worker and flow
// control; file requests; download start and duplicate renaming; download
// data and the writer looper.
//
// Several behaviours here look odd but are relied on by existing peers and
// are kept on purpose: log texts with their misspellings, the return-value
// rule of createDir, removeDir's result overwrite, failed streams that
// silently complete, completion by exact byte equality, and the
// acknowledgement flag that is cleared at the start of each window wait.
#include "OrinFileTransferManager.h"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstring>
#include <limits>
#include <sstream>
#include <stdexcept>
#include <thread>
#include <utility>

#include <json/json.h>

#include "LogMacros.h"

namespace orin::xfer {

namespace {

constexpr uint32_t kNoTransferId = 0xFFFFFFFF;
constexpr uint64_t kUploadChunkSize = 65536;
constexpr int32_t kProgressTickInterval = 50;
constexpr const char* kWriterLooperName = "xfer-downloader";
constexpr const char* kUploadHandOffName = "doFileUploadTask";
constexpr const char* kRequestFileJobName = "RequestFile";

bool isDirectoryAttribute(uint32_t attribute)
{
    return (attribute & kAttributeDirectory) != 0;
}

int64_t nowMs()
{
    const auto sinceEpoch = std::chrono::system_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::microseconds>(sinceEpoch).count() / 1000;
}

void replaceAll(std::string& text, char from, char to)
{
    std::replace(text.begin(), text.end(), from, to);
}

// filePath + "/" + fileName, or fileName alone at the top level: the key that
// matches tasks, pending downloads and download records.
std::string requestNameOf(const FileDescription& file)
{
    if (file.filePath.empty()) {
        return file.fileName;
    }
    return file.filePath + kPathSeparator + file.fileName;
}

// Closes a stream that may already be closed or bad without letting the
// stream's exception mask turn the close into a throw.
void closeQuietly(const std::shared_ptr<std::fstream>& stream)
{
    if (!stream) {
        return;
    }
    try {
        if (stream->is_open()) {
            stream->close();
        }
    } catch (const std::exception&) {
    }
}

// floor(bytes * 8000 / bitsPerSecond) milliseconds, saturated: an infinite
// quotient (bandwidth 0) gives the largest count, 0 over 0 gives 0.
uint64_t bandwidthDelayMs(uint64_t bytes, uint64_t bitsPerSecond)
{
    const double quotient = std::floor(static_cast<double>(bytes) * 8000.0 / static_cast<double>(bitsPerSecond));
    if (std::isnan(quotient) || quotient <= 0.0) {
        return 0;
    }
    if (quotient >= 18446744073709551616.0) {
        return std::numeric_limits<uint64_t>::max();
    }
    return static_cast<uint64_t>(quotient);
}

// transferred / size * 100, truncated toward zero into 32 bits (saturating
// where the quotient does not fit, so an empty announced size is no UB).
uint32_t percentOf(uint64_t transferred, uint64_t size)
{
    const double percent = static_cast<double>(transferred) / static_cast<double>(size) * 100.0;
    if (std::isnan(percent) || percent <= 0.0) {
        return 0;
    }
    if (percent >= 4294967296.0) {
        return std::numeric_limits<uint32_t>::max();
    }
    return static_cast<uint32_t>(percent);
}

// One chunk read by the upload worker, handed to the listener on the main
// looper. Its buffer is zero-filled: the bytes a read does not fill are
// zeroed after the read, which leaves exactly the contents of a buffer
// zeroed up front without clearing 64 KiB per chunk first.
struct UploadChunk {
    explicit UploadChunk(uint32_t id) : transferId(id), data(static_cast<uint8_t*>(std::malloc(kUploadChunkSize))) {}
    UploadChunk(const UploadChunk&) = delete;
    UploadChunk& operator=(const UploadChunk&) = delete;
    ~UploadChunk() { std::free(data); }

    void ZeroFrom(uint64_t offset) { std::memset(data + offset, 0, kUploadChunkSize - offset); }

    uint32_t transferId;
    uint8_t* data;
    uint64_t size = 0;
    uint32_t chunkSize = static_cast<uint32_t>(kUploadChunkSize);
    uint32_t chunkCount = 0;
};

struct DirCloser {
    void operator()(DIR* dir) const { closedir(dir); }
};
using DirHandle = std::unique_ptr<DIR, DirCloser>;

}  // namespace

std::atomic<uint32_t> OrinFileTransferManager::mTaskId{1};

// ---------------------------------------------------------------------------
// Construction and configuration
// ---------------------------------------------------------------------------

std::unique_ptr<IFileTransferManager> IFileTransferManager::NewInstance(
    FileTransferListener* listener, std::unique_ptr<IFileTransferLooperFactory> looperFactory, bool flowControl,
    std::unique_ptr<IFileTransferRateLimiter> rateLimiter)
{
    XLOG_I << "IFileTransferManager::NewInstance " << static_cast<const void*>(looperFactory.get());
    return std::make_unique<OrinFileTransferManager>(listener, std::move(looperFactory), flowControl,
                                                     std::move(rateLimiter));
}

OrinFileTransferManager::OrinFileTransferManager(FileTransferListener* listener,
                                                 std::unique_ptr<IFileTransferLooperFactory> looperFactory,
                                                 bool flowControl,
                                                 std::unique_ptr<IFileTransferRateLimiter> rateLimiter)
    : mListener(listener), mFlowControl(flowControl)
{
    if (!looperFactory) {
        throw std::invalid_argument("OrinFileTransferManager needs a looper factory");
    }
    XLOG_I << "Create OrinFileTransferManager";
    if (rateLimiter) {
        mRateLimiter = std::move(rateLimiter);
        mRateLimiter->SetBandwidth(50000000);
    }
    mLooperFactory = std::move(looperFactory);
    mMainLooper = mLooperFactory->CreateLooper();
    mWriterLooper = mLooperFactory->CreateLooper(kWriterLooperName);
    XLOG_I << "Create OrinFileTransferManager done";
}

// The members then go in reverse declaration order: writer looper, main
// looper, factory, system type, rate limiter, and the rest.
OrinFileTransferManager::~OrinFileTransferManager()
{
    ClearTask();
    waitForUploadWorkers();
    // A writer job that failed has retired its own looper, whose thread
    // nobody joins: its stopWriteFileThread must be over before the members go.
    std::unique_lock<std::mutex> workers(mWorkerMutex);
    mWorkerCondition.wait(workers, [this] { return mWriterStopsInFlight == 0; });
}

void OrinFileTransferManager::waitForUploadWorkers()
{
    std::unique_lock<std::mutex> workers(mWorkerMutex);
    while (mActiveUploadWorkers > 0) {
        workers.unlock();
        // The worker may be inside a bandwidth delay or a window wait it
        // entered just after the quit: cut both short.
        mQuitUpload = true;
        {
            std::lock_guard<std::mutex> delay(mDelayMutex);
        }
        mDelayCondition.notify_all();
        {
            std::lock_guard<std::mutex> upload(mUploadMutex);
            mUploadAcked = true;
            mUploadCondition.notify_all();
        }
        workers.lock();
        mWorkerCondition.wait_for(workers, std::chrono::milliseconds(10),
                                  [this] { return mActiveUploadWorkers == 0; });
    }
}

void OrinFileTransferManager::SetFlowControl(bool enabled)
{
    mFlowControl = enabled;
}

void OrinFileTransferManager::SetBandwidth(uint32_t kbps)
{
    mBandwidth = kbps;
    if (kbps != 0 && mRateLimiter) {
        // Unsigned 32-bit product: wraps above 4,294,967 kbps.
        mRateLimiter->SetBandwidth(static_cast<uint32_t>(kbps * 1000u));
    }
}

void OrinFileTransferManager::SetSystemType(const std::string& type)
{
    mSystemType = type;
    XLOG_I << "mSystemType = " << mSystemType;
}

uint32_t OrinFileTransferManager::getTaskId()
{
    mTaskId.fetch_add(2);
    return mTaskId.load();
}

std::wstring OrinFileTransferManager::utf8ToWstring(const std::string& text)
{
    static const char* const kError = "wstring_convert: from_bytes error";
    std::wstring out;
    out.reserve(text.size());
    size_t i = 0;
    while (i < text.size()) {
        const auto lead = static_cast<unsigned char>(text[i]);
        uint32_t codePoint = 0;
        size_t length = 0;
        if (lead < 0x80) {
            codePoint = lead;
            length = 1;
        } else if (lead >= 0xC2 && lead <= 0xDF) {
            codePoint = lead & 0x1F;
            length = 2;
        } else if (lead >= 0xE0 && lead <= 0xEF) {
            codePoint = lead & 0x0F;
            length = 3;
        } else if (lead >= 0xF0 && lead <= 0xF4) {
            codePoint = lead & 0x07;
            length = 4;
        } else {
            throw std::range_error(kError);
        }
        if (i + length > text.size()) {
            throw std::range_error(kError);
        }
        for (size_t k = 1; k < length; ++k) {
            const auto next = static_cast<unsigned char>(text[i + k]);
            if ((next & 0xC0) != 0x80) {
                throw std::range_error(kError);
            }
            codePoint = (codePoint << 6) | (next & 0x3F);
        }
        const bool overlong = (length == 3 && codePoint < 0x800) || (length == 4 && codePoint < 0x10000);
        const bool surrogate = codePoint >= 0xD800 && codePoint <= 0xDFFF;
        if (overlong || surrogate || codePoint > 0x10FFFF) {
            throw std::range_error(kError);
        }
        out.push_back(static_cast<wchar_t>(codePoint));
        i += length;
    }
    return out;
}

// ---------------------------------------------------------------------------
// Task table, cancellation and errors
// ---------------------------------------------------------------------------

void OrinFileTransferManager::deleteTask(uint32_t transferId)
{
    // On the thread of a writer that is being retired the mutex may never
    // come: the stop holding it waits for this thread. Its tasks go anyway.
    std::unique_lock<std::mutex> lock(mTaskMutex, std::defer_lock);
    if (lockTaskListForWriter(lock)) {
        deleteTaskLocked(transferId);
    }
}

void OrinFileTransferManager::deleteTaskLocked(uint32_t transferId)
{
    auto it = std::find_if(mFileTaskList.begin(), mFileTaskList.end(),
                           [transferId](const auto& task) { return task->transferId == transferId; });
    if (it == mFileTaskList.end()) {
        return;
    }
    XLOG_I << "delete task id = " << transferId;
    const std::shared_ptr<std::fstream>& stream = (*it)->stream;
    if (stream && stream->rdbuf()->close() == nullptr) {
        try {
            stream->setstate(std::ios_base::failbit);
        } catch (const std::exception&) {
        }
    }
    mFileTaskList.erase(it);
}

std::vector<std::shared_ptr<FileTransferTask>>& OrinFileTransferManager::getFileTaskList()
{
    return mFileTaskList;
}

void OrinFileTransferManager::ClearTask()
{
    mFileTaskList.clear();
    mDownloadFileList.clear();
    mDownloadFileRecordList.clear();
    mUploadFileList.clear();
    stopWriteFileThread();
    quitUploadThread();
}

void OrinFileTransferManager::Cancel()
{
    XLOG_I << "client clipboard paste cancel";
    if (mListener) {
        mListener->onClipboardRelease();
    }
    ClearTask();
}

void OrinFileTransferManager::notifyRemoteClipboardRelease()
{
    if (mListener) {
        mListener->onClipboardRelease();
    }
}

void OrinFileTransferManager::ProcessXferError(uint32_t taskId, uint32_t transferId)
{
    const bool isUpload = (transferId & 1u) != 0;
    if (isUpload) {
        quitUploadThread();
    } else {
        stopWriterUnderTaskLock();
        mDownloadFileList.clear();
        mDownloadFileRecordList.clear();
    }
    deleteTask(transferId);
    if (mListener) {
        mListener->onFileTransferFailed(taskId, transferId, isUpload ? 3 : 2);
    }
}

void OrinFileTransferManager::ProcessTansferDisconnect()
{
    XLOG_I << "processTansferDisconnect";
    if (mListener) {
        mListener->onFileTransferFailed(kNoTransferId, 0, 1);
    }
    quitUploadThread();
}

// The message is deliberately not passed on: callers log their own reason.
void OrinFileTransferManager::notifyTransferFailed(uint32_t taskId, uint32_t transferId, const std::string& message,
                                                   bool flag)
{
    (void)message;
    if (!mListener) {
        return;
    }
    mListener->onClipboardRelease();
    mListener->onFileTransferFailed(taskId, transferId, 1);
    mListener->onReportEvent("onFileTransferFailed", flag);
}

// ---------------------------------------------------------------------------
// Cache directory and filesystem helpers
// ---------------------------------------------------------------------------

void OrinFileTransferManager::SetCacheDir(const std::string& path)
{
    mCacheDirPath = path;
    XLOG_I << "mCacheDirPath = " << path;
    removeDir(mCacheDirPath);
}

bool OrinFileTransferManager::isFileExist(const std::string& path, bool& isDir)
{
    if (path.empty()) {
        XLOG_W << "file name is null";
        return false;
    }
    const bool accessible = access(path.c_str(), F_OK) == 0;
    struct stat status {};
    if (stat(path.c_str(), &status) == -1) {
        const int error = errno;
        XLOG_E << "stat " << path << " failed, errno " << error;
        return false;
    }
    isDir = S_ISDIR(status.st_mode);
    XLOG_I << path << " is exist " << (accessible ? 1 : 0);
    return accessible;
}

// The parent of a separator-free path is the path itself, so a missing
// relative name without a separator recurses until the stack runs out:
// callers must pass paths that hold a separator.
int32_t OrinFileTransferManager::createDir(const std::string& dirPath)
{
    if (dirPath.empty()) {
        return -1;
    }
    if (access(dirPath.c_str(), F_OK) == 0) {
        return 0;
    }
    const size_t separator = dirPath.find_last_of(kPathSeparator);
    const std::string parent = separator == std::string::npos ? dirPath : dirPath.substr(0, separator);
    int32_t ret = createDir(parent);
    if (ret == 0) {
        ret = mkdir(dirPath.c_str(), 0775);
        // Compares the return value, not errno, with EEXIST's number: kept as is.
        if (ret == 17) {
            ret = 0;
        }
    }
    XLOG_I << "ret = " << ret;
    return ret;
}

int32_t OrinFileTransferManager::removeDir(const std::string& path)
{
    if (path.empty()) {
        XLOG_W << "path is null" << '\n';
        return -1;
    }
    DirHandle dir(opendir(path.c_str()));
    if (!dir) {
        const int error = errno;
        XLOG_E << "open dir failed, error message = " << strerror(error) << '\n';
        return -1;
    }
    int32_t ret = 0;
    while (const dirent* entry = readdir(dir.get())) {
        const std::string name = entry->d_name;
        if (name == "." || name == "..") {
            continue;
        }
        const std::string child = path + kPathSeparator + name;
        struct stat status {};
        if (stat(child.c_str(), &status) != 0) {
            const int error = errno;
            XLOG_E << "stat failed for " << child << ", error message = " << strerror(error) << '\n';
            ret = -1;
        } else if (S_ISDIR(status.st_mode)) {
            // A later success clears an earlier failure: kept on purpose.
            ret = removeDir(child);
        } else if (unlink(child.c_str()) != 0) {
            const int error = errno;
            XLOG_E << "unlink failed for " << child << ", error message = " << strerror(error) << '\n';
            ret = -1;
        }
    }
    dir.reset();
    if (ret != 0) {
        return -1;
    }
    if (rmdir(path.c_str()) != 0) {
        const int error = errno;
        XLOG_E << "rmdir failed for " << path << ", error message = " << strerror(error) << '\n';
        return -1;
    }
    return 0;
}

// ---------------------------------------------------------------------------
// Local enumeration and the JSON file list
// ---------------------------------------------------------------------------

void OrinFileTransferManager::ParseFilePath(const std::string& path, FileDescription& desc, const std::string& root)
{
    XLOG_D << "Parse file " << path;
    desc.filePath.clear();
    desc.fileName.clear();
    bool isDir = false;
    isFileExist(path, isDir);

    std::string separator = kPathSeparator;
    if (path.find('/') != std::string::npos) {
        separator = "/";
    } else if (path.find('\\') != std::string::npos) {
        separator = "\\";
    }

    const size_t last = path.find_last_of(separator);
    if (isDir) {
        if (last != std::string::npos) {
            desc.sourceDir = path.substr(0, last);
            desc.fileName = path.substr(last + 1);
        } else {
            desc.sourceDir = path;
        }
    } else if (last == std::string::npos) {
        desc.sourceDir = path;
    } else {
        desc.fileName = path.substr(last + 1);
        if (root.empty()) {
            desc.sourceDir = path.substr(0, last);
        } else {
            desc.sourceDir = root;
            // Between root + separator and the separator before the name; a
            // path directly under the root gives a negative length, i.e. "".
            const int64_t start = static_cast<int64_t>(root.size()) + 1;
            const int64_t length = static_cast<int64_t>(path.size()) - static_cast<int64_t>(root.size()) -
                                   static_cast<int64_t>(desc.fileName.size()) - (desc.fileName.empty() ? 1 : 2);
            if (length > 0 && start < static_cast<int64_t>(path.size())) {
                desc.filePath = path.substr(static_cast<size_t>(start), static_cast<size_t>(length));
            }
        }
    }
    XLOG_D << "Parse got file " << desc.sourceDir << ", " << desc.filePath << ", " << desc.fileName;
}

// Hidden entries are skipped; directories are walked depth first in the
// directory stream's order and never appear in `files` themselves.
bool OrinFileTransferManager::getTotalSize(const std::string& dirPath, size_t& totalSize,
                                           std::vector<FileDescription>& files, const std::string& root)
{
    DirHandle dir(opendir(dirPath.c_str()));
    if (!dir) {
        XLOG_W << "Error opening directory: " << dirPath << std::endl;
        return false;
    }
    while (const dirent* entry = readdir(dir.get())) {
        const std::string name = entry->d_name;
        if (name.empty() || name[0] == '.') {
            continue;
        }
        const std::string child = dirPath + "/" + name;
        struct stat status {};
        if (stat(child.c_str(), &status) != 0) {
            XLOG_W << "Error getting stats for: " << child << std::endl;
            return false;
        }
        XLOG_D << "Find new entry: " << child << ", " << name << ", " << dirPath << ", " << status.st_size;
        FileDescription description;
        ParseFilePath(child, description, root);
        const bool isDir = S_ISDIR(status.st_mode);
        description.attribute = isDir ? kAttributeDirectory : kAttributeNormal;
        description.fileSize = static_cast<uint64_t>(status.st_size);
        if (!isDir) {
            totalSize += static_cast<size_t>(status.st_size);
            files.push_back(std::move(description));
        } else if (!getTotalSize(child, totalSize, files, root)) {
            return false;
        }
    }
    return true;
}

void OrinFileTransferManager::SendFileDesc()
{
    Json::Value document;
    Json::StreamWriterBuilder builder;
    std::string lastSourceDir;
    for (const FileDescription& file : mUploadFileList) {
        lastSourceDir = file.sourceDir;
        Json::Value entry;
        entry["filePath"] = file.filePath;
        entry["fileName"] = file.fileName;
        entry["attribute"] = static_cast<Json::Int>(file.attribute);
        entry["mode"] = static_cast<Json::Int>(file.mode);
        entry["fileSize"] = static_cast<Json::UInt64>(file.fileSize);
        document["fileList"].append(entry);
    }
    document["root"] = lastSourceDir;

    std::ostringstream text;
    std::unique_ptr<Json::StreamWriter> writer(builder.newStreamWriter());
    writer->write(document, &text);
    const std::string jsonData = text.str();
    XLOG_I << "Send file desc, jsonData = " << jsonData;
    if (mListener) {
        mListener->onSendFileDesc(jsonData);
    }
}

// ---------------------------------------------------------------------------
// Upload start
// ---------------------------------------------------------------------------

uint32_t OrinFileTransferManager::UploadFiles(uint32_t id, size_t totalSize, const std::string& recordTag,
                                              std::multimap<std::string, std::string>& records, bool& listEmpty)
{
    listEmpty = false;
    if (mUploadFileList.empty()) {
        XLOG_W << "uploadFiles list is empty !";
        mUploading = false;
        listEmpty = true;
        return kNoTransferId;
    }

    // The remote side asks in list order, so the front entry is the one wanted.
    const FileDescription file = mUploadFileList.front();
    std::string relative = file.filePath;
    if (!relative.empty()) {
        relative += kPathSeparator;
    }
    relative += file.fileName;
    std::string sourcePath = file.sourceDir + kPathSeparator + relative;
    replaceAll(sourcePath, '\\', '/');
    std::string remoteName = file.destFilePath;
    if (!remoteName.empty()) {
        remoteName += kPathSeparator;
    }
    remoteName += file.destFileName;
    const std::string destFullPath = file.destDir + remoteName;

    XLOG_I << "task id " << id << ", open file full path = " << sourcePath << " success fileSize=" << file.fileSize;
    XLOG_I << "task id " << id << ", dest file full path = " << destFullPath;

    bool isDir = false;
    if (!isFileExist(sourcePath, isDir)) {
        XLOG_W << sourcePath << " is not exist";
        notifyTransferFailed(id, 0, sourcePath + " is not exist", true);
        mUploading = false;
        return kNoTransferId;
    }

    records.emplace("Records.1.TaskType", "UPLOAD");
    records.emplace("Records.1.FileName", file.fileName);
    records.emplace("Records.1.FileSize", std::to_string(file.fileSize));
    records.emplace("Records.1.SourcePath", sourcePath);
    if (mListener) {
        mListener->onTransferRecord(recordTag, records);
    }

    const uint32_t transferId = getTaskId();
    sendFileStartXfer(id, transferId, remoteName, file.destDir, isDirectoryAttribute(file.attribute), file.flag,
                      totalSize, file.fileSize);

    auto task = std::make_shared<FileTransferTask>();
    task->taskId = id;
    task->transferId = transferId;
    task->fileName = file.fileName;
    task->fileSize = file.fileSize;
    task->totalSize = totalSize;
    task->flag = file.flag;
    task->fileFullPath = sourcePath;
    {
        std::lock_guard<std::mutex> lock(mTaskMutex);
        mFileTaskList.push_back(std::move(task));
    }
    mUploadFileList.erase(mUploadFileList.begin());
    return transferId;
}

void OrinFileTransferManager::sendFileStartXfer(uint32_t id, uint32_t transferId, const std::string& fileName,
                                                const std::string& dest, bool isDir, uint32_t flag, size_t totalSize,
                                                size_t size)
{
    XLOG_I << "task id " << id << ", transfer id = " << transferId << ", fileName =" << fileName << ", dest "
           << dest << ", flag " << flag << ", size = " << size << ", task total size " << totalSize << ", isDir "
           << isDir;
    if (mListener) {
        mListener->onSendFileStart(id, transferId, fileName, dest, isDir, flag, totalSize, size);
    }
}

bool OrinFileTransferManager::ValidateFileList(std::vector<FileDescription>& list, size_t& totalSize,
                                               bool& hasDirectory, std::vector<FileDescription>& expanded)
{
    totalSize = 0;
    for (FileDescription& file : list) {
        std::string relative = file.filePath;
        if (!file.filePath.empty() && !file.fileName.empty()) {
            relative += kPathSeparator;
        }
        relative += file.fileName;
        std::string path = file.sourceDir + kPathSeparator + relative;
        replaceAll(path, '\\', '/');

        bool isDir = false;
        if (!isFileExist(path, isDir)) {
            XLOG_W << path << " is not exist";
            return false;
        }
        if (!isDir) {
            struct stat status {};
            stat(path.c_str(), &status);
            totalSize += static_cast<size_t>(status.st_size);
            file.fileSize = static_cast<uint64_t>(status.st_size);
            file.attribute = kAttributeNormal;
        } else {
            hasDirectory = true;
            size_t size = 0;
            if (!getTotalSize(path, size, expanded, file.sourceDir)) {
                XLOG_W << "failed to calculate size under directory " << path;
                return false;
            }
            totalSize += size;
            file.fileSize = size;
            file.attribute = kAttributeDirectory;
        }
    }
    return true;
}

// ---------------------------------------------------------------------------
// Upload worker and flow control
// ---------------------------------------------------------------------------

void OrinFileTransferManager::ProcessFileUploadData(uint32_t transferId)
{
    XLOG_I << "id = " << transferId;
    std::shared_ptr<FileTransferTask> task;
    {
        std::lock_guard<std::mutex> lock(mTaskMutex);
        auto it = std::find_if(mFileTaskList.begin(), mFileTaskList.end(),
                               [transferId](const auto& candidate) { return candidate->transferId == transferId; });
        if (it == mFileTaskList.end()) {
            XLOG_E << "task id = " << transferId << " is not in uploadFiles list!";
            return;
        }
        task = *it;
        mFileTaskList.erase(it);
    }

    if (task->fileSize == 0) {
        XLOG_D << "file size is 0 ,send null data";
        if (mListener) {
            mListener->onSendFileData(task->taskId, task->transferId, nullptr, 0);
        }
        return;
    }

    mQuitUpload = false;
    mUploading = true;
    {
        std::lock_guard<std::mutex> workers(mWorkerMutex);
        ++mActiveUploadWorkers;
    }
    std::thread([this, task] {
        doFileUploadTask(task);
        // Last touch of the manager: the destructor may proceed once this
        // lock is released.
        std::lock_guard<std::mutex> workers(mWorkerMutex);
        --mActiveUploadWorkers;
        mWorkerCondition.notify_all();
    }).detach();
}

void OrinFileTransferManager::doFileUploadTask(std::shared_ptr<FileTransferTask> task)
{
    const uint32_t taskId = task->taskId;
    const uint32_t transferId = task->transferId;
    XLOG_I << "Start file upload task, " << transferId;

    auto stream = std::make_shared<std::fstream>();
    try {
        stream->exceptions(std::ios_base::badbit);
        stream->open(task->fileFullPath, std::ios_base::in | std::ios_base::binary);
        task->stream = stream;
        stream->seekg(0, std::ios_base::beg);
    } catch (const std::exception& error) {
        const std::string message = error.what();
        XLOG_W << "open stream falied " << message;
        mMainLooper->Post(kUploadHandOffName, [this, transferId, taskId, message] {
            notifyTransferFailed(taskId, transferId, message, true);
        });
        mUploading = false;
        return;
    }

    auto handOff = [this, taskId](std::shared_ptr<UploadChunk> chunk, bool readFailed) {
        mMainLooper->Post(kUploadHandOffName, [this, taskId, chunk, readFailed] {
            if (readFailed) {
                notifyTransferFailed(taskId, chunk->transferId, "read file stream failed", true);
                return;
            }
            for (uint64_t offset = 0; offset < chunk->size;) {
                const uint64_t piece = std::min<uint64_t>(chunk->size - offset, chunk->chunkSize);
                if (mListener) {
                    mListener->onSendFileData(taskId, chunk->transferId, chunk->data + offset,
                                              static_cast<int64_t>(static_cast<int32_t>(piece)));
                }
                offset += piece;
            }
        });
    };
    // A stream that turned bad is reported once, as a read failure; the
    // next end-of-data test sees the bad stream and ends the loop.
    auto failRead = [&](const std::exception& error) {
        XLOG_W << "read stream failed " << error.what();
        closeQuietly(stream);
        mUploading = false;
        auto empty = std::make_shared<UploadChunk>(transferId);
        empty->ZeroFrom(0);
        handOff(std::move(empty), true);
        mUnackedChunkCount += 1;
    };
    // peek() on a stream whose open failed just answers end of file; on a
    // bad stream it would throw under the badbit mask, so test that first.
    auto atEndOfData = [&]() {
        if (stream->bad()) {
            return true;
        }
        try {
            return stream->peek() == std::char_traits<char>::eof();
        } catch (const std::exception& error) {
            failRead(error);
            return true;
        }
    };

    try {
        bool firstPass = true;
        uint64_t previousBytes = 0;
        while (true) {
            if (atEndOfData() || mQuitUpload) {
                break;
            }
            // Equality only: a window lowered below the count disables waits.
            if (mUnackedChunkCount == mUploadWindowSize) {
                waitUpload();
                mUnackedChunkCount = 0;
                processWaitUploadTimeout();
            }
            if (mQuitUpload) {
                break;
            }
            const int64_t passStartMs = nowMs();
            if (!firstPass && mFlowControl && mRateLimiter) {
                delayUpload(bandwidthDelayMs(previousBytes, mRateLimiter->GetBandwidth()));
                if (!mRateLimiter->Acquire(previousBytes, passStartMs)) {
                    continue;
                }
            }
            firstPass = false;

            auto chunk = std::make_shared<UploadChunk>(transferId);
            try {
                stream->read(reinterpret_cast<char*>(chunk->data), static_cast<std::streamsize>(kUploadChunkSize));
            } catch (const std::exception& error) {
                failRead(error);
                continue;
            }
            chunk->size = static_cast<uint64_t>(stream->gcount());
            chunk->ZeroFrom(chunk->size);
            chunk->chunkCount = static_cast<uint32_t>((chunk->size + kUploadChunkSize - 1) / kUploadChunkSize);
            if (mRateLimiter) {
                mRateLimiter->Consume(chunk->size, nowMs());
            }
            XLOG_D << "doFileUploadTask readbytes=" << chunk->size << ", chunkCount=" << chunk->chunkCount;
            const uint32_t chunkCount = chunk->chunkCount;
            previousBytes = chunk->size;
            handOff(std::move(chunk), false);
            mUnackedChunkCount += chunkCount;
        }
        XLOG_D << task->fileName << " doFileUploadTask is completed !";
    } catch (const std::exception& error) {
        // Only a host collaborator (the rate limiter) can get here; the
        // failure is reported like a read failure rather than lost.
        XLOG_W << "read stream failed " << error.what();
        mUploading = false;
        auto empty = std::make_shared<UploadChunk>(transferId);
        empty->ZeroFrom(0);
        handOff(std::move(empty), true);
    }
    mUnackedChunkCount = 0;
    closeQuietly(stream);
}

void OrinFileTransferManager::waitUpload()
{
    XLOG_D << "waitUpload";
    std::unique_lock<std::mutex> lock(mUploadMutex);
    mUploadAcked = false;
    const auto deadline = std::chrono::system_clock::now() + std::chrono::microseconds(30000000);
    mUploadCondition.wait_until(lock, deadline, [this] { return mUploadAcked.load(); });
}

void OrinFileTransferManager::processWaitUploadTimeout()
{
    if (mUploadAcked) {
        return;
    }
    XLOG_W << "wait upload timeout, quit upload";
    mQuitUpload = true;
    mUploadFileList.clear();
    mUploading = false;
}

// Sleeps while holding the upload mutex, so an acknowledgement arriving
// meanwhile waits for the delay to end. A quit cuts the sleep short.
void OrinFileTransferManager::delayUpload(uint64_t milliseconds)
{
    if (milliseconds == 0) {
        return;
    }
    XLOG_D << "delayUpload, time: " << milliseconds;
    std::lock_guard<std::mutex> upload(mUploadMutex);
    if (static_cast<int64_t>(milliseconds) < 1) {
        return;  // 2^63 ms and above: logged, not slept
    }
    constexpr uint64_t kSaturatingMs = 9223372036000ull;
    const std::chrono::nanoseconds length =
        milliseconds >= kSaturatingMs ? std::chrono::nanoseconds::max()
                                      : std::chrono::nanoseconds(static_cast<int64_t>(milliseconds) * 1000000);
    const auto start = std::chrono::steady_clock::now();
    std::unique_lock<std::mutex> delay(mDelayMutex);
    while (!mQuitUpload) {
        const auto elapsed = std::chrono::steady_clock::now() - start;
        if (elapsed >= length) {
            break;
        }
        const auto remaining = std::chrono::duration_cast<std::chrono::nanoseconds>(length - elapsed);
        mDelayCondition.wait_for(delay, std::min<std::chrono::nanoseconds>(remaining, std::chrono::hours(1)));
    }
}

void OrinFileTransferManager::NotifyUpload()
{
    if (!IsUploading()) {
        return;
    }
    XLOG_D << "notifyUpload";
    std::lock_guard<std::mutex> lock(mUploadMutex);
    mUploadAcked = true;
    mUploadCondition.notify_one();
}

bool OrinFileTransferManager::IsUploading()
{
    return mUploading;
}

void OrinFileTransferManager::SetUploadWindowsSize(uint32_t size)
{
    XLOG_I << "uploadWindowsSize = " << size;
    mUploadWindowSize = size;
}

void OrinFileTransferManager::quitUploadThread()
{
    XLOG_D << "quitUploadThread";
    mQuitUpload = true;
    {
        std::lock_guard<std::mutex> delay(mDelayMutex);
    }
    mDelayCondition.notify_all();
    mUploadFileList.clear();
    NotifyUpload();
    mUnackedChunkCount = 0;
    mUploading = false;
}

// ---------------------------------------------------------------------------
// File requests and download records
// ---------------------------------------------------------------------------

void OrinFileTransferManager::RequestFileDesc()
{
    XLOG_I << "requestFileDesc";
    mFileRequested = false;
    if (mListener) {
        mListener->onRequestFileDesc();
    }
}

bool OrinFileTransferManager::isFileInTask(const std::string& requestName)
{
    for (const auto& task : mFileTaskList) {
        if (task->fileName == requestName) {
            XLOG_D << "file " << requestName << " is in task";
            return true;
        }
    }
    return false;
}

void OrinFileTransferManager::RequestFile(const FileDescription& file, bool registerOnly)
{
    if (registerOnly) {
        if (!mFileRequested) {
            XLOG_I << "clipboard request file to remote";
            mFileRequested = true;
            if (mListener) {
                mListener->onRequestFile();
            }
        }
        const std::string requestName = requestNameOf(file);
        if (!isFileInTask(requestName)) {
            auto task = std::make_shared<FileTransferTask>();
            task->fileName = requestName;
            mFileTaskList.push_back(std::move(task));
        }
        mRegisterOnlyRequest = true;
        return;
    }

    if (mCacheDirPath.empty()) {
        XLOG_E << "cache dir is not set";
        return;
    }

    // Held to the end, but for the wait; the stops below run under it.
    std::unique_lock<std::mutex> lock(mTaskMutex);

    if (!mFileRequested) {
        XLOG_I << "clipboard request file to remote";
        mFileRequested = true;
        mMainLooper->Post(kRequestFileJobName, [this] {
            if (mListener) {
                mListener->onRequestFile();
            }
        });
        if (removeDir(mCacheDirPath) != 0) {
            XLOG_W << "remove cache dir failed";
        }
    }

    const std::string requestName = requestNameOf(file);
    const std::string cacheFilePath = mCacheDirPath + kPathSeparator + requestName;
    const std::string cacheDir =
        file.filePath.empty() ? mCacheDirPath : mCacheDirPath + kPathSeparator + file.filePath;
    XLOG_D << "file full path = " << cacheFilePath;

    bool isDir = false;
    if (!isFileInTask(requestName) && !isFileExist(cacheFilePath, isDir)) {
        if (createDir(cacheDir) != 0) {
            notifyTransferFailed(kNoTransferId, 0, "create dir failed", false);
            stopWriteFileThread();
            lock.unlock();
            return;
        }
        try {
            // Only a bad stream throws: a failed open still gets its marker task.
            auto stream = std::make_shared<std::fstream>();
            stream->exceptions(std::ios_base::badbit);
            stream->open(cacheFilePath, std::ios_base::out | std::ios_base::binary | std::ios_base::app);
            auto marker = std::make_shared<FileTransferTask>();
            marker->fileName = requestName;
            marker->stream = std::move(stream);
            mFileTaskList.push_back(std::move(marker));
        } catch (const std::exception& error) {
            XLOG_W << "open stream falied " << error.what();
            notifyTransferFailed(kNoTransferId, 0, error.what(), false);
            stopWriteFileThread();
            lock.unlock();
            return;
        }
    }

    if (isFileInTask(requestName)) {
        XLOG_D << "fileName = " << requestName << " is in task, start wait download";
        // Any download's completion ends the wait, not only this file's.
        mDownloadComplete = false;
        mDownloadCondition.wait(lock, [this] { return mDownloadComplete.load(); });
    } else {
        XLOG_D << "fileName = " << requestName << " is downloaded, direct copy";
        mDownloadComplete = true;
    }

    for (auto it = mDownloadFileList.begin(); it != mDownloadFileList.end();) {
        const std::string pendingName = requestNameOf(*it);
        XLOG_D << "download file name = " << pendingName << ", reuqest file name = " << requestName;
        if (pendingName == requestName) {
            it = mDownloadFileList.erase(it);
        } else {
            ++it;
        }
    }
    if (mDownloadFileList.empty()) {
        XLOG_I << "all files download complete";
        stopWriteFileThread();
    }
    lock.unlock();
    mRegisterOnlyRequest = false;
}

void OrinFileTransferManager::PushDownloadFile(const FileDescription& file)
{
    mDownloadFileList.push_back(file);
    mDownloadFileRecordList.push_back(file);
}

std::vector<FileDescription>& OrinFileTransferManager::GetDownloadFileList()
{
    return mDownloadFileList;
}

void OrinFileTransferManager::ClearDownloadFileRecordList()
{
    mDownloadFileRecordList.clear();
}

void OrinFileTransferManager::TriggerLocalCopy(const std::vector<FileDescription>& files)
{
    mUploadFileList.clear();
    mUploadFileList.insert(mUploadFileList.end(), files.begin(), files.end());
    XLOG_I << "mUploadFileList length = " << mUploadFileList.size();
    if (mListener) {
        mListener->onUploadFileListReady();
    }
}

// ---------------------------------------------------------------------------
// Download start and duplicate renaming
// ---------------------------------------------------------------------------

void OrinFileTransferManager::ProcessFileDownloadStart(uint32_t taskId, uint32_t transferId, uint64_t taskTotalSize,
                                                       uint64_t fileSize, const std::string& fileName, bool isDir,
                                                       const std::string& recordTag,
                                                       std::multimap<std::string, std::string>& records,
                                                       std::string destDir, uint32_t flag)
{
    const bool remoteIsWindows = mSystemType == "Windows";
    std::string fileFullPath = mCacheDirPath + kPathSeparator + fileName;
    if (!destDir.empty()) {
        fileFullPath = destDir + kPathSeparator + fileName;
        // Only a destDir path is converted; a cache path never is.
        if (remoteIsWindows) {
            replaceAll(fileFullPath, '/', '\\');
        }
    }
    XLOG_I << "task id " << taskId << ", id = " << transferId << ", fileSize = " << fileSize << ", task total size "
           << taskTotalSize << ", fileName = " << fileName << ", fileFullPath = " << fileFullPath << ", flag "
           << flag;

    const FileDescription* record = nullptr;
    std::string recordName;
    for (const FileDescription& candidate : mDownloadFileRecordList) {
        recordName = requestNameOf(candidate);
        XLOG_D << "Recording download file name = " << recordName << ", reuqest file name = " << fileName;
        if (recordName == fileName) {
            record = &candidate;
            break;
        }
    }
    if (record) {
        records.emplace("Records.1.TaskType", "DOWNLOAD");
        records.emplace("Records.1.FileName", record->fileName);
        records.emplace("Records.1.FileSize", std::to_string(fileSize));
        std::string sourcePath = record->sourceDir + kPathSeparator + recordName;
        if (remoteIsWindows) {
            replaceAll(sourcePath, '/', '\\');
        }
        XLOG_D << "sourcePath = " << sourcePath;
        records.emplace("Records.1.SourcePath", sourcePath);
        // A file no record matches is not reported as a record at all.
        if (mListener) {
            mListener->onTransferRecord(recordTag, records);
        }
    }

    mProgressCountdown = kProgressTickInterval;
    mLastPercent = 0;

    if (mRegisterOnlyRequest) {
        auto it = std::find_if(mFileTaskList.begin(), mFileTaskList.end(),
                               [&fileName](const auto& task) { return task->fileName == fileName; });
        if (it != mFileTaskList.end()) {
            XLOG_I << "match task with file name";
            (*it)->transferId = transferId;
            (*it)->fileSize = fileSize;
        } else {
            auto task = std::make_shared<FileTransferTask>();
            task->transferId = transferId;
            task->fileSize = fileSize;
            task->fileName = fileName;
            task->flag = flag;
            task->totalSize = taskTotalSize;
            mFileTaskList.push_back(std::move(task));
        }
    } else {
        const size_t pos = fileFullPath.find_last_of(kPathSeparator);
        XLOG_D << "pos = %" << static_cast<int64_t>(pos == std::string::npos ? -1 : static_cast<int64_t>(pos));
        const std::string dirPath = fileFullPath.substr(0, pos);
        XLOG_D << "dirPath = " << dirPath;
        if (createDir(dirPath) != 0) {
            XLOG_W << "create dir failed, " << dirPath;
            notifyTransferFailed(taskId, transferId, "create dir failed", false);
            stopWriterUnderTaskLock();
            return;
        }

        if (isDir) {
            // An existing directory counts as a failure. No task is
            // registered, and no waiting request is woken.
            if (mkdir(fileFullPath.c_str(), 0775) == 0) {
                XLOG_I << "Successfully created the directory " << fileFullPath;
                if (mListener) {
                    mListener->onFileTransferCompleted(taskId, transferId, 0);
                }
            } else {
                const int error = errno;
                XLOG_E << "Failed to create the directory " << fileFullPath << ", " << strerror(error);
                notifyTransferFailed(taskId, transferId, "Failed to open or create download file", false);
                stopWriterUnderTaskLock();
            }
            return;
        }

        // Only a bad stream throws; a failed open leaves a stream that
        // writes nothing and the transfer still completes by byte count.
        auto stream = std::make_shared<std::fstream>();
        try {
            stream->exceptions(std::ios_base::badbit);
            stream->open(fileFullPath, std::ios_base::out | std::ios_base::binary | std::ios_base::trunc);
        } catch (const std::exception& error) {
            XLOG_W << "open stream falied " << error.what();
            notifyTransferFailed(taskId, transferId, error.what(), false);
            stopWriterUnderTaskLock();
            return;
        }
        auto task = std::make_shared<FileTransferTask>();
        task->taskId = taskId;
        task->transferId = transferId;
        task->fileSize = fileSize;
        task->stream = std::move(stream);
        task->fileName = fileName;
        task->flag = flag;
        std::lock_guard<std::mutex> lock(mTaskMutex);
        mFileTaskList.push_back(std::move(task));
    }

    if (mListener) {
        mListener->onFileTransferStarted(taskId, transferId, 0);
    }
    mCurrentDownloadTransferId = transferId;
}

void OrinFileTransferManager::RenameDuplicatedFilePath(std::vector<FileDescription>& files)
{
    // Directory name -> its new name, so that children follow a renamed parent.
    std::map<std::string, std::string> renamedDirectories;
    for (FileDescription& file : files) {
        std::string fullPath = file.destDir + kPathSeparator + file.fileName;
        std::string name = file.fileName;
        std::string destName;
        uint32_t counter = 1;
        while (true) {
            XLOG_I << "Check file duplicate, " << fullPath;
            for (const auto& [directory, newName] : renamedDirectories) {
                if (name.rfind(directory + kPathSeparator, 0) == 0) {
                    XLOG_I << "Matched parent directory, " << name << ", " << directory << kPathSeparator;
                    XLOG_I << "Rename file name, " << name << ", " << newName;
                    name.replace(0, directory.size(), newName);
                    destName = name;
                    break;
                }
            }
            // fullPath is not rebuilt after a parent rename: the first test
            // still uses the unrenamed path.
            if (access(fullPath.c_str(), F_OK) != 0) {
                break;
            }
            const std::string suffix = "(" + std::to_string(counter) + ")";
            if (isDirectoryAttribute(file.attribute)) {
                destName = name + suffix;
            } else {
                const size_t dot = name.find('.');
                destName = dot == std::string::npos ? name + suffix
                                                    : name.substr(0, dot) + suffix + name.substr(dot);
            }
            XLOG_I << "Found file duplicate, try rename " << name << " to " << destName;
            fullPath = file.destDir + kPathSeparator + destName;
            ++counter;
        }
        XLOG_I << "Check file duplicate, file not exist, skip renaming";
        XLOG_I << "Got target file dest name, " << destName;
        if (destName.empty()) {
            file.destFileName = file.fileName;
        } else {
            file.destFileName = destName;
            if (isDirectoryAttribute(file.attribute)) {
                renamedDirectories[name] = destName;
            }
        }
    }
}

// ---------------------------------------------------------------------------
// Download data and the writer looper
// ---------------------------------------------------------------------------

void OrinFileTransferManager::ProcessFileDownloadData(uint32_t taskId, uint32_t transferId, uint64_t length,
                                                      uint8_t* data)
{
    XLOG_D << "task id " << taskId << "id = " << transferId << ", fileSize = " << length;
    if (mRegisterOnlyRequest) {
        processRegisteredDownloadData(taskId, transferId, length, data);
        return;
    }
    {
        std::lock_guard<std::mutex> lock(mTaskMutex);
        std::shared_ptr<FileTransferTask> task;
        for (const auto& candidate : mFileTaskList) {
            XLOG_D << "task id " << candidate->transferId << "id = " << transferId;
            if (candidate->transferId == transferId) {
                task = candidate;
                break;
            }
        }
        if (task) {
            XLOG_D << "Match download task " << transferId << ", write data to disk";
            auto chunk = std::make_shared<WriteFileData>();
            chunk->data = static_cast<uint8_t*>(std::malloc(length));
            if (length > 0) {
                std::memcpy(chunk->data, data, length);
            }
            chunk->size = length;
            // Posted under the task-list mutex so jobs enter the looper in
            // arrival order: chunks carry no offset.
            postToWriter([this, task, chunk] { writeFile(task, chunk); });
        }
    }
    tickProgress(taskId, transferId);
}

// Registration-only mode: nothing is written; chunks go to the listener with
// their download record. The task list is walked without the mutex.
void OrinFileTransferManager::processRegisteredDownloadData(uint32_t taskId, uint32_t transferId, uint64_t length,
                                                            uint8_t* data)
{
    auto it = std::find_if(mFileTaskList.begin(), mFileTaskList.end(),
                           [transferId](const auto& task) { return task->transferId == transferId; });
    if (it == mFileTaskList.end()) {
        tickProgress(taskId, transferId);
        return;
    }
    const std::shared_ptr<FileTransferTask> task = *it;
    task->transferredSize += length;
    const bool complete = task->transferredSize == task->fileSize;
    if (complete && mListener) {
        mListener->onFileTransferCompleted(taskId, transferId, 0);
    }
    for (auto record = mDownloadFileList.begin(); record != mDownloadFileList.end(); ++record) {
        if (requestNameOf(*record) != task->fileName) {
            continue;
        }
        XLOG_D << "file transfer complete";
        if (mListener) {
            mListener->onFileDownloaded(*record, data, length);
        }
        if (complete) {
            mDownloadFileList.erase(record);
        }
        break;
    }
    if (complete) {
        deleteTask(transferId);
        if (--mProgressCountdown == 0) {
            mProgressCountdown = kProgressTickInterval;
        }
    } else {
        tickProgress(taskId, transferId);
    }
}

// One acknowledgement tick every 50th data message of the manager.
void OrinFileTransferManager::tickProgress(uint32_t taskId, uint32_t transferId)
{
    if (--mProgressCountdown == 0) {
        if (mListener) {
            mListener->onFileDataAck(taskId, transferId, 0);
        }
        mProgressCountdown = kProgressTickInterval;
    }
}

namespace {

// The retired flag of the writer whose job runs on this thread; null outside
// a writer job (a direct writeFile call never gives the mutex up).
thread_local const std::atomic<bool>* tWriterRetired = nullptr;

class WriterJobScope {
public:
    explicit WriterJobScope(const std::atomic<bool>* retired) : mPrevious(tWriterRetired) { tWriterRetired = retired; }
    ~WriterJobScope() { tWriterRetired = mPrevious; }
    WriterJobScope(const WriterJobScope&) = delete;
    WriterJobScope& operator=(const WriterJobScope&) = delete;

private:
    const std::atomic<bool>* mPrevious;
};

}  // namespace

void OrinFileTransferManager::postToWriter(std::function<void()> job)
{
    std::lock_guard<std::mutex> lock(mWriterLooperMutex);
    if (mWriterLooper) {
        mWriterLooper->Post([retired = mWriterRetired, job = std::move(job)] {
            const WriterJobScope scope(retired.get());
            job();
        });
    }
}

// A writer job needs the task-list mutex to finish a file or to stop the
// writer after a failed write. The stop that retires this writer may hold
// that mutex while it waits for this very thread to end, so the job gives
// up once its writer is retired: that stop drops the job's task and wakes
// the waiting request itself.
bool OrinFileTransferManager::lockTaskListForWriter(std::unique_lock<std::mutex>& lock)
{
    const std::atomic<bool>* retired = tWriterRetired;
    if (retired == nullptr) {
        lock.lock();
        return true;
    }
    for (uint32_t attempt = 0;; ++attempt) {
        if (lock.try_lock()) {
            return true;
        }
        if (retired->load()) {
            return false;
        }
        if (attempt < 64) {
            std::this_thread::yield();
        } else {
            std::this_thread::sleep_for(std::chrono::microseconds(50));
        }
    }
}

bool OrinFileTransferManager::writeFile(std::shared_ptr<FileTransferTask> task, std::shared_ptr<WriteFileData> data)
{
    task->transferredSize += data->size;
    if (task->stream) {
        try {
            task->stream->write(reinterpret_cast<const char*>(data->data), static_cast<std::streamsize>(data->size));
        } catch (const std::exception& error) {
            // The partial file stays on disk as it is.
            XLOG_W << "write stream failed " << error.what();
            closeQuietly(task->stream);
            notifyTransferFailed(task->taskId, task->transferId, error.what(), false);
            stopWriterUnderTaskLock();
            return false;
        }
    }
    XLOG_D << "position = " << task->transferredSize << "fileSize = " << task->fileSize;

    if (task->transferredSize != task->fileSize) {
        const uint32_t percent = percentOf(task->transferredSize, task->fileSize);
        mLastPercent = percent;
        if (mListener) {
            mListener->onFileTransferProgress(task->taskId, task->transferId, percent, data->size);
        }
        return true;
    }

    {
        // The flag is set under the mutex so a RequestFile about to wait
        // cannot miss it.
        std::unique_lock<std::mutex> lock(mTaskMutex, std::defer_lock);
        if (!lockTaskListForWriter(lock)) {
            return true;
        }
        deleteTaskLocked(task->transferId);
        mDownloadComplete = true;
    }
    mDownloadCondition.notify_one();
    if (mListener) {
        mListener->onFileTransferCompleted(task->taskId, task->transferId, 0);
    }
    return true;
}

namespace {

// Counts a stopWriteFileThread call while it runs, for the destructor to
// outwait, under the same lock and condition as the upload workers' count.
// Its release is the call's last touch of the manager.
class StopInFlight {
public:
    StopInFlight(std::mutex& mutex, std::condition_variable& condition, uint32_t& count)
        : mMutex(mutex), mCondition(condition), mCount(count)
    {
        std::lock_guard<std::mutex> lock(mMutex);
        ++mCount;
    }
    ~StopInFlight()
    {
        std::lock_guard<std::mutex> lock(mMutex);
        --mCount;
        mCondition.notify_all();
    }
    StopInFlight(const StopInFlight&) = delete;
    StopInFlight& operator=(const StopInFlight&) = delete;

private:
    std::mutex& mMutex;
    std::condition_variable& mCondition;
    uint32_t& mCount;
};

}  // namespace

// The public stop takes no lock of its own: its callers hold mTaskMutex
// (RequestFile does) or know that nothing else runs (ClearTask). The
// engine's other stops take the mutex around the task-list steps only,
// never across the teardown of the old writer, whose last job may need it.
void OrinFileTransferManager::stopWriteFileThread()
{
    stopWriter(TaskListLock::kHeldByCaller);
}

void OrinFileTransferManager::stopWriterUnderTaskLock()
{
    stopWriter(TaskListLock::kTakenHere);
}

// The public stop drops the download tasks after the old writer is gone, so
// that none of its jobs is inside the task list meanwhile (ClearTask calls it
// with no lock held). The engine's own stops drop them first, under the
// mutex, so that a chunk the host delivers while the writer is being
// replaced finds no task instead of reaching the fresh writer with a broken
// stream.
//
// Also runs on the writer looper's own thread after a write failure: that
// looper then ends on its own thread after this job, and nobody waits for
// the thread any more.
void OrinFileTransferManager::stopWriter(TaskListLock taskListLock)
{
    const StopInFlight inFlight(mWorkerMutex, mWorkerCondition, mWriterStopsInFlight);
    const auto dropDownloadTasks = [this] {
        mFileTaskList.erase(std::remove_if(mFileTaskList.begin(), mFileTaskList.end(),
                                           [](const auto& task) { return (task->transferId & 1u) == 0; }),
                            mFileTaskList.end());
    };
    if (taskListLock == TaskListLock::kTakenHere) {
        std::unique_lock<std::mutex> lock(mTaskMutex, std::defer_lock);
        if (!lockTaskListForWriter(lock)) {
            return;  // a writer whose retirement is under way: that stop does the rest
        }
        dropDownloadTasks();
    }

    std::unique_ptr<IFileTransferLooper> retired;
    std::shared_ptr<std::atomic<bool>> retiredFlag;
    {
        std::lock_guard<std::mutex> lock(mWriterLooperMutex);
        retired = std::move(mWriterLooper);
        retiredFlag = std::exchange(mWriterRetired, std::make_shared<std::atomic<bool>>(false));
        retiredFlag->store(true);
    }
    retired.reset();
    if (tWriterRetired == retiredFlag.get()) {
        tWriterRetired = nullptr;  // this very thread: it was let go, nobody joins it
    }
    std::unique_ptr<IFileTransferLooper> fresh = mLooperFactory->CreateLooper(kWriterLooperName);
    {
        std::lock_guard<std::mutex> lock(mWriterLooperMutex);
        if (!mWriterLooper) {
            mWriterLooper = std::move(fresh);
        }
    }
    fresh.reset();  // a concurrent stop installed its own first

    {
        std::unique_lock<std::mutex> lock(mTaskMutex, std::defer_lock);
        if (taskListLock == TaskListLock::kTakenHere) {
            if (!lockTaskListForWriter(lock)) {
                return;  // retired meanwhile by a stop that wakes the request itself
            }
        } else {
            dropDownloadTasks();
        }
        mDownloadComplete = true;
    }
    mDownloadCondition.notify_one();
}

}  // namespace orin::xfer
