#include "CheckedObservers.h"

namespace orin::xfer::test {

using namespace orin::xfer::host;

std::vector<std::string> ObserverChecks::Violations() const
{
    std::lock_guard<std::mutex> lock(mMutex);
    return mViolations;
}

void ObserverChecks::violation(const std::string& text)
{
    std::lock_guard<std::mutex> lock(mMutex);
    mViolations.push_back(text);
}

void ObserverChecks::enter(const char* callback)
{
    if (mGone) {
        violation(std::string(callback) + " after the endpoint was destroyed");
    }
    if (mFinished.load() > 0) {
        violation(std::string(callback) + " after OnFinished");
    }
}

void ObserverChecks::finished()
{
    if (++mFinished > 1) {
        violation("OnFinished more than once");
    }
}

void CheckedReceiverObserver::OnListReceived(size_t, uint64_t)
{
    enter("OnListReceived");
}

void CheckedReceiverObserver::OnFileStarted(const std::string&, uint64_t)
{
    enter("OnFileStarted");
}

void CheckedReceiverObserver::OnProgress(const std::string& name, uint64_t fileBytesDone, uint64_t fileSize,
                                         uint64_t totalBytesDone, uint64_t totalBytes)
{
    enter("OnProgress");
    if (fileBytesDone > fileSize || totalBytesDone > totalBytes) {
        violation("progress beyond the size for " + name);
    }
    if (onProgress) {
        onProgress(name, fileBytesDone, fileSize, totalBytesDone, totalBytes);
    }
}

void CheckedReceiverObserver::OnFileCompleted(const std::string& name, const std::string& finalPath)
{
    enter("OnFileCompleted");
    {
        std::lock_guard<std::mutex> lock(mMutex);
        if (!mCompleted.emplace(name, finalPath).second) {
            violation("OnFileCompleted twice for " + name);
        }
    }
    if (onFileCompleted) {
        onFileCompleted(name);
    }
}

void CheckedReceiverObserver::OnDirectoryCreated(const std::string&, const std::string&)
{
    enter("OnDirectoryCreated");
}

void CheckedReceiverObserver::OnFailure(const std::string&, const std::string& message)
{
    enter("OnFailure");
    failure();
    if (FailureCount() > 1) {
        violation("a second OnFailure: " + message);
    }
}

void CheckedReceiverObserver::OnFinished(const TransferSummary&)
{
    enter("OnFinished");
    finished();
}

std::map<std::string, std::string> CheckedReceiverObserver::CompletedFiles() const
{
    std::lock_guard<std::mutex> lock(mMutex);
    return mCompleted;
}

size_t CheckedReceiverObserver::CompletedCount() const
{
    std::lock_guard<std::mutex> lock(mMutex);
    return mCompleted.size();
}

void CheckedSenderObserver::OnFileStarted(const std::string&, uint64_t)
{
    enter("OnFileStarted");
}

void CheckedSenderObserver::OnBytesSent(uint64_t totalBytesSent)
{
    enter("OnBytesSent");
    if (onBytesSent) {
        onBytesSent(totalBytesSent);
    }
}

void CheckedSenderObserver::OnFailure(const std::string&, const std::string& message)
{
    enter("OnFailure");
    failure();
    if (FailureCount() > 1) {
        violation("a second OnFailure: " + message);
    }
}

void CheckedSenderObserver::OnFinished(const TransferSummary&)
{
    enter("OnFinished");
    finished();
}

}  // namespace orin::xfer::test
