// Fakes and helpers shared by the engine's tests.
//
// Threading: every recorder here is safe to call from any thread; readers
// take snapshots under the recorder's mutex.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "IFileTransferLogger.h"
#include "IFileTransferManager.h"
#include "OrinFileTransferManager.h"
#include "TempDir.h"
#include "Wait.h"

namespace orin::xfer::test {

// ---------------------------------------------------------------------------
// Logging
// ---------------------------------------------------------------------------

struct LogLine {
    int level;
    std::string text;  // as the sink received it, " \n" included
};

// Captures every line the engine logs. Lines end with " \n" as delivered.
class CapturingLogger : public IFileTransferLogger {
public:
    void OnVerbose(const char* line) override { Add(0, line); }
    void OnDebug(const char* line) override { Add(1, line); }
    void OnInfo(const char* line) override { Add(2, line); }
    void OnWarning(const char* line) override { Add(3, line); }
    void OnError(const char* line) override { Add(4, line); }
    void OnFatal(const char* line) override { Add(5, line); }

    std::vector<LogLine> Lines() const;
    void Clear();
    // Lines whose message (the text after "<file>:<line>: ", without the
    // trailing " \n") starts with `prefix`.
    std::vector<LogLine> WithMessagePrefix(const std::string& prefix) const;
    // Number of lines whose message equals `message` exactly, at `level`.
    size_t CountMessage(const std::string& message, int level) const;
    bool HasMessage(const std::string& message, int level) const { return CountMessage(message, level) > 0; }

private:
    void Add(int level, const char* line);
    mutable std::mutex mMutex;
    std::vector<LogLine> mLines;
};

// The message part of a delivered line: after "[XFERFM]: file:line: ",
// without the trailing " \n".
std::string MessageOf(const std::string& line);

// Installs a capturing sink for its lifetime, then restores standard output.
class ScopedCapturingLogger {
public:
    ScopedCapturingLogger();
    ~ScopedCapturingLogger();
    CapturingLogger& operator*() { return *mLogger; }
    CapturingLogger* operator->() { return mLogger.get(); }

private:
    std::shared_ptr<CapturingLogger> mLogger;
};

// ---------------------------------------------------------------------------
// Loopers
// ---------------------------------------------------------------------------

// What the factory and its loopers did, in order: "create:<name>",
// "destroy:<name>" and "destroy-factory" (unnamed loopers are "<main>").
// Shared so that it outlives a factory owned by a manager.
class LooperJournal {
public:
    void Add(const std::string& entry);
    std::vector<std::string> Entries() const;
    size_t Count(const std::string& entry) const;
    void NoteThread(const std::string& name, std::thread::id id);
    // Every thread id a looper of this name has run on.
    std::vector<std::thread::id> ThreadsOf(const std::string& name) const;
    bool IsThreadOf(const std::string& name, std::thread::id id) const;
    // Job names posted through the named Post, in order.
    void AddJobName(const std::string& looper, const std::string& job);
    std::vector<std::string> JobNames(const std::string& looper) const;

private:
    mutable std::mutex mMutex;
    std::vector<std::string> mEntries;
    std::multimap<std::string, std::thread::id> mThreads;
    std::vector<std::pair<std::string, std::string>> mJobNames;
};

// A thread per looper, FIFO, drops queued jobs on destruction, and tolerates
// destruction from inside one of its own jobs.
class TestLooper : public IFileTransferLooper {
public:
    TestLooper(std::string name, std::shared_ptr<LooperJournal> journal);
    ~TestLooper() override;
    void Post(std::function<void()> task) override;
    void Post(const std::string& name, std::function<void()> task) override;
    std::thread::id ThreadId() const;

private:
    struct State;
    std::string mName;
    std::shared_ptr<LooperJournal> mJournal;
    std::shared_ptr<State> mState;
};

class TestLooperFactory : public IFileTransferLooperFactory {
public:
    explicit TestLooperFactory(std::shared_ptr<LooperJournal> journal = std::make_shared<LooperJournal>());
    ~TestLooperFactory() override;
    std::unique_ptr<IFileTransferLooper> CreateLooper() override;
    std::unique_ptr<IFileTransferLooper> CreateLooper(const std::string& name) override;
    std::shared_ptr<LooperJournal> Journal() const { return mJournal; }

private:
    std::shared_ptr<LooperJournal> mJournal;
};

// ---------------------------------------------------------------------------
// Listener
// ---------------------------------------------------------------------------

// One recorded listener call. Fields not used by a call keep their defaults.
struct ListenerEvent {
    ListenerEvent() = default;
    ListenerEvent(const char* operation) : name(operation) {}  // NOLINT: implicit on purpose

