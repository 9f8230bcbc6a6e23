// A looper backed by one thread of its own: the task queue the engine runs
// its longer work on (upload hand-off, request notice, file writes).
//
// THREADING CONTRACT
// - Post may be called from any thread. Jobs run one at a time, in posting
//   order, on the looper's thread, which carries the looper's name
//   (pthread_setname_np, cut to 15 characters).
// - A job that throws does not take the process down: the exception is
//   caught on the looper's thread and handed to the error handler (or, when
//   none was given, logged through the engine's logger at error level); the
//   next job runs as usual.
// - The destructor drops the jobs not yet started (they are destroyed, never
//   run). Called from another thread, it waits for the running job to end.
//   Called from inside one of this looper's own jobs (the engine replaces
//   its writer looper that way), it returns at once: the thread finishes the
//   current job on its own and exits, owning the state it still needs.
// - Posting after destruction has begun is impossible (the object is gone);
//   posts racing with the destructor from other threads are dropped.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <thread>

#include "IFileTransferLooperFactory.h"

namespace orin::xfer::host {

// Called on the looper's thread when a job throws.
using LooperErrorHandler =
    std::function<void(const std::string& looperName, const std::string& jobName, const std::string& what)>;

class ThreadLooper final : public IFileTransferLooper {
public:
    explicit ThreadLooper(std::string name, LooperErrorHandler onJobError = {});
    ~ThreadLooper() override;
    ThreadLooper(const ThreadLooper&) = delete;
    ThreadLooper& operator=(const ThreadLooper&) = delete;

    void Post(std::function<void()> task) override;
    // The label names the job in error reports.
    void Post(const std::string& name, std::function<void()> task) override;

    // The name as given to the thread (at most 15 characters).
    const std::string& ThreadName() const;

private:
    struct State;
    std::shared_ptr<State> mState;
    std::thread mThread;
};

}  // namespace orin::xfer::host
