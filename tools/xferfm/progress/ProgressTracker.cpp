#include "ProgressTracker.h"

#include <algorithm>

namespace xferfm::cli {

void ProgressTracker::start(uint64_t totalBytes, uint64_t totalFiles)
{
    std::lock_guard<std::mutex> lock(mNameMutex);
    mTotalBytes = totalBytes;
    mTotalFiles = totalFiles;
    mBytesDone = 0;
    mFilesDone = 0;
    mCurrentFile.clear();
    mStart = Clock::now();
}

void ProgressTracker::fileStarted(const std::string& name)
{
    std::lock_guard<std::mutex> lock(mNameMutex);
    mCurrentFile = name;
}

void ProgressTracker::fileSkipped(uint64_t size)
{
    std::lock_guard<std::mutex> lock(mNameMutex);
    mTotalBytes -= std::min(size, mTotalBytes);
    mTotalFiles -= mTotalFiles > 0 ? 1 : 0;
}

ProgressSnapshot ProgressTracker::snapshot() const
{
    ProgressSnapshot snapshot;
    {
        std::lock_guard<std::mutex> lock(mNameMutex);
        snapshot.totalBytes = mTotalBytes;
        snapshot.totalFiles = mTotalFiles;
        snapshot.currentFile = mCurrentFile;
        snapshot.elapsedSeconds = std::chrono::duration<double>(Clock::now() - mStart).count();
    }
    snapshot.bytesDone = mBytesDone.load(std::memory_order_relaxed);
    snapshot.filesDone = mFilesDone.load(std::memory_order_relaxed);
    return snapshot;
}

}  // namespace xferfm::cli
