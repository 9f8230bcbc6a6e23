#include "xferfm/host/JobCountingLooperFactory.h"

#include <functional>
#include <utility>

namespace orin::xfer::host {

namespace {

// Lives in the job's closure: the count drops when the closure goes, after
// the job ran or when a looper's teardown dropped it unrun.
class HeldJob {
public:
    explicit HeldJob(std::shared_ptr<JobCounter> counter) : mCounter(std::move(counter)) { mCounter->Add(); }
    ~HeldJob() { mCounter->Done(); }
    HeldJob(const HeldJob&) = delete;
    HeldJob& operator=(const HeldJob&) = delete;

private:
    std::shared_ptr<JobCounter> mCounter;
};

class CountingLooper final : public IFileTransferLooper {
public:
    CountingLooper(std::unique_ptr<IFileTransferLooper> inner, std::shared_ptr<JobCounter> counter)
        : mInner(std::move(inner)), mCounter(std::move(counter))
    {
    }

    void Post(std::function<void()> task) override { mInner->Post(wrap(std::move(task))); }
    void Post(const std::string& name, std::function<void()> task) override
    {
        mInner->Post(name, wrap(std::move(task)));
    }

private:
    std::function<void()> wrap(std::function<void()> task)
    {
        auto held = std::make_shared<HeldJob>(mCounter);
        return [held = std::move(held), task = std::move(task)] { task(); };
    }

    std::unique_ptr<IFileTransferLooper> mInner;
    std::shared_ptr<JobCounter> mCounter;
};

}  // namespace

void JobCounter::Add()
{
    std::lock_guard<std::mutex> lock(mMutex);
    ++mHeld;
}

void JobCounter::Done()
{
    std::lock_guard<std::mutex> lock(mMutex);
    if (--mHeld == 0) {
        mIdle.notify_all();
    }
}

bool JobCounter::WaitIdle(std::chrono::milliseconds timeout)
{
    std::unique_lock<std::mutex> lock(mMutex);
    return mIdle.wait_for(lock, timeout, [this] { return mHeld == 0; });
}

JobCountingLooperFactory::JobCountingLooperFactory(std::unique_ptr<IFileTransferLooperFactory> inner,
                                                   std::shared_ptr<JobCounter> counter)
    : mInner(std::move(inner)), mCounter(std::move(counter))
{
}

std::unique_ptr<IFileTransferLooper> JobCountingLooperFactory::CreateLooper()
{
    return std::make_unique<CountingLooper>(mInner->CreateLooper(), mCounter);
}

std::unique_ptr<IFileTransferLooper> JobCountingLooperFactory::CreateLooper(const std::string& name)
{
    return std::make_unique<CountingLooper>(mInner->CreateLooper(name), mCounter);
}

}  // namespace orin::xfer::host
