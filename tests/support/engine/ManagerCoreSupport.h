// Helpers for the tests of the manager core: construction and teardown
// order, the task table and the filesystem helpers.
//
// Threading: the journaling fakes are safe to call from any thread (they
// write through LooperJournal and the recorders of TestSupport.h); the
// scoped filesystem helpers are meant for the test's own thread.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "TestSupport.h"

namespace orin::xfer::test {

// A recording limiter that also writes its SetBandwidth calls
// ("limiter:SetBandwidth:<value>") and its destruction ("destroy-limiter")
// into a looper journal, so that its place among the loopers shows.
class JournalingRateLimiter : public RecordingRateLimiter {
public:
    explicit JournalingRateLimiter(std::shared_ptr<LooperJournal> journal);
    ~JournalingRateLimiter() override;
    void SetBandwidth(uint32_t bitsPerSecond) override;

private:
    std::shared_ptr<LooperJournal> mJournal;
};

// A capturing sink that also writes every message ("log:<message>") into a
// looper journal, so that log lines and looper events share one timeline.
class JournalingLogger : public CapturingLogger {
public:
    explicit JournalingLogger(std::shared_ptr<LooperJournal> journal);
    void OnVerbose(const char* line) override;
    void OnDebug(const char* line) override;
    void OnInfo(const char* line) override;
    void OnWarning(const char* line) override;
    void OnError(const char* line) override;
    void OnFatal(const char* line) override;

private:
    void Note(const char* line);
    std::shared_ptr<LooperJournal> mJournal;
};

// Installs a JournalingLogger for its lifetime, then restores standard output.
class ScopedJournalingLogger {
public:
    explicit ScopedJournalingLogger(std::shared_ptr<LooperJournal> journal);
    ~ScopedJournalingLogger();
    ScopedJournalingLogger(const ScopedJournalingLogger&) = delete;
    ScopedJournalingLogger& operator=(const ScopedJournalingLogger&) = delete;
    JournalingLogger* operator->() { return mLogger.get(); }

private:
    std::shared_ptr<JournalingLogger> mLogger;
};

// A task as the engine registers it, for pushing into the task list directly.
std::shared_ptr<FileTransferTask> MakeTask(uint32_t taskId, uint32_t transferId, const std::string& fileName = "");

// The transfer ids of a task list, in list order.
std::vector<uint32_t> TransferIdsOf(const std::vector<std::shared_ptr<FileTransferTask>>& tasks);

// A description with only its file name set.
FileDescription DescriptionNamed(const std::string& fileName);

// Messages of the captured lines, in arrival order (" \n" removed).
std::vector<std::string> MessagesOf(const std::vector<LogLine>& lines);

// Sets the process umask for its lifetime.
class ScopedUmask {
public:
    explicit ScopedUmask(mode_t mask);
    ~ScopedUmask();
    ScopedUmask(const ScopedUmask&) = delete;
    ScopedUmask& operator=(const ScopedUmask&) = delete;

private:
    mode_t mPrevious;
};

// Marks a file immutable (the filesystem then refuses to unlink it, even for
// root) and clears the mark again on destruction. Applied() tells whether the
// filesystem accepted the mark.
class ScopedImmutableFile {
public:
    explicit ScopedImmutableFile(std::string path);
    ~ScopedImmutableFile();
    ScopedImmutableFile(const ScopedImmutableFile&) = delete;
    ScopedImmutableFile& operator=(const ScopedImmutableFile&) = delete;
    bool Applied() const { return mApplied; }
    const std::string& Error() const { return mError; }

private:
    bool SetImmutable(bool on);
    std::string mPath;
    bool mApplied = false;
    std::string mError;
};

// Entry names of a directory in the order readdir returns them, without
// "." and "..".
std::vector<std::string> ReaddirNames(const std::string& path);

// The permission bits of a path (st_mode & 07777), or -1 when stat fails.
int ModeBitsOf(const std::string& path);

// True when the path itself exists, without following a final symlink.
bool LinkExists(const std::string& path);

}  // namespace orin::xfer::test