    std::string name;  // the operation, e.g. "onSendFileData"
    uint32_t taskId = 0;
    uint32_t transferId = 0;
    uint32_t result = 0;  // result, or percent for onFileTransferProgress, or flag for onSendFileStart
    uint64_t size = 0;    // data size, chunk size, file size
    uint64_t totalSize = 0;
    bool flag = false;    // onReportEvent flag, onSendFileStart isDir
    bool nullData = false;
    std::string text;     // json, event name, file name, record tag
    std::string dest;
    std::vector<uint8_t> data;  // copied bytes of onSendFileData / onFileDownloaded
    std::multimap<std::string, std::string> records;
    FileDescription record;
    std::thread::id thread;
};

class RecordingListener : public FileTransferListener {
public:
    void onUploadFileListReady() override;
    void onRequestFileDesc() override;
    void onRequestFile() override;
    void onSendFileDesc(const std::string& jsonData) override;
    void onClipboardRelease() override;
    void onFileTransferFailed(uint32_t taskId, uint32_t transferId, uint32_t result) override;
    void onReportEvent(const std::string& event, bool flag) override;
    void onFileDownloaded(const FileDescription& record, const uint8_t* data, uint64_t size) override;
    void onSendFileData(uint32_t taskId, uint32_t transferId, const uint8_t* data, int64_t size) override;
    void onSendFileStart(uint32_t taskId, uint32_t transferId, const std::string& fileName, const std::string& dest,
                         bool isDir, uint32_t flag, uint64_t totalSize, uint64_t size) override;
    void onFileTransferStarted(uint32_t taskId, uint32_t transferId, uint32_t result) override;
    void onFileDataAck(uint32_t taskId, uint32_t transferId, uint32_t result) override;
    void onFileTransferCompleted(uint32_t taskId, uint32_t transferId, uint32_t result) override;
    void onFileTransferCanceled(uint32_t taskId, uint32_t transferId, uint32_t result) override;
    void onFileTransferProgress(uint32_t taskId, uint32_t transferId, uint32_t percent, uint64_t chunkSize) override;
    void onTransferRecord(std::string recordTag, std::multimap<std::string, std::string>& records) override;

    std::vector<ListenerEvent> Events() const;
    std::vector<ListenerEvent> EventsNamed(const std::string& name) const;
    std::vector<std::string> Names() const;
    size_t Count(const std::string& name) const;
    bool WaitForCount(const std::string& name, size_t count,
                      std::chrono::milliseconds timeout = std::chrono::seconds(10)) const;
    void Clear();
    // All bytes passed to onSendFileData for one transfer id, in call order.
    std::vector<uint8_t> SentBytes(uint32_t transferId) const;

    // Optional hooks run after recording, outside the recorder's lock.
    std::function<void(uint32_t taskId, uint32_t transferId, const uint8_t* data, int64_t size)> onSendFileDataHook;
    std::function<void(uint32_t taskId, uint32_t transferId)> onFileDataAckHook;
    std::function<void(uint32_t taskId, uint32_t transferId)> onFileTransferCompletedHook;
    std::function<void()> onRequestFileHook;
    // When false, data bytes are not copied (large streams).
    std::atomic<bool> copyData{true};

private:
    void Record(ListenerEvent event);
    mutable std::mutex mMutex;
    std::vector<ListenerEvent> mEvents;
};

// ---------------------------------------------------------------------------
// Rate limiter
// ---------------------------------------------------------------------------

struct RateLimiterCall {
    std::string name;  // "Acquire", "Consume", "SetBandwidth", "GetBandwidth"
    uint64_t value = 0;
    int64_t nowMs = 0;
};

class RecordingRateLimiter : public IFileTransferRateLimiter {
public:
    bool Acquire(uint64_t bytes, int64_t nowMs) override;
    void Consume(uint64_t bytes, int64_t nowMs) override;
    void SetBandwidth(uint32_t bitsPerSecond) override;
    uint64_t GetBandwidth() override;

    std::vector<RateLimiterCall> Calls() const;
    std::vector<RateLimiterCall> CallsNamed(const std::string& name) const;
    size_t Count(const std::string& name) const;

    // Answers of Acquire, consumed front first; when empty, `acquireDefault`.
    void QueueAcquireAnswers(const std::vector<bool>& answers);
    std::atomic<bool> acquireDefault{true};
    // When set, GetBandwidth answers this instead of the last SetBandwidth.
    std::atomic<int64_t> bandwidthOverride{-1};

private:
    mutable std::mutex mMutex;
    std::vector<RateLimiterCall> mCalls;
    std::deque<bool> mAcquireAnswers;
    uint64_t mBandwidth = 0;
};

// Owns a RecordingRateLimiter handed to a manager while the test keeps a pointer.
struct LimiterHandle {
    std::unique_ptr<RecordingRateLimiter> owned = std::make_unique<RecordingRateLimiter>();
    RecordingRateLimiter* raw = owned.get();
};

// ---------------------------------------------------------------------------
// Manager construction and files
// ---------------------------------------------------------------------------

// A manager wired to recording collaborators. Members are destroyed so that
// the manager goes first.
struct ManagerFixture {
    explicit ManagerFixture(bool flowControl = false, bool withLimiter = true);
    ~ManagerFixture();

    std::shared_ptr<LooperJournal> journal = std::make_shared<LooperJournal>();
    RecordingListener listener;
    RecordingRateLimiter* limiter = nullptr;  // owned by the manager
    std::unique_ptr<OrinFileTransferManager> manager;
};

std::vector<uint8_t> PatternBytes(size_t size, uint32_t seed = 1);
// Writes `bytes` to `path`, making its parent directories first.
void WriteBytes(const std::string& path, const std::vector<uint8_t>& bytes);
void WriteText(const std::string& path, const std::string& text);
std::vector<uint8_t> ReadBytes(const std::string& path);
bool PathExists(const std::string& path);
// True when `path` is a directory (links followed).
bool IsDirectory(const std::string& path);
void MakeDirs(const std::string& path);

}  // namespace orin::xfer::test
