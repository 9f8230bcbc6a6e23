#include "TestSupport.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>

namespace orin::xfer::test {

// ---------------------------------------------------------------------------
// Logging

std::string MessageOf(const std::string& line)
{
    std::string text = line;
    if (text.size() >= 2 && text.compare(text.size() - 2, 2, " \n") == 0) {
        text.erase(text.size() - 2);
    }
    const std::string tag = "[XFERFM]: ";
    if (text.rfind(tag, 0) != 0) {
        return text;
    }
    const size_t firstColon = text.find(':', tag.size());
    if (firstColon == std::string::npos) {
        return text;
    }
    const size_t secondColon = text.find(": ", firstColon + 1);
    if (secondColon == std::string::npos) {
        return text;
    }
    return text.substr(secondColon + 2);
}

void CapturingLogger::Add(int level, const char* line)
{
    std::lock_guard<std::mutex> lock(mMutex);
    mLines.push_back({level, line});
}

std::vector<LogLine> CapturingLogger::Lines() const
{
    std::lock_guard<std::mutex> lock(mMutex);
    return mLines;
}

void CapturingLogger::Clear()
{
    std::lock_guard<std::mutex> lock(mMutex);
    mLines.clear();
}

std::vector<LogLine> CapturingLogger::WithMessagePrefix(const std::string& prefix) const
{
    std::vector<LogLine> found;
    for (const LogLine& line : Lines()) {
        if (MessageOf(line.text).rfind(prefix, 0) == 0) {
            found.push_back(line);
        }
    }
    return found;
}

size_t CapturingLogger::CountMessage(const std::string& message, int level) const
{
    size_t count = 0;
    for (const LogLine& line : Lines()) {
        if (line.level == level && MessageOf(line.text) == message) {
            ++count;
        }
    }
    return count;
}

ScopedCapturingLogger::ScopedCapturingLogger() : mLogger(std::make_shared<CapturingLogger>())
{
    IFileTransferLogger::SetLogger(mLogger);
}

ScopedCapturingLogger::~ScopedCapturingLogger()
{
    IFileTransferLogger::SetLogger(nullptr);
}

// ---------------------------------------------------------------------------
// Loopers

void LooperJournal::Add(const std::string& entry)
{
    std::lock_guard<std::mutex> lock(mMutex);
    mEntries.push_back(entry);
}

std::vector<std::string> LooperJournal::Entries() const
{
    std::lock_guard<std::mutex> lock(mMutex);
    return mEntries;
}

size_t LooperJournal::Count(const std::string& entry) const
{
    std::lock_guard<std::mutex> lock(mMutex);
    size_t count = 0;
    for (const auto& e : mEntries) {
        count += e == entry ? 1 : 0;
    }
    return count;
}

void LooperJournal::NoteThread(const std::string& name, std::thread::id id)
{
    std::lock_guard<std::mutex> lock(mMutex);
    mThreads.emplace(name, id);
}

std::vector<std::thread::id> LooperJournal::ThreadsOf(const std::string& name) const
{
    std::lock_guard<std::mutex> lock(mMutex);
    std::vector<std::thread::id> ids;
    auto range = mThreads.equal_range(name);
    for (auto it = range.first; it != range.second; ++it) {
        ids.push_back(it->second);
    }
    return ids;
}

bool LooperJournal::IsThreadOf(const std::string& name, std::thread::id id) const
{
    for (const auto& known : ThreadsOf(name)) {
        if (known == id) {
            return true;
        }
    }
    return false;
}

void LooperJournal::AddJobName(const std::string& looper, const std::string& job)
{
    std::lock_guard<std::mutex> lock(mMutex);
    mJobNames.emplace_back(looper, job);
}

std::vector<std::string> LooperJournal::JobNames(const std::string& looper) const
{
    std::lock_guard<std::mutex> lock(mMutex);
    std::vector<std::string> names;
    for (const auto& [owner, job] : mJobNames) {
        if (owner == looper) {
            names.push_back(job);
        }
    }
    return names;
}

struct TestLooper::State {
    std::mutex mutex;
    std::condition_variable wake;
    std::deque<std::function<void()>> jobs;
    bool stopping = false;
    std::thread thread;
};

TestLooper::TestLooper(std::string name, std::shared_ptr<LooperJournal> journal)
    : mName(std::move(name)), mJournal(std::move(journal)), mState(std::make_shared<State>())
{
    mJournal->Add("create:" + mName);
    // The thread keeps the state alive, so the looper may be destroyed from
    // one of its own jobs.
    std::shared_ptr<State> state = mState;
    mState->thread = std::thread([state] {
        std::unique_lock<std::mutex> lock(state->mutex);
        while (true) {
            state->wake.wait(lock, [&] { return state->stopping || !state->jobs.empty(); });
            if (state->stopping) {
                return;
            }
            auto job = std::move(state->jobs.front());
            state->jobs.pop_front();
            lock.unlock();
            job();
            lock.lock();
        }
    });
    mJournal->NoteThread(mName, mState->thread.get_id());
}

TestLooper::~TestLooper()
{
    {
        std::lock_guard<std::mutex> lock(mState->mutex);
        mState->stopping = true;
        mState->jobs.clear();
    }
    mState->wake.notify_all();
    if (mState->thread.get_id() == std::this_thread::get_id()) {
        mState->thread.detach();
    } else {
        mState->thread.join();
    }
    mJournal->Add("destroy:" + mName);
}

void TestLooper::Post(std::function<void()> task)
{
    {
        std::lock_guard<std::mutex> lock(mState->mutex);
        if (mState->stopping) {
            return;
        }
        mState->jobs.push_back(std::move(task));
    }
    mState->wake.notify_one();
}

void TestLooper::Post(const std::string& name, std::function<void()> task)
{
    mJournal->AddJobName(mName, name);
    Post(std::move(task));
}

std::thread::id TestLooper::ThreadId() const
{
    return mState->thread.get_id();
}

TestLooperFactory::TestLooperFactory(std::shared_ptr<LooperJournal> journal) : mJournal(std::move(journal)) {}

TestLooperFactory::~TestLooperFactory()
{
    mJournal->Add("destroy-factory");
}

std::unique_ptr<IFileTransferLooper> TestLooperFactory::CreateLooper()
{
    return std::make_unique<TestLooper>("<main>", mJournal);
}

std::unique_ptr<IFileTransferLooper> TestLooperFactory::CreateLooper(const std::string& name)
{
    return std::make_unique<TestLooper>(name, mJournal);
}

// ---------------------------------------------------------------------------
// Listener

void RecordingListener::Record(ListenerEvent event)
{
    event.thread = std::this_thread::get_id();
    std::lock_guard<std::mutex> lock(mMutex);
    mEvents.push_back(std::move(event));
}

void RecordingListener::onUploadFileListReady()
{
    Record({"onUploadFileListReady"});
}

void RecordingListener::onRequestFileDesc()
{
    Record({"onRequestFileDesc"});
}

void RecordingListener::onRequestFile()
{
    Record({"onRequestFile"});
    if (onRequestFileHook) {
        onRequestFileHook();
    }
}

void RecordingListener::onSendFileDesc(const std::string& jsonData)
{
    ListenerEvent e{"onSendFileDesc"};
    e.text = jsonData;
    Record(std::move(e));
}

void RecordingListener::onClipboardRelease()
{
    Record({"onClipboardRelease"});
}

void RecordingListener::onFileTransferFailed(uint32_t taskId, uint32_t transferId, uint32_t result)
{
    ListenerEvent e{"onFileTransferFailed"};
    e.taskId = taskId;
    e.transferId = transferId;
    e.result = result;
    Record(std::move(e));
}

void RecordingListener::onReportEvent(const std::string& event, bool flag)
{
    ListenerEvent e{"onReportEvent"};
    e.text = event;
    e.flag = flag;
    Record(std::move(e));
}

void RecordingListener::onFileDownloaded(const FileDescription& record, const uint8_t* data, uint64_t size)
{
    ListenerEvent e{"onFileDownloaded"};
    e.record = record;
    e.size = size;
    e.nullData = data == nullptr;
    if (data && copyData) {
        e.data.assign(data, data + size);
    }
    Record(std::move(e));
}

void RecordingListener::onSendFileData(uint32_t taskId, uint32_t transferId, const uint8_t* data, int64_t size)
{
    ListenerEvent e{"onSendFileData"};
    e.taskId = taskId;
    e.transferId = transferId;
    e.size = static_cast<uint64_t>(size);
    e.nullData = data == nullptr;
    if (data && size > 0 && copyData) {
        e.data.assign(data, data + size);
    }
    Record(std::move(e));
    if (onSendFileDataHook) {
        onSendFileDataHook(taskId, transferId, data, size);
    }
}

void RecordingListener::onSendFileStart(uint32_t taskId, uint32_t transferId, const std::string& fileName,
                                        const std::string& dest, bool isDir, uint32_t flag, uint64_t totalSize,
                                        uint64_t size)
{
    ListenerEvent e{"onSendFileStart"};
    e.taskId = taskId;
    e.transferId = transferId;
    e.text = fileName;
    e.dest = dest;
    e.flag = isDir;
    e.result = flag;
    e.totalSize = totalSize;
    e.size = size;
    Record(std::move(e));
}

void RecordingListener::onFileTransferStarted(uint32_t taskId, uint32_t transferId, uint32_t result)
{
    ListenerEvent e{"onFileTransferStarted"};
    e.taskId = taskId;
    e.transferId = transferId;
    e.result = result;
    Record(std::move(e));
}

void RecordingListener::onFileDataAck(uint32_t taskId, uint32_t transferId, uint32_t result)
{
    ListenerEvent e{"onFileDataAck"};
    e.taskId = taskId;
    e.transferId = transferId;
    e.result = result;
    // The hook runs before the event is recorded, so a test that waits for the event also sees
    // everything the hook stored.
    if (onFileDataAckHook) {
        onFileDataAckHook(taskId, transferId);
    }
    Record(std::move(e));
}

void RecordingListener::onFileTransferCompleted(uint32_t taskId, uint32_t transferId, uint32_t result)
{
    ListenerEvent e{"onFileTransferCompleted"};
    e.taskId = taskId;
    e.transferId = transferId;
    e.result = result;
    // The hook runs before the event is recorded, so a test that waits for the event also sees
    // everything the hook stored.
    if (onFileTransferCompletedHook) {
        onFileTransferCompletedHook(taskId, transferId);
    }
    Record(std::move(e));
}

void RecordingListener::onFileTransferCanceled(uint32_t taskId, uint32_t transferId, uint32_t result)
{
    ListenerEvent e{"onFileTransferCanceled"};
    e.taskId = taskId;
    e.transferId = transferId;
    e.result = result;
    Record(std::move(e));
}

void RecordingListener::onFileTransferProgress(uint32_t taskId, uint32_t transferId, uint32_t percent,
                                               uint64_t chunkSize)
{
    ListenerEvent e{"onFileTransferProgress"};
    e.taskId = taskId;
    e.transferId = transferId;
    e.result = percent;
    e.size = chunkSize;
    Record(std::move(e));
}

void RecordingListener::onTransferRecord(std::string recordTag, std::multimap<std::string, std::string>& records)
{
    ListenerEvent e{"onTransferRecord"};
    e.text = recordTag;
    e.records = records;
    Record(std::move(e));
}

std::vector<ListenerEvent> RecordingListener::Events() const
{
    std::lock_guard<std::mutex> lock(mMutex);
    return mEvents;
}

std::vector<ListenerEvent> RecordingListener::EventsNamed(const std::string& name) const
{
    std::vector<ListenerEvent> found;
    for (auto& e : Events()) {
        if (e.name == name) {
            found.push_back(e);
        }
    }
    return found;
}

std::vector<std::string> RecordingListener::Names() const
{
    std::vector<std::string> names;
    for (auto& e : Events()) {
        names.push_back(e.name);
    }
    return names;
}

size_t RecordingListener::Count(const std::string& name) const
{
    std::lock_guard<std::mutex> lock(mMutex);
    size_t count = 0;
    for (auto& e : mEvents) {
        count += e.name == name ? 1 : 0;
    }
    return count;
}

bool RecordingListener::WaitForCount(const std::string& name, size_t count, std::chrono::milliseconds timeout) const
{
    return waitUntil([&] { return Count(name) >= count; }, timeout);
}

void RecordingListener::Clear()
{
    std::lock_guard<std::mutex> lock(mMutex);
    mEvents.clear();
}

std::vector<uint8_t> RecordingListener::SentBytes(uint32_t transferId) const
{
    std::vector<uint8_t> bytes;
    std::lock_guard<std::mutex> lock(mMutex);
    for (auto& e : mEvents) {
        if (e.name == "onSendFileData" && e.transferId == transferId) {
            bytes.insert(bytes.end(), e.data.begin(), e.data.end());
        }
    }
    return bytes;
}

// ---------------------------------------------------------------------------
// Rate limiter

bool RecordingRateLimiter::Acquire(uint64_t bytes, int64_t nowMs)
{
    std::lock_guard<std::mutex> lock(mMutex);
    mCalls.push_back({"Acquire", bytes, nowMs});
    if (!mAcquireAnswers.empty()) {
        const bool answer = mAcquireAnswers.front();
        mAcquireAnswers.pop_front();
        return answer;
    }
    return acquireDefault;
}

void RecordingRateLimiter::Consume(uint64_t bytes, int64_t nowMs)
{
    std::lock_guard<std::mutex> lock(mMutex);
    mCalls.push_back({"Consume", bytes, nowMs});
}

void RecordingRateLimiter::SetBandwidth(uint32_t bitsPerSecond)
{
    std::lock_guard<std::mutex> lock(mMutex);
    mCalls.push_back({"SetBandwidth", bitsPerSecond, 0});
    mBandwidth = bitsPerSecond;
}

uint64_t RecordingRateLimiter::GetBandwidth()
{
    std::lock_guard<std::mutex> lock(mMutex);
    mCalls.push_back({"GetBandwidth", 0, 0});
    const int64_t overridden = bandwidthOverride;
    return overridden >= 0 ? static_cast<uint64_t>(overridden) : mBandwidth;
}

std::vector<RateLimiterCall> RecordingRateLimiter::Calls() const
{
    std::lock_guard<std::mutex> lock(mMutex);
    return mCalls;
}

std::vector<RateLimiterCall> RecordingRateLimiter::CallsNamed(const std::string& name) const
{
    std::vector<RateLimiterCall> found;
    for (auto& c : Calls()) {
        if (c.name == name) {
            found.push_back(c);
        }
    }
    return found;
}

size_t RecordingRateLimiter::Count(const std::string& name) const
{
    return CallsNamed(name).size();
}

void RecordingRateLimiter::QueueAcquireAnswers(const std::vector<bool>& answers)
{
    std::lock_guard<std::mutex> lock(mMutex);
    mAcquireAnswers.insert(mAcquireAnswers.end(), answers.begin(), answers.end());
}

// ---------------------------------------------------------------------------
// Manager construction and files

ManagerFixture::ManagerFixture(bool flowControl, bool withLimiter)
{
    std::unique_ptr<RecordingRateLimiter> ownedLimiter;
    if (withLimiter) {
        ownedLimiter = std::make_unique<RecordingRateLimiter>();
        limiter = ownedLimiter.get();
    }
    manager = std::make_unique<OrinFileTransferManager>(&listener, std::make_unique<TestLooperFactory>(journal),
                                                        flowControl, std::move(ownedLimiter));
}

ManagerFixture::~ManagerFixture()
{
    manager.reset();
}

std::vector<uint8_t> PatternBytes(size_t size, uint32_t seed)
{
    std::vector<uint8_t> bytes(size);
    uint32_t state = seed * 2654435761u + 12345u;
    for (size_t i = 0; i < size; ++i) {
        state = state * 1664525u + 1013904223u;
        bytes[i] = static_cast<uint8_t>(state >> 24);
    }
    return bytes;
}

void WriteBytes(const std::string& path, const std::vector<uint8_t>& bytes)
{
    const std::filesystem::path parent = std::filesystem::path(path).parent_path();
    if (!parent.empty()) {
        std::filesystem::create_directories(parent);
    }
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    if (!out) {
        throw std::runtime_error("cannot write " + path);
    }
}

void WriteText(const std::string& path, const std::string& text)
{
    WriteBytes(path, std::vector<uint8_t>(text.begin(), text.end()));
}

std::vector<uint8_t> ReadBytes(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return std::vector<uint8_t>((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

bool PathExists(const std::string& path)
{
    return access(path.c_str(), F_OK) == 0;
}

bool IsDirectory(const std::string& path)
{
    struct stat status {};
    return stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

void MakeDirs(const std::string& path)
{
    std::filesystem::create_directories(path);
}

}  // namespace orin::xfer::test
