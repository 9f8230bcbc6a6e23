// A host written directly on the engine, with no host kit: a sender engine
// and a receiver engine in one process, joined by hand-written glue where a
// real host has its channel to the remote side. The sender offers a list of
// one file, the receiver asks for it, and the file moves chunk by chunk into
// the receiver's cache, from where the host moves it into place.
//
//   engine_only_copy SOURCE_FILE DESTINATION_DIR
//
// Exits 0 only when DESTINATION_DIR/<name of SOURCE_FILE> is a byte-for-byte
// copy of SOURCE_FILE (which must not exist there yet).
//
// The rules it follows are the ones docs/host-guide.md gives: a log sink
// before the first engine, listener callbacks that only queue work (never
// call back into an engine), one thread per looper, download ids even, and
// the receiver's request forwarded to the sender only once RequestFile has
// wiped and re-created the cache.
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <deque>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <iterator>
#include <limits>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "IFileTransferLogger.h"
#include "IFileTransferManager.h"
#include "Version.h"

namespace {

using namespace orin::xfer;
using namespace std::chrono_literals;

// [snippet log-sink]
// Installed before the first engine exists. Without a sink the engine
// writes every line to standard output with no line end; with one, each
// line arrives whole (ending in " \n") at the operation of its level, from
// any thread.
class WarningsToStderr : public IFileTransferLogger {
public:
    void OnWarning(const char* line) override { std::fputs(line, stderr); }
    void OnError(const char* line) override { std::fputs(line, stderr); }
    void OnFatal(const char* line) override { std::fputs(line, stderr); }
};
// [end snippet]

// One thread running posted jobs in order. It may be destroyed from inside
// one of its own jobs (the engine replaces its writer looper that way): the
// queue is shared with the thread, which then finishes that job and ends.
class ThreadLooper : public IFileTransferLooper {
public:
    ThreadLooper() : mQueue(std::make_shared<Queue>()), mThread([queue = mQueue] { Run(*queue); }) {}
    ~ThreadLooper() override
    {
        Close();
        if (mThread.get_id() == std::this_thread::get_id()) {
            mThread.detach();
        } else {
            mThread.join();
        }
    }
    void Post(std::function<void()> job) override
    {
        std::lock_guard<std::mutex> lock(mQueue->mutex);
        if (!mQueue->closed) {
            mQueue->jobs.push_back(std::move(job));
            mQueue->wake.notify_one();
        }
    }
    void Post(const std::string&, std::function<void()> job) override { Post(std::move(job)); }
    // Drops the jobs not yet run and ignores later posts.
    void Close()
    {
        std::lock_guard<std::mutex> lock(mQueue->mutex);
        mQueue->closed = true;
        mQueue->jobs.clear();
        mQueue->wake.notify_one();
    }

private:
    struct Queue {
        std::mutex mutex;
        std::condition_variable wake;
        std::deque<std::function<void()>> jobs;
        bool closed = false;
    };
    static void Run(Queue& queue)
    {
        std::unique_lock<std::mutex> lock(queue.mutex);
        while (true) {
            queue.wake.wait(lock, [&queue] { return queue.closed || !queue.jobs.empty(); });
            if (queue.closed) {
                return;
            }
            std::function<void()> job = std::move(queue.jobs.front());
            queue.jobs.pop_front();
            lock.unlock();
            job();
            lock.lock();
        }
    }
    std::shared_ptr<Queue> mQueue;
    std::thread mThread;
};

class ThreadLooperFactory : public IFileTransferLooperFactory {
public:
    std::unique_ptr<IFileTransferLooper> CreateLooper() override { return std::make_unique<ThreadLooper>(); }
    std::unique_ptr<IFileTransferLooper> CreateLooper(const std::string&) override { return CreateLooper(); }
};

// What the receiving host learns, for the main thread to wait on.
class Progress {
public:
    void Set(bool Progress::*flag)
    {
        std::lock_guard<std::mutex> lock(mMutex);
        this->*flag = true;
        mChanged.notify_all();
    }
    bool WaitFor(bool Progress::*flag, std::chrono::seconds limit)
    {
        std::unique_lock<std::mutex> lock(mMutex);
        return mChanged.wait_for(lock, limit, [this, flag] { return this->*flag || failed; });
    }
    bool Failed()
    {
        std::lock_guard<std::mutex> lock(mMutex);
        return failed;
    }
    bool listArrived = false;
    bool requestReturned = false;
    bool failed = false;

private:
    std::mutex mMutex;
    std::condition_variable mChanged;
};

// The two engines and the two inboxes that stand for the channel: a job
// posted to an inbox is a message arriving at that side. Every listener
// callback below only posts; the inbox threads make the engine calls.
struct Glue {
    // No more messages between the two sides, then the engines go (while
    // their listeners still exist).
    void ShutDown()
    {
        senderInbox.Close();
        receiverInbox.Close();
        sender.reset();
        receiver.reset();
    }

