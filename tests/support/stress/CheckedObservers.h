// Observers that check the endpoints' reporting promises while a test runs:
// each file is reported complete at most once, the session ends with at
// most one OnFinished (and nothing after it), and no call arrives once the
// endpoint has been destroyed. Broken promises are collected as text for
// the test to assert on; hooks let a test act from inside a callback (the
// endpoints allow Cancel there).
//
// THREADING CONTRACT: callbacks may come from any of an endpoint's threads
// (never two at once, as the endpoints promise, but the checks do not rely
// on it); every member is safe from any thread.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "xferfm/host/TransferObserver.h"

namespace orin::xfer::test {

using namespace orin::xfer::host;

// What both observers share: the violation list and the "endpoint gone" mark.
class ObserverChecks {
public:
    // Call right after the endpoint's destructor has returned.
    void MarkEndpointGone() { mGone = true; }
    std::vector<std::string> Violations() const;
    size_t FinishedCount() const { return mFinished.load(); }
    size_t FailureCount() const { return mFailures.load(); }

protected:
    // Every callback starts here: notes a call after the end or after the
    // endpoint's destruction.
    void enter(const char* callback);
    void finished();
    void failure() { ++mFailures; }
    void violation(const std::string& text);

private:
    std::atomic<bool> mGone{false};
    std::atomic<size_t> mFinished{0};
    std::atomic<size_t> mFailures{0};
    mutable std::mutex mMutex;
    std::vector<std::string> mViolations;
};

class CheckedReceiverObserver final : public ReceiverObserver, public ObserverChecks {
public:
    void OnListReceived(size_t entryCount, uint64_t totalBytes) override;
    void OnFileStarted(const std::string& name, uint64_t fileSize) override;
    void OnProgress(const std::string& name, uint64_t fileBytesDone, uint64_t fileSize, uint64_t totalBytesDone,
                    uint64_t totalBytes) override;
    void OnFileCompleted(const std::string& name, const std::string& finalPath) override;
    void OnDirectoryCreated(const std::string& name, const std::string& finalPath) override;
    void OnFailure(const std::string& path, const std::string& message) override;
    void OnFinished(const TransferSummary& summary) override;

    // Request name -> final path of every completed file.
    std::map<std::string, std::string> CompletedFiles() const;
    size_t CompletedCount() const;

    std::function<void(const std::string& name, uint64_t fileBytesDone, uint64_t fileSize, uint64_t totalBytesDone,
                       uint64_t totalBytes)>
        onProgress;
    std::function<void(const std::string& name)> onFileCompleted;

private:
    mutable std::mutex mMutex;
    std::map<std::string, std::string> mCompleted;
};

class CheckedSenderObserver final : public SenderObserver, public ObserverChecks {
public:
    void OnFileStarted(const std::string& sourcePath, uint64_t fileSize) override;
    void OnBytesSent(uint64_t totalBytesSent) override;
    void OnFailure(const std::string& path, const std::string& message) override;
    void OnFinished(const TransferSummary& summary) override;

    std::function<void(uint64_t totalBytesSent)> onBytesSent;
};

}  // namespace orin::xfer::test
