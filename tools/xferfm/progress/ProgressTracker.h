// Running totals of one copy: what the receiving side has written so far and
// which file it is on. Fed by engine callbacks, read by the renderer.
//
// Threading: setBytesDone and fileCompleted are lock-free and may come from the
// engine's writer thread for every chunk; fileStarted takes a mutex (once
// per file), and so does fileSkipped; snapshot may be called from any thread
// at any time.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <mutex>
#include <string>

namespace xferfm::cli {

struct ProgressSnapshot {
    uint64_t bytesDone = 0;
    uint64_t totalBytes = 0;
    uint64_t filesDone = 0;
    uint64_t totalFiles = 0;
    double elapsedSeconds = 0.0;
    std::string currentFile;
};

class ProgressTracker {
public:
    // Resets the totals and starts the clock.
    void start(uint64_t totalBytes, uint64_t totalFiles);
    void fileStarted(const std::string& name);
    void setBytesDone(uint64_t bytes) { mBytesDone.store(bytes, std::memory_order_relaxed); }
    void fileCompleted() { mFilesDone.fetch_add(1, std::memory_order_relaxed); }
    // A file of the totals will not be copied (the receiver refused it).
    void fileSkipped(uint64_t size);

    ProgressSnapshot snapshot() const;

private:
    using Clock = std::chrono::steady_clock;
    std::atomic<uint64_t> mBytesDone{0};
    std::atomic<uint64_t> mFilesDone{0};
    uint64_t mTotalBytes = 0;
    uint64_t mTotalFiles = 0;
    Clock::time_point mStart = Clock::now();
    mutable std::mutex mNameMutex;
    std::string mCurrentFile;
};

}  // namespace xferfm::cli