    std::unique_ptr<IFileTransferManager> sender;
    std::unique_ptr<IFileTransferManager> receiver;
    ThreadLooper senderInbox;
    ThreadLooper receiverInbox;
    Progress progress;
    std::vector<FileDescription> offered;  // what the list carries (see onSendFileDesc)
    std::string cacheDir;
    uint64_t totalSize = 0;
};

// How the engine names a list entry in requests and in the cache.
std::string requestNameOf(const FileDescription& file)
{
    return file.filePath.empty() ? file.fileName : file.filePath + "/" + file.fileName;
}

// Download ids must be even; the sender's are odd, so the receiver uses the
// next number up for the same file.
uint32_t downloadIdOf(uint32_t uploadId) { return uploadId + 1; }
uint32_t uploadIdOf(uint32_t downloadId) { return downloadId - 1; }

class SenderHost : public FileTransferListener {
public:
    explicit SenderHost(Glue& glue) : mGlue(glue) {}

    void onSendFileDesc(const std::string& jsonData) override
    {
        std::cout << "file list offered:\n" << jsonData << "\n";
        // A real host sends jsonData and the receiver parses it into
        // FileDescriptions (fileName, filePath, fileSize, attribute); this
        // glue carries the sender's descriptions across instead, so the
        // example needs no JSON library.
        mGlue.receiverInbox.Post([this] { mGlue.progress.Set(&Progress::listArrived); });
    }
    void onSendFileStart(uint32_t taskId, uint32_t transferId, const std::string& fileName, const std::string&,
                         bool isDir, uint32_t flag, uint64_t totalSize, uint64_t size) override
    {
        mGlue.receiverInbox.Post([this, taskId, transferId, fileName, isDir, flag, totalSize, size] {
            std::multimap<std::string, std::string> records;
            mGlue.receiver->ProcessFileDownloadStart(taskId, downloadIdOf(transferId), totalSize, size, fileName,
                                                     isDir, "example", records, "", flag);
        });
    }
    // [snippet send-data]
    // `data` is the engine's and valid only during this call: copy it (or
    // send it) before returning. The receiving engine copies what it is
    // given, so the copy below may go as soon as that call returns.
    void onSendFileData(uint32_t taskId, uint32_t transferId, const uint8_t* data, int64_t size) override
    {
        auto piece = std::make_shared<std::vector<uint8_t>>(data, data + size);
        mGlue.receiverInbox.Post([this, taskId, transferId, piece] {
            mGlue.receiver->ProcessFileDownloadData(taskId, downloadIdOf(transferId), piece->size(), piece->data());
        });
    }
    // [end snippet]
    void onFileTransferFailed(uint32_t, uint32_t transferId, uint32_t result) override
    {
        std::cerr << "engine_only_copy: upload " << transferId << " failed (" << result << ")\n";
        mGlue.progress.Set(&Progress::failed);
    }

private:
    Glue& mGlue;
};

class ReceiverHost : public FileTransferListener {
public:
    explicit ReceiverHost(Glue& glue) : mGlue(glue) {}

    void onRequestFileDesc() override
    {
        mGlue.senderInbox.Post([this] { mGlue.sender->SendFileDesc(); });
    }
    // [snippet forward-request]
    // The first RequestFile of a paste posts onRequestFile and then wipes the
    // cache. Data that arrives before the wipe is lost, so the request goes
    // to the sender only once RequestFile has re-created the cache: its
    // marker file exists, and a data call for no transfer (which takes the
    // engine's task lock) has returned, so RequestFile is waiting.
    void onRequestFile() override
    {
        mGlue.receiverInbox.Post([this] {
            const std::string marker = mGlue.cacheDir + "/" + requestNameOf(mGlue.offered.front());
            const auto deadline = std::chrono::steady_clock::now() + 10s;
            while (!std::filesystem::exists(marker)) {
                if (std::chrono::steady_clock::now() > deadline || mGlue.progress.Failed()) {
                    mGlue.progress.Set(&Progress::failed);
                    return;
                }
                std::this_thread::sleep_for(1ms);
            }
            mGlue.receiver->ProcessFileDownloadData(0xFFFFFFFF, 0xFFFFFFFF, 0, nullptr);
            mGlue.senderInbox.Post([this] { requestNextFile(); });
        });
    }
    // [end snippet]
    void onFileTransferStarted(uint32_t, uint32_t transferId, uint32_t) override
    {
        mGlue.senderInbox.Post([this, transferId] { mGlue.sender->ProcessFileUploadData(uploadIdOf(transferId)); });
    }
    void onFileTransferFailed(uint32_t, uint32_t transferId, uint32_t result) override
    {
        std::cerr << "engine_only_copy: download " << transferId << " failed (" << result << ")\n";
        mGlue.progress.Set(&Progress::failed);
    }

private:
    // Runs on the sender's inbox: the remote side asking for the next file.
    void requestNextFile()
    {
        std::multimap<std::string, std::string> records;
        bool listEmpty = false;
        mGlue.sender->UploadFiles(1, mGlue.totalSize, "example", records, listEmpty);
        if (listEmpty) {
            mGlue.progress.Set(&Progress::failed);
        }
    }
    Glue& mGlue;
};

bool sameBytes(const std::string& left, const std::string& right)
{
    std::ifstream a(left, std::ios::binary);
    std::ifstream b(right, std::ios::binary);
    if (!a || !b) {
        return false;
    }
    return std::equal(std::istreambuf_iterator<char>(a), std::istreambuf_iterator<char>(),
                      std::istreambuf_iterator<char>(b), std::istreambuf_iterator<char>());
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc != 3) {
        std::cerr << "usage: engine_only_copy SOURCE_FILE DESTINATION_DIR\n";
        return 2;
    }
    const std::string source = argv[1];
    const std::string destinationDir = argv[2];
    std::cout << "libxferfm " << VersionString() << " (headers " << XFERFM_VERSION_STRING << ")\n";

