// The sending session's state is kept under one lock because Cancel may
// come from any thread while Offer and WaitFinished run on the host's. The
// endpoint is set once, under that lock, and lives until the destructor;
// it is called without the lock held (its observer may call Cancel).
#include "xferfm/host/NetworkSender.h"

#include <algorithm>

#include "DigestOfferingLink.h"
#include "DurationText.h"
#include "HostLog.h"
#include "ListRequestVersionCheck.h"
#include "OfferOptionsLink.h"
#include "ProgressWatchingLink.h"
#include "xferfm/host/TcpTransport.h"

namespace orin::xfer::host {
namespace {

using Clock = std::chrono::steady_clock;

// WaitFinished waits in slices this long, checking progress between them.
constexpr std::chrono::milliseconds kProgressCheck{200};
constexpr const char* kLinkThreadName = "xfer-send";

}  // namespace

// Between the endpoint and the host's observer: an entry the receiver had
// complete is kept, not skipped (OnEntryKept), and in a dry run one it only
// passed over is not news for the host; every other call goes through, on
// the endpoint's thread and one at a time, as the endpoint makes them.
class NetworkSender::SkipFilter final : public SenderObserver {
public:
    SkipFilter(NetworkSender& owner, SenderObserver* host) : mOwner(owner), mHost(host) {}

