// Task queues ("loopers") the engine runs its longer work on, made by the host.
//
// Threading contract a looper must keep:
// - jobs posted to one looper run one at a time, in posting order, on the
//   looper's own thread;
// - Post may be called from any thread;
// - the destructor stops the looper's thread and drops the jobs not yet run;
// - the destructor may be called from inside one of the looper's own jobs
//   (the engine replaces its writer looper that way after a write failure):
//   that job must be allowed to finish, and nothing may block on it.
// The name given to Post is a label for the host's diagnostics.
#pragma once

#include <functional>
#include <memory>
#include <string>

namespace orin::xfer {

class IFileTransferLooper {
public:
    virtual ~IFileTransferLooper() = default;
    virtual void Post(std::function<void()> task) = 0;
    virtual void Post(const std::string& name, std::function<void()> task) = 0;
};

class IFileTransferLooperFactory {
public:
    virtual ~IFileTransferLooperFactory() = default;
    virtual std::unique_ptr<IFileTransferLooper> CreateLooper() = 0;
    virtual std::unique_ptr<IFileTransferLooper> CreateLooper(const std::string& name) = 0;
};

}  // namespace orin::xfer
