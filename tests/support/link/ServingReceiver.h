// A NetworkReceiver serving on loopback on its own thread for one test,
// with a log of what it reported, and a plain NetworkSender copy to it:
// the fixtures of the tests that play hostile peers against the kit.
//
// THREADING CONTRACT: the receiver's observer calls land on its threads;
// the test thread reads snapshots. Destroying the fixture stops the
// receiver and waits for Run to return.
#pragma once

#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "LinkTestSupport.h"
#include "xferfm/host/NetworkReceiver.h"
#include "xferfm/host/NetworkSender.h"

namespace orin::xfer::test {

class ReceiverLog final : public NetworkReceiverObserver {
public:
    void OnSessionEnded(const ReceivedSession& session) override
    {
        std::lock_guard<std::mutex> lock(mMutex);
        mSessions.push_back(session);
    }
    void OnTurnedAway(const std::string& peer) override
    {
        std::lock_guard<std::mutex> lock(mMutex);
        mTurnedAway.push_back(peer);
    }
    std::vector<ReceivedSession> Sessions() const
    {
        std::lock_guard<std::mutex> lock(mMutex);
        return mSessions;
    }
    size_t TurnedAwayCount() const
    {
        std::lock_guard<std::mutex> lock(mMutex);
        return mTurnedAway.size();
    }

private:
    mutable std::mutex mMutex;
    std::vector<ReceivedSession> mSessions;
    std::vector<std::string> mTurnedAway;
};

class LoopbackReceiver {
public:
    explicit LoopbackReceiver(const std::string& destination, NetworkReceiverOptions options = {})
        : mListener(HostPort{"127.0.0.1", 0}, mError)
    {
        options.destinationDir = destination;
        mReceiver = std::make_unique<NetworkReceiver>(mListener, options, mLog);
        mThread = std::thread([this] { mReceiver->Run(); });
    }
    ~LoopbackReceiver() { Stop(); }

    // Stops the receiver and waits for Run to return.
    void Stop()
    {
        mReceiver->Stop();
        if (mThread.joinable()) {
            mThread.join();
        }
    }
    LoopbackReceiver(const LoopbackReceiver&) = delete;
    LoopbackReceiver& operator=(const LoopbackReceiver&) = delete;

    HostPort Address() const { return HostPort{"127.0.0.1", mListener.Port()}; }
    const ReceiverLog& Log() const { return mLog; }
    bool WaitForSessions(size_t count, std::chrono::milliseconds timeout = std::chrono::seconds(20)) const
    {
        return waitUntil([this, count] { return mLog.Sessions().size() >= count; }, timeout);
    }

private:
    std::string mError;
    TcpListener mListener;
    ReceiverLog mLog;
    std::unique_ptr<NetworkReceiver> mReceiver;
    std::thread mThread;
};

// Connects, offers `sources` and waits (bounded) for the end of the copy.
inline SentSession CopyOver(const HostPort& address, const std::vector<std::string>& sources)
{
    NetworkSenderOptions options;
    options.address = address;
    NetworkSender sender(options);
    std::string error;
    if (!sender.Connect(error)) {
        SentSession failed;
        failed.failure = error;
        return failed;
    }
    if (sender.Offer(sources, error) != NetworkSender::OfferResult::kOffered) {
        SentSession failed;
        failed.failure = error;
        return failed;
    }
    waitUntil([&sender] { return sender.WaitFinished(std::chrono::milliseconds(10)); }, std::chrono::seconds(20));
    return sender.Result();
}

}  // namespace orin::xfer::test