    void OnFileStarted(const std::string& sourcePath, uint64_t fileSize) override
    {
        if (mHost != nullptr) {
            mHost->OnFileStarted(sourcePath, fileSize);
        }
    }
    void OnBytesSent(uint64_t totalBytesSent) override
    {
        if (mHost != nullptr) {
            mHost->OnBytesSent(totalBytesSent);
        }
    }
    void OnEntrySkipped(const std::string& sourcePath, const std::string& reason) override
    {
        bool quiet = false;
        bool kept = false;
        {
            std::lock_guard<std::mutex> lock(mOwner.mMutex);
            quiet = mOwner.IsQuietSkip(sourcePath);
            kept = mOwner.mCompleteSources.count(sourcePath) != 0;
        }
        if (mHost == nullptr) {
            return;
        }
        if (kept) {
            mHost->OnEntryKept(sourcePath);
        } else if (!quiet) {
            mHost->OnEntrySkipped(sourcePath, reason);
        }
    }
    void OnFailure(const std::string& path, const std::string& message) override
    {
        if (mHost != nullptr) {
            mHost->OnFailure(path, message);
        }
    }
    void OnFinished(const TransferSummary& summary) override
    {
        if (mHost != nullptr) {
            mHost->OnFinished(summary);
        }
    }

private:
    NetworkSender& mOwner;
    SenderObserver* const mHost;
};

NetworkSender::NetworkSender(NetworkSenderOptions options)
    : mOptions(std::move(options)), mPeer(mOptions.address.host + ":" + std::to_string(mOptions.address.port))
{
}

bool NetworkSender::IsQuietSkip(const std::string& sourcePath) const
{
    if (mCompleteSources.count(sourcePath) != 0) {
        return true;
    }
    return mOptions.offer.dryRun && mRefusedSources.count(sourcePath) == 0;
}

// The endpoint goes first, without the lock (its link's last deliveries
// take it): its destructor cancels and tears the link down, after which
// nothing calls into the members below.
NetworkSender::~NetworkSender()
{
    std::unique_ptr<SenderEndpoint> endpoint;
    {
        std::lock_guard<std::mutex> lock(mMutex);
        endpoint = std::move(mEndpoint);
    }
}

const char* NetworkSender::StateName(State state)
{
    switch (state) {
    case State::kIdle: return "idle";
    case State::kConnecting: return "connecting";
    case State::kConnected: return "connected";
    case State::kSending: return "sending";
    case State::kCancelling: return "cancelling";
    case State::kEnded: return "ended";
    }
    return "?";
}

void NetworkSender::SetState(State next, const std::string& why)
{
    HOST_LOG_D << "send to " << mPeer << ": " << StateName(mState)
               << " -> " << StateName(next) << ": " << why;
    mState = next;
}

bool NetworkSender::Connect(std::string& error)
{
    {
        std::lock_guard<std::mutex> lock(mMutex);
        SetState(State::kConnecting, "connect");
    }
    TcpSocket connection = ConnectTcp(mOptions.address, mOptions.connectTimeout, error);
    std::lock_guard<std::mutex> lock(mMutex);
    if (!connection.Valid()) {
        SetState(State::kEnded, error);
        return false;
    }
    const std::string local = LocalAddressOf(connection.Fd());
    TcpTransportOptions linkOptions;
    linkOptions.threadName = kLinkThreadName;
    mLink = std::make_unique<TcpTransport>(std::move(connection), linkOptions);
    SetState(State::kConnected, "connected from " + local);
    return true;
}

void NetworkSender::Attach(StreamEnds stream)
{
    StreamTransportOptions linkOptions;
    linkOptions.threadName = kLinkThreadName;
    std::lock_guard<std::mutex> lock(mMutex);
    mPeer = stream.peer;
    mLink = std::make_unique<StreamTransport>(std::move(stream), linkOptions);
    SetState(State::kConnected, "attached to an open stream");
}

NetworkSender::OfferResult NetworkSender::Offer(const std::vector<std::string>& sources, std::string& error)
{
    return offer([&sources](SenderEndpoint& endpoint, std::string& why) { return endpoint.Offer(sources, why); },
                 std::to_string(sources.size()) + " sources offered", error);
}

NetworkSender::OfferResult NetworkSender::Offer(const SourcePlan& plan, std::string& error)
{
    {
        // The list offers the plan's entries in the plan's order.
        std::lock_guard<std::mutex> lock(mMutex);
        for (const SourceEntry& entry : plan.entries) {
            mSourceByIndex.push_back(entry.sourcePath);
            mSourceByName[entry.relativePath] = entry.sourcePath;
        }
    }
    return offer([&plan](SenderEndpoint& endpoint, std::string& why) { return endpoint.Offer(plan, why); },
                 std::to_string(plan.entries.size()) + " entries offered", error);
}

NetworkSender::OfferResult NetworkSender::offer(const std::function<bool(SenderEndpoint&, std::string&)>& offerTo,
                                                const std::string& offeredWhat, std::string& error)
{
    std::unique_ptr<ITransport> bare;
    {
        std::lock_guard<std::mutex> lock(mMutex);
        mLastProgress = Clock::now();
        bare = std::move(mLink);
        if (!bare) {
            error = "no link to a receiver: Connect or Attach first";
            SetState(State::kEnded, error);
            return OfferResult::kSourcesUnusable;
        }
    }
    auto checked = std::make_unique<ListRequestVersionCheck>(std::move(bare));
    OfferOptionsLink::Callbacks answers;
    answers.onLanding = [this](const EntryLanding& landing) {
        std::lock_guard<std::mutex> lock(mMutex);
        mLandings.push_back(landing);
    };
    answers.onComplete = [this](const EntryComplete& complete) {
        std::lock_guard<std::mutex> lock(mMutex);
        const auto source = mSourceByName.find(complete.name);
        if (source != mSourceByName.end()) {
            mCompleteSources.insert(source->second);
            mCompleteNames.push_back(complete.name);
        }
    };
    answers.onRefused = [this](uint64_t index) {
        std::lock_guard<std::mutex> lock(mMutex);
        if (index < mSourceByIndex.size()) {
            mRefusedSources.insert(mSourceByIndex[static_cast<size_t>(index)]);
        }
    };
    auto answered = std::make_unique<OfferOptionsLink>(std::move(checked), mOptions.offer, std::move(answers));
    auto watched = std::make_unique<ProgressWatchingLink>(std::move(answered), [this] {
            std::lock_guard<std::mutex> lock(mMutex);
            mLastProgress = Clock::now();
        });
    auto link = std::make_unique<DigestOfferingLink>(
        std::move(watched), mOptions.digests,
        [this](const VerifyVerdict& verdict) {
            std::lock_guard<std::mutex> lock(mMutex);
            if (!mVerdict || !verdict.matched) {  // a failure is the last word
                mVerdict = verdict;
            }
        },
        [this](const std::string& reason) {
            std::lock_guard<std::mutex> lock(mMutex);
            mLinkLost = reason;
        },
        [this](DisconnectReason reason) {
            std::lock_guard<std::mutex> lock(mMutex);
            mGoodbye = reason;
        });
    SenderEndpoint* endpoint = nullptr;
    {
        std::lock_guard<std::mutex> lock(mMutex);
        mSkipFilter = std::make_unique<SkipFilter>(*this, mOptions.endpoint.observer);
        SenderOptions endpointOptions = mOptions.endpoint;
        endpointOptions.observer = mSkipFilter.get();
        mEndpoint = std::make_unique<SenderEndpoint>(std::move(link), endpointOptions);
        endpoint = mEndpoint.get();
    }
    const bool offered = offerTo(*endpoint, error);
    // The receiver may have ended the session before anything was offered
    // (a busy receiver): that, not the sources, is the news.
    const std::string receiverEnded = !offered && endpoint->Finished() ? endpoint->Summary().error : "";
    std::unique_lock<std::mutex> lock(mMutex);
    if (offered && mCancelRequested) {  // Cancel came before there was an endpoint to tell
        lock.unlock();
        endpoint->Cancel();
        return OfferResult::kOffered;
    }
    if (offered) {
        SetState(State::kSending, offeredWhat);
        return OfferResult::kOffered;
    }
    if (!receiverEnded.empty()) {
        error = receiverEnded;
        SetState(State::kEnded, "the receiver ended the session: " + error);
        return OfferResult::kEndedByReceiver;
    }
    SetState(State::kEnded, "the sources cannot be offered: " + error);
    return OfferResult::kSourcesUnusable;
}

SenderEndpoint* NetworkSender::Endpoint() const
{
    std::lock_guard<std::mutex> lock(mMutex);
    return mEndpoint.get();
}

bool NetworkSender::WaitFinished(std::chrono::milliseconds timeout)
{
    SenderEndpoint* endpoint = Endpoint();
    if (endpoint == nullptr) {
        return true;
    }
    const auto deadline = Clock::now() + timeout;
    for (;;) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
        if (endpoint->WaitFinished(std::clamp(left, std::chrono::milliseconds(0), kProgressCheck))) {
            break;
        }
        CheckProgress(*endpoint);
        if (Clock::now() >= deadline) {
            return false;
        }
    }
    const TransferSummary summary = endpoint->Summary();
    std::lock_guard<std::mutex> lock(mMutex);
    if (mState != State::kEnded) {
        SetState(State::kEnded, summary.error.empty() ? "the copy is complete" : summary.error);
    }
    return true;
}

