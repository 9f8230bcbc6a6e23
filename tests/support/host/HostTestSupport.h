// Helpers for the host kit's tests: a recording observer, source trees,
// and counts of this process's threads and descriptors.
//
// Threading: the recorder is safe from any thread; readers take snapshots.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "xferfm/host/TransferObserver.h"

namespace orin::xfer::test {

using namespace orin::xfer::host;

struct ObservedEvent {
    std::string kind;  // "list", "started", "progress", "completed", "directory", "failure", "finished"
    std::string name;  // entry name, or the failure's path
    std::string text;  // final path, or the failure's message
    uint64_t value = 0;
};

class RecordingReceiverObserver : public ReceiverObserver {
public:
    void OnListReceived(size_t entryCount, uint64_t totalBytes) override;
    void OnFileStarted(const std::string& name, uint64_t fileSize) override;
    void OnProgress(const std::string& name, uint64_t fileBytesDone, uint64_t fileSize, uint64_t totalBytesDone,
                    uint64_t totalBytes) override;
    void OnFileCompleted(const std::string& name, const std::string& finalPath) override;
    void OnDirectoryCreated(const std::string& name, const std::string& finalPath) override;
    void OnFailure(const std::string& path, const std::string& message) override;
    void OnFinished(const TransferSummary& summary) override;

    std::vector<ObservedEvent> Events() const;
    std::vector<ObservedEvent> EventsOf(const std::string& kind) const;
    size_t Count(const std::string& kind) const;
    // Final path reported for a completed file or created directory.
    std::string FinalPathOf(const std::string& name) const;

    // Runs inside OnFileStarted, before the file is requested.
    std::function<void(const std::string& name)> onFileStarted;
    // Runs inside OnProgress.
    std::function<void(const std::string& name, uint64_t fileBytesDone)> onProgress;

private:
    void Add(ObservedEvent event);
    mutable std::mutex mMutex;
    std::vector<ObservedEvent> mEvents;
};

// Files and directories under `root`, relative, sorted; directories end in "/".
std::vector<std::string> ListTree(const std::string& root);

void WriteFile(const std::string& path, const std::vector<uint8_t>& bytes, mode_t mode = 0644);
void MakeDirectory(const std::string& path, mode_t mode = 0755);
mode_t ModeOf(const std::string& path);

// Keeps the engine's log out of the test output (warnings and errors
// still reach standard error) for the guard's lifetime.
class QuietEngineLog {
public:
    QuietEngineLog();
    ~QuietEngineLog();
    QuietEngineLog(const QuietEngineLog&) = delete;
    QuietEngineLog& operator=(const QuietEngineLog&) = delete;
};

size_t OpenDescriptorCount();
size_t ThreadCount();
// Polls until the process has at most `count` threads.
bool WaitForThreadCount(size_t count, std::chrono::milliseconds timeout = std::chrono::seconds(10));

}  // namespace orin::xfer::test
