// The smallest useful host: a looper factory backed by one thread per
// looper, a listener that prints what the engine says, and one outgoing
// file list built from the paths on the command line.
#include <condition_variable>
#include <deque>
#include <functional>
#include <iostream>
#include <mutex>
#include <thread>

#include "IFileTransferLogger.h"
#include "IFileTransferManager.h"

namespace {

using namespace orin::xfer;

// FIFO, one job at a time on its own thread; queued jobs are dropped on destruction.
class SimpleLooper : public IFileTransferLooper {
public:
    SimpleLooper() : mThread([this] { Run(); }) {}
    ~SimpleLooper() override
    {
        {
            std::lock_guard<std::mutex> lock(mMutex);
            mStopping = true;
        }
        mWake.notify_one();
        if (mThread.get_id() == std::this_thread::get_id()) {
            mThread.detach();  // destroyed from one of its own jobs
        } else {
            mThread.join();
        }
    }
    void Post(std::function<void()> task) override
    {
        {
            std::lock_guard<std::mutex> lock(mMutex);
            mJobs.push_back(std::move(task));
        }
        mWake.notify_one();
    }
    void Post(const std::string&, std::function<void()> task) override { Post(std::move(task)); }

private:
    void Run()
    {
        std::unique_lock<std::mutex> lock(mMutex);
        while (true) {
            mWake.wait(lock, [this] { return mStopping || !mJobs.empty(); });
            if (mStopping) {
                return;
            }
            auto job = std::move(mJobs.front());
            mJobs.pop_front();
            lock.unlock();
            job();
            lock.lock();
        }
    }
    std::mutex mMutex;
    std::condition_variable mWake;
    std::deque<std::function<void()>> mJobs;
    bool mStopping = false;
    std::thread mThread;
};

class SimpleLooperFactory : public IFileTransferLooperFactory {
public:
    std::unique_ptr<IFileTransferLooper> CreateLooper() override { return std::make_unique<SimpleLooper>(); }
    std::unique_ptr<IFileTransferLooper> CreateLooper(const std::string&) override { return CreateLooper(); }
};

class PrintingListener : public FileTransferListener {
public:
    void onSendFileDesc(const std::string& jsonData) override { std::cout << "file list:\n" << jsonData << "\n"; }
    void onSendFileStart(uint32_t, uint32_t transferId, const std::string& fileName, const std::string&, bool isDir,
                         uint32_t, uint64_t, uint64_t size) override
    {
        std::cout << "announce #" << transferId << " " << fileName << (isDir ? " (directory)" : "") << ", " << size
                  << " bytes\n";
    }
};

class QuietLogger : public IFileTransferLogger {};

}  // namespace

int main(int argc, char** argv)
{
    IFileTransferLogger::SetLogger(std::make_shared<QuietLogger>());
    PrintingListener listener;
    auto manager =
        IFileTransferManager::NewInstance(&listener, std::make_unique<SimpleLooperFactory>(), false, nullptr);

    std::vector<FileDescription> offered;
    for (int i = 1; i < argc; ++i) {
        FileDescription file;
        manager->ParseFilePath(argv[i], file, "");
        file.destFileName = file.fileName;
        offered.push_back(file);
    }
    size_t totalSize = 0;
    bool hasDirectory = false;
    std::vector<FileDescription> expanded;
    if (!manager->ValidateFileList(offered, totalSize, hasDirectory, expanded)) {
        std::cerr << "minimal_host: a path given does not exist\n";
        return 1;
    }
    manager->TriggerLocalCopy(offered);
    manager->SendFileDesc();
    std::cout << "offering " << offered.size() << " entries, " << totalSize << " bytes\n";

    // The remote side would now ask for each file in turn.
    std::multimap<std::string, std::string> records;
    bool listEmpty = false;
    for (uint32_t request = 1; !listEmpty; ++request) {
        records.clear();
        manager->UploadFiles(request, totalSize, "example", records, listEmpty);
    }
    return 0;
}
