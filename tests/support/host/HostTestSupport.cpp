#include "HostTestSupport.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <thread>

#include "TestSupport.h"
#include "xferfm/host/StderrLoggerSink.h"

namespace orin::xfer::test {

using namespace orin::xfer::host;

void RecordingReceiverObserver::Add(ObservedEvent event)
{
    std::lock_guard<std::mutex> lock(mMutex);
    mEvents.push_back(std::move(event));
}

void RecordingReceiverObserver::OnListReceived(size_t entryCount, uint64_t totalBytes)
{
    Add({"list", "", std::to_string(entryCount), totalBytes});
}

void RecordingReceiverObserver::OnFileStarted(const std::string& name, uint64_t fileSize)
{
    Add({"started", name, "", fileSize});
    if (onFileStarted) {
        onFileStarted(name);
    }
}

void RecordingReceiverObserver::OnProgress(const std::string& name, uint64_t fileBytesDone, uint64_t fileSize,
                                           uint64_t totalBytesDone, uint64_t totalBytes)
{
    (void)fileSize, (void)totalBytes;
    Add({"progress", name, std::to_string(fileBytesDone), totalBytesDone});
    if (onProgress) {
        onProgress(name, fileBytesDone);
    }
}

void RecordingReceiverObserver::OnFileCompleted(const std::string& name, const std::string& finalPath)
{
    Add({"completed", name, finalPath, 0});
}

void RecordingReceiverObserver::OnDirectoryCreated(const std::string& name, const std::string& finalPath)
{
    Add({"directory", name, finalPath, 0});
}

void RecordingReceiverObserver::OnFailure(const std::string& path, const std::string& message)
{
    Add({"failure", path, message, 0});
}

void RecordingReceiverObserver::OnFinished(const TransferSummary& summary)
{
    Add({"finished", "", summary.error, summary.completed ? 1u : 0u});
}

std::vector<ObservedEvent> RecordingReceiverObserver::Events() const
{
    std::lock_guard<std::mutex> lock(mMutex);
    return mEvents;
}

std::vector<ObservedEvent> RecordingReceiverObserver::EventsOf(const std::string& kind) const
{
    std::vector<ObservedEvent> out;
    for (const auto& event : Events()) {
        if (event.kind == kind) {
            out.push_back(event);
        }
    }
    return out;
}

size_t RecordingReceiverObserver::Count(const std::string& kind) const
{
    return EventsOf(kind).size();
}

std::string RecordingReceiverObserver::FinalPathOf(const std::string& name) const
{
    for (const auto& event : Events()) {
        if ((event.kind == "completed" || event.kind == "directory") && event.name == name) {
            return event.text;
        }
    }
    return {};
}

namespace {

void listInto(const std::string& root, const std::string& relative, std::vector<std::string>& out)
{
    const std::string path = relative.empty() ? root : root + "/" + relative;
    DIR* dir = opendir(path.c_str());
    if (!dir) {
        return;
    }
    while (const dirent* item = readdir(dir)) {
        const std::string name = item->d_name;
        if (name == "." || name == "..") {
            continue;
        }
        const std::string child = relative.empty() ? name : relative + "/" + name;
        struct stat status {};
        lstat((root + "/" + child).c_str(), &status);
        if (S_ISDIR(status.st_mode)) {
            out.push_back(child + "/");
            listInto(root, child, out);
        } else {
            out.push_back(child);
        }
    }
    closedir(dir);
}

}  // namespace

std::vector<std::string> ListTree(const std::string& root)
{
    std::vector<std::string> out;
    listInto(root, "", out);
    std::sort(out.begin(), out.end());
    return out;
}

void WriteFile(const std::string& path, const std::vector<uint8_t>& bytes, mode_t mode)
{
    orin::xfer::test::WriteBytes(path, bytes);
    chmod(path.c_str(), mode);
}

void MakeDirectory(const std::string& path, mode_t mode)
{
    if (mkdir(path.c_str(), 0755) != 0) {
        throw std::runtime_error("mkdir " + path);
    }
    chmod(path.c_str(), mode);
}

mode_t ModeOf(const std::string& path)
{
    struct stat status {};
    if (stat(path.c_str(), &status) != 0) {
        return 0;
    }
    return status.st_mode & 07777;
}

QuietEngineLog::QuietEngineLog()
{
    IFileTransferLogger::SetLogger(std::make_shared<StderrLoggerSink>(kWarning));
}

QuietEngineLog::~QuietEngineLog()
{
    IFileTransferLogger::SetLogger(nullptr);
}

namespace {

size_t countEntries(const char* directory)
{
    size_t count = 0;
    DIR* dir = opendir(directory);
    if (!dir) {
        return 0;
    }
    while (const dirent* item = readdir(dir)) {
        if (item->d_name[0] != '.') {
            ++count;
        }
    }
    closedir(dir);
    return count;
}

}  // namespace

size_t OpenDescriptorCount()
{
    return countEntries("/proc/self/fd") - 1;  // less the one reading the directory
}

size_t ThreadCount()
{
    // ThreadSanitizer starts a helper thread along with the process's first
    // thread: start one here, so that the helper is in every baseline.
    static const bool helperStarted = [] {
        std::thread([] {}).join();
        return true;
    }();
    (void)helperStarted;
    return countEntries("/proc/self/task");
}

bool WaitForThreadCount(size_t count, std::chrono::milliseconds timeout)
{
    return orin::xfer::test::waitUntil([&] { return ThreadCount() <= count; }, timeout);
}

}  // namespace orin::xfer::test