    // [snippet install-sink]
    IFileTransferLogger::SetLogger(std::make_shared<WarningsToStderr>());  // before the first engine
    // [end snippet]

    Glue glue;
    glue.cacheDir = destinationDir + "/.engine-only-cache";
    SenderHost senderHost(glue);
    ReceiverHost receiverHost(glue);
    // [snippet new-instance]
    // The listener is not owned and must outlive the engine; the factory is
    // owned and must not be null; the rate limiter is owned and may be null.
    glue.sender = IFileTransferManager::NewInstance(&senderHost, std::make_unique<ThreadLooperFactory>(),
                                                    /*flowControl=*/false, /*rateLimiter=*/nullptr);
    // [end snippet]
    glue.receiver = IFileTransferManager::NewInstance(&receiverHost, std::make_unique<ThreadLooperFactory>(),
                                                      /*flowControl=*/false, /*rateLimiter=*/nullptr);
    // No pauses for acknowledgements: this glue has no backpressure to apply.
    glue.sender->SetUploadWindowsSize(std::numeric_limits<uint32_t>::max());
    glue.receiver->SetCacheDir(glue.cacheDir);  // deleted now, re-created by the first request

    // [snippet offer]
    // ParseFilePath splits the path into sourceDir and fileName (with a root,
    // the part between root and name becomes filePath). The destination name
    // is the host's to set: the announcement carries destFilePath/destFileName.
    FileDescription file;
    glue.sender->ParseFilePath(source, file, /*root=*/"");
    file.destFileName = file.fileName;
    std::vector<FileDescription> offered{file};
    size_t totalSize = 0;
    bool hasDirectory = false;
    std::vector<FileDescription> expanded;  // files found under offered directories
    if (!glue.sender->ValidateFileList(offered, totalSize, hasDirectory, expanded)) {
        std::cerr << "engine_only_copy: " << source << " does not exist\n";
        glue.ShutDown();
        return 1;
    }
    glue.sender->TriggerLocalCopy(offered);  // stored; SendFileDesc turns it into JSON
    // [end snippet]
    glue.offered = offered;
    glue.totalSize = totalSize;

    // The receiving side asks for the list, then for the one file in it.
    glue.receiver->RequestFileDesc();
    bool ok = glue.progress.WaitFor(&Progress::listArrived, 10s) && !glue.progress.Failed();
    std::thread requester;
    if (ok) {
        const FileDescription wanted = glue.offered.front();
        glue.receiver->PushDownloadFile(wanted);
        requester = std::thread([&glue, wanted] {
            glue.receiver->RequestFile(wanted, /*registerOnly=*/false);  // blocks until written or stopped
            glue.progress.Set(&Progress::requestReturned);
        });
        ok = glue.progress.WaitFor(&Progress::requestReturned, 60s) && !glue.progress.Failed();
        if (!ok) {
            glue.receiver->Cancel();  // releases a waiting RequestFile
        }
        requester.join();
    }

    glue.ShutDown();

    const std::string cached = glue.cacheDir + "/" + requestNameOf(glue.offered.front());
    const std::string landed = destinationDir + "/" + glue.offered.front().fileName;
    std::error_code error;
    if (ok) {
        std::filesystem::rename(cached, landed, error);
        ok = !error && sameBytes(source, landed);
    }
    std::filesystem::remove_all(glue.cacheDir, error);
    std::cout << (ok ? "copied " : "FAILED to copy ") << source << " to " << landed << "\n";
    return ok ? 0 : 1;
}
