// The serve loop: one session at a time, the senders that come meanwhile
// held in a WaitingRoom, which is the listener's only user while a session
// runs. Everyone turned away leaves through one Farewells, so no goodbye
// ever waits on the accepting thread. Stop only raises a flag: the loop and the session in progress poll
// it, so no endpoint is ever called from the host's stopping thread.
// RunOne is a session without the loop: no listener, no waiting room.
#include "xferfm/host/NetworkReceiver.h"

#include <deque>
#include <thread>

#include "Farewells.h"
#include "ReceiveSession.h"
#include "WaitingRoom.h"
#include "xferfm/host/TcpTransport.h"

namespace orin::xfer::host {
namespace {

constexpr std::chrono::milliseconds kAcceptWait{200};
constexpr const char* kLinkThreadName = "xfer-serve";

}  // namespace

NetworkReceiver::NetworkReceiver(TcpListener& listener, NetworkReceiverOptions options,
                                 NetworkReceiverObserver& observer)
    : mListener(&listener), mOptions(std::move(options)), mObserver(observer)
{
}

NetworkReceiver::NetworkReceiver(NetworkReceiverOptions options, NetworkReceiverObserver& observer)
    : mListener(nullptr), mOptions(std::move(options)), mObserver(observer)
{
}

void NetworkReceiver::Stop() { mStopRequested = true; }

std::string NetworkReceiver::ActiveCacheDirectory() const
{
    std::lock_guard<std::mutex> lock(mMutex);
    return mActiveCache;
}

void NetworkReceiver::Run()
{
    unsigned sessions = 0;
    Farewells farewells;
    std::deque<WaitingSender> waiting;  // connected while the last session ran
    while (mListener != nullptr && !mStopRequested.load()) {
        TcpSocket connection;
        if (!waiting.empty()) {
            connection = std::move(waiting.front().connection);
            waiting.pop_front();
        } else {
            std::string error;
            const auto accepted = mListener->Accept(kAcceptWait, connection, error);
            if (accepted == TcpListener::AcceptResult::kTimedOut) {
                continue;
            }
            if (accepted == TcpListener::AcceptResult::kFailed) {
                // Out of descriptors and the like: say so, then try again
                // rather than leave the senders that will come later.
                mObserver.OnAcceptFailed(error);
                std::this_thread::sleep_for(kAcceptWait);
                continue;
            }
        }
        ++sessions;
        WaitingRoom room(*mListener, std::move(waiting), farewells, mOptions.waitingPatience,
                         BusyDisconnect(mOptions.serverName, sessions),
                         [this](const std::string& peer) { mObserver.OnTurnedAway(peer); });
        TcpTransportOptions linkOptions;
        linkOptions.threadName = kLinkThreadName;
        std::string peer = PeerAddressOf(connection.Fd());
        auto link = std::make_unique<TcpTransport>(std::move(connection), linkOptions);
        const TcpTransport* const bare = link.get();  // alive whenever the session asks
        const ReceivedSession session =
            Serve(sessions, std::move(link), std::move(peer), [bare] { return bare->PeerWentAway(); });
        waiting = room.Leave();
        mObserver.OnSessionEnded(session);
        if (mOptions.maxSessions != 0 && sessions >= mOptions.maxSessions) {
            const std::string finished = mOptions.serverName + " has finished its " +
                                         (sessions == 1 ? std::string("one session")
                                                        : std::to_string(sessions) + " sessions");
            for (WaitingSender& sender : waiting) {
                farewells.Add(std::move(sender.connection), Disconnect{false, finished});
            }
            return;
        }
    }
}

ReceivedSession NetworkReceiver::RunOne(StreamEnds stream)
{
    StreamTransportOptions linkOptions;
    linkOptions.threadName = kLinkThreadName;
    std::string peer = stream.peer;
    auto link = std::make_unique<StreamTransport>(std::move(stream), linkOptions);
    const StreamTransport* const bare = link.get();  // alive whenever the session asks
    const ReceivedSession session =
        Serve(1, std::move(link), std::move(peer), [bare] { return bare->PeerWentAway(); });
    mObserver.OnSessionEnded(session);
    return session;
}

ReceivedSession NetworkReceiver::Serve(unsigned number, std::unique_ptr<ITransport> link, std::string peer,
                                       std::function<bool()> senderWentAway)
{
    detail::ReceiveSessionSetup setup;
    setup.number = number;
    setup.options = &mOptions;
    setup.observer = &mObserver;
    setup.stopRequested = &mStopRequested;
    setup.senderWentAway = std::move(senderWentAway);
    setup.onCacheDirectory = [this](const std::string& cacheDirectory) {
        std::lock_guard<std::mutex> lock(mMutex);
        mActiveCache = cacheDirectory;
    };
    return detail::RunReceiveSession(std::move(link), std::move(peer), setup);
}

}  // namespace orin::xfer::host
