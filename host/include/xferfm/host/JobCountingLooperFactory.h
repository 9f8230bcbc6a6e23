// A looper factory that counts the jobs its loopers still hold, queued or
// running, so that a host can wait until an engine has finished with
// everything it handed to its loopers (the writer's chunks in particular)
// before it calls an engine operation that must not overlap them.
//
// THREADING CONTRACT: CreateLooper, Post and WaitIdle from any thread. A
// job counts from its Post until it has run, or been dropped by its
// looper's teardown, and its closure is destroyed.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <memory>
#include <mutex>
#include <string>

#include "IFileTransferLooperFactory.h"

namespace orin::xfer::host {

class JobCounter {
public:
    void Add();
    void Done();
    // True once no job is held; false when `timeout` passed first.
    bool WaitIdle(std::chrono::milliseconds timeout);

private:
    std::mutex mMutex;
    std::condition_variable mIdle;
    size_t mHeld = 0;
};

class JobCountingLooperFactory final : public IFileTransferLooperFactory {
public:
    JobCountingLooperFactory(std::unique_ptr<IFileTransferLooperFactory> inner, std::shared_ptr<JobCounter> counter);

    std::unique_ptr<IFileTransferLooper> CreateLooper() override;
    std::unique_ptr<IFileTransferLooper> CreateLooper(const std::string& name) override;

private:
    std::unique_ptr<IFileTransferLooperFactory> mInner;
    std::shared_ptr<JobCounter> mCounter;
};

}  // namespace orin::xfer::host