// Ends a session whose receiver has moved nothing on for the limit.
void NetworkSender::CheckProgress(SenderEndpoint& endpoint)
{
    {
        std::lock_guard<std::mutex> lock(mMutex);
        if (mState != State::kSending || Clock::now() - mLastProgress <= mOptions.progressTimeout) {
            return;
        }
        mStalled = true;
        SetState(State::kCancelling, "the receiver moved nothing on for " + detail::DurationText(mOptions.progressTimeout));
    }
    endpoint.Cancel();
}

bool NetworkSender::Finished() const
{
    SenderEndpoint* endpoint = Endpoint();
    return endpoint == nullptr || endpoint->Finished();
}

// Also before Offer: the session then ends as soon as it has begun.
void NetworkSender::Cancel()
{
    SenderEndpoint* endpoint = nullptr;
    {
        std::lock_guard<std::mutex> lock(mMutex);
        mCancelRequested = true;
        if (mState != State::kCancelling && mState != State::kEnded) {
            SetState(State::kCancelling, "cancelled by the host");
        }
        endpoint = mEndpoint.get();
    }
    if (endpoint != nullptr) {
        endpoint->Cancel();
    }
}

// The first that applies, in this order, decides the outcome.
SentSession NetworkSender::Result() const
{
    SentSession result;
    if (SenderEndpoint* endpoint = Endpoint()) {
        result.summary = endpoint->Summary();
    }
    std::lock_guard<std::mutex> lock(mMutex);
    result.verdict = mVerdict;
    result.goodbye = mGoodbye;
    result.landings = mLandings;
    result.alreadyComplete = mCompleteNames;
    // What the receiver kept, or in a dry run only passed over, was not
    // skipped: the summary keeps the refused entries alone.
    auto& skipped = result.summary.skipped;
    skipped.erase(std::remove_if(skipped.begin(), skipped.end(),
                                 [this](const SkippedEntry& entry) { return IsQuietSkip(entry.path); }),
                  skipped.end());
    if (result.summary.partial && skipped.empty()) {
        result.summary.partial = false;
        result.summary.completed = true;
        result.summary.error.clear();
    }
    const bool ranToEnd = result.summary.completed || result.summary.partial;
    using Outcome = SentSession::Outcome;
    if (mStalled && !result.summary.completed) {
        result.outcome = Outcome::kStalled;
        result.failure = "the receiver moved nothing on for " + detail::DurationText(mOptions.progressTimeout);
    } else if (mCancelRequested && !result.summary.completed) {
        result.outcome = Outcome::kCancelled;
    } else if (mVerdict && !mVerdict->matched) {
        result.outcome = Outcome::kVerifyFailed;
    } else if (!ranToEnd && mLinkLost) {
        result.outcome = Outcome::kLinkLost;
        result.failure = *mLinkLost;
    } else if (!ranToEnd) {
        result.outcome = Outcome::kFailed;
        result.failure = result.summary.error;
    } else {
        result.outcome = result.summary.partial ? Outcome::kPartial : Outcome::kCompleted;
    }
    if (mOptions.offer.dryRun && ranToEnd && (result.outcome == Outcome::kPartial || result.outcome == Outcome::kCompleted)) {
        result.outcome = Outcome::kPreviewed;
    }
    return result;
}

}  // namespace orin::xfer::host
