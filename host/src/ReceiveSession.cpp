#include "ReceiveSession.h"

#include <algorithm>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <vector>

#include "DigestCheckingLink.h"
#include "DurationText.h"
#include "HostLog.h"
#include "LinkEndWatch.h"
#include "OfferAnswerLink.h"
#include "ReceiveSessionObserver.h"
#include "xferfm/host/ForwardingTransport.h"
#include "xferfm/host/ReceiverEndpoint.h"
#include "xferfm/host/RemoteNameGuardTransport.h"
#include "xferfm/host/ResumeNote.h"
#include "xferfm/host/Sha256.h"

namespace orin::xfer::host::detail {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds kPollInterval{200};

class ReceiveSession {
public:
    enum class State { kStarting, kAwaitingList, kReceiving, kCancelling, kEnded };
    // Why the session was cancelled, when it was.
    enum class CancelCause { kNone, kStopped, kListTimeout, kStalled };

    ReceiveSession(std::unique_ptr<ITransport> link, std::string peer, const ReceiveSessionSetup& setup)
        : mSetup(setup),
          mOptions(*setup.options),
          mLink(std::move(link)),
          mEndpointObserver(mOptions.endpointObserver, [this](const std::string& name, const std::string& finalPath) {
              if (mSetup.observer != nullptr) {
                  mSetup.observer->OnFileReceived(mResult.number, name, finalPath);
              }
          })
    {
        mResult.number = setup.number;
        mResult.peer = std::move(peer);
    }

    ReceivedSession Run();

private:
    std::unique_ptr<ITransport> MakeLink();
    DigestCheck CheckLandedFiles(const FileDigests& expected) const;
    void Conclude(const std::string& startFailure);
    void NoteWhatLanded();
    void SetState(State next, const std::string& why);
    static const char* StateName(State state);

    const ReceiveSessionSetup& mSetup;
    const NetworkReceiverOptions& mOptions;
    std::unique_ptr<ITransport> mLink;  // until MakeLink stacks the guards on it
    State mState = State::kStarting;  // Run's thread only
    CancelCause mCancelCause = CancelCause::kNone;
    SessionObserver mEndpointObserver;
    ReceivedSession mResult;
    OfferAnswerLink* mOfferAnswer = nullptr;  // in the endpoint's link; valid while the endpoint lives

    std::mutex mMutex;  // guards the members below, written from the link's threads
    std::optional<VerifyVerdict> mVerdict;
    std::string mRefusal;  // the guard refused the whole session
    bool mSenderGone = false;  // the sender ended or broke the link without a goodbye
    bool mSenderCancelled = false;  // the sender's goodbye, said first, was a cancel
    std::vector<RefusedEntry> mRefused;
};

const char* ReceiveSession::StateName(State state)
{
    switch (state) {
    case State::kStarting: return "starting";
    case State::kAwaitingList: return "awaiting-list";
    case State::kReceiving: return "receiving";
    case State::kCancelling: return "cancelling";
    case State::kEnded: return "ended";
    }
    return "?";
}

void ReceiveSession::SetState(State next, const std::string& why)
{
    HOST_LOG_D << "session " << mResult.number << " from " << mResult.peer << ": " << StateName(mState) << " -> "
               << StateName(next) << ": " << why;
    mState = next;
}

std::unique_ptr<ITransport> ReceiveSession::MakeLink()
{
    auto watched = std::make_unique<LinkEndWatch>(
        std::move(mLink), mSetup.senderWentAway,
        [this] {
            std::lock_guard<std::mutex> lock(mMutex);
            mSenderGone = true;
        },
        [this](DisconnectReason reason) {
            std::lock_guard<std::mutex> lock(mMutex);
            mSenderCancelled = reason == DisconnectReason::kCancelled;
        });
    // Refusals by the guard and by the endpoint's name rules alike.
    const auto onEntryRefused = [this](const RefusedEntry& entry) {
        {
            std::lock_guard<std::mutex> lock(mMutex);
            mRefused.push_back(entry);
        }
        if (mSetup.observer != nullptr) {
            mSetup.observer->OnEntryRefused(mResult.number, mResult.peer, entry);
        }
    };
    mEndpointObserver.SetOnRefused(onEntryRefused);
    auto guarded = std::make_unique<RemoteNameGuardTransport>(
        std::move(watched), mOptions.destinationDir, mOptions.listLimits,
        [this](const std::string& refusal) {
            std::lock_guard<std::mutex> lock(mMutex);
            mRefusal = refusal;
        },
        onEntryRefused);
    auto answering = std::make_unique<OfferAnswerLink>(std::move(guarded), mOptions.destinationDir);
    mOfferAnswer = answering.get();
    return std::make_unique<DigestCheckingLink>(
        std::move(answering), [this](const FileDigests& expected) { return CheckLandedFiles(expected); },
        [this](const VerifyVerdict& verdict) {
            std::lock_guard<std::mutex> lock(mMutex);
            mVerdict = verdict;
        });
}

// Hashes each landed file named in `expected` and names every mismatch.
DigestCheck ReceiveSession::CheckLandedFiles(const FileDigests& expected) const
{
    DigestCheck check;
    for (const auto& [name, digest] : expected) {
        if (mEndpointObserver.RefusedByName(name)) {
            continue;  // left out for its name: the sender heard so
        }
        ++check.filesCompared;
        const std::optional<std::string> landed = mEndpointObserver.FinalPathOf(name);
        if (!landed) {
            check.problems.push_back("'" + name + "' did not arrive");
            continue;
        }
        std::string error;
        const std::optional<std::string> actual = Sha256OfFile(*landed, error);
        if (!actual) {
            check.problems.push_back("'" + *landed + "' cannot be read: " + error);
        } else if (*actual != digest) {
            check.problems.push_back("'" + *landed + "' has sha256 " + *actual + ", its source " + digest);
        }
    }
    return check;
}

ReceivedSession ReceiveSession::Run()
{
    if (mSetup.observer != nullptr) {
        mSetup.observer->OnSessionStarted(mResult.number, mResult.peer);
    }
    ReceiverOptions options;
    options.destinationDir = mOptions.destinationDir;
    options.listLimits = mOptions.listLimits;
    options.names = mOptions.names;
    options.permissionMask = mOptions.permissionMask;
    options.observer = &mEndpointObserver;
    options.resumeNamesFromLink = [this] { return mOfferAnswer->ResumeNames(); };

    const auto started = Clock::now();
    std::string startFailure;
    {
        std::unique_ptr<ITransport> link = MakeLink();
        ITransport* const linkToSender = link.get();  // owned by the endpoint, which outlives its use here
        ReceiverEndpoint receiver(std::move(link), options);
        std::string error;
        if (receiver.Start(error)) {
            mSetup.onCacheDirectory(receiver.CacheDirectory());
            SetState(State::kAwaitingList, "receiving into " + receiver.CacheDirectory());
        } else {
            // A link that broke at once ends the endpoint before it starts;
            // its summary then holds the link's reason.
            const std::string failure = receiver.Finished() ? receiver.Summary().error : "";
            startFailure = failure.empty() ? "cannot receive into " + mOptions.destinationDir + ": " + error : failure;
        }
        while (startFailure.empty() && !receiver.WaitFinished(kPollInterval)) {
            if (mState == State::kAwaitingList && mEndpointObserver.ListReceived()) {
                SetState(State::kReceiving, "the list was accepted");
            }
            // A stop outranks a list time-out already under way.
            if (mSetup.stopRequested->load() && mCancelCause != CancelCause::kStopped) {
                mCancelCause = CancelCause::kStopped;
                if (mState != State::kCancelling) {
                    SetState(State::kCancelling, "the host stops receiving");
                }
                receiver.Cancel();
            } else if (mState == State::kAwaitingList && Clock::now() - started > mOptions.listTimeout) {
                mCancelCause = CancelCause::kListTimeout;
                SetState(State::kCancelling, "no file list within the time-out");
                // The sender hears why before the endpoint's own "cancelled",
                // which it then ignores: it was not cancelled by anyone.
                linkToSender->Send(Disconnect{false, "no file list within " + DurationText(mOptions.listTimeout)});
                receiver.Cancel();
            } else if (mState == State::kReceiving &&
                       Clock::now() - mEndpointObserver.LastProgress() > mOptions.progressTimeout) {
                mCancelCause = CancelCause::kStalled;
                SetState(State::kCancelling, "no file data moved within the progress time-out");
                receiver.Cancel();
            }
        }
        mResult.summary = receiver.Summary();
        const OfferAnswerLink::Answer answer = mOfferAnswer->Answered();
        mResult.offer = answer.options;
        mResult.landings = answer.landings;
        mResult.entriesComplete = answer.entriesComplete;
        // Leaving the scope closes the link and removes the cache directory.
    }
    mSetup.onCacheDirectory("");
    mResult.duration = Clock::now() - started;
    Conclude(startFailure);
    NoteWhatLanded();
    SetState(State::kEnded, startFailure.empty() ? mResult.summary.error : startFailure);
    return std::move(mResult);
}

// An interrupted session leaves the note a resumed one continues from (the
// top-level names it landed under); a complete one removes it. A dry run
// touches neither.
void ReceiveSession::NoteWhatLanded()
{
    using Outcome = ReceivedSession::Outcome;
    if (mResult.offer.dryRun) {
        return;
    }
    if (mResult.outcome == Outcome::kOk || mResult.outcome == Outcome::kRefused) {
        RemoveResumeNote(mOptions.destinationDir);
        return;
    }
    if (mResult.outcome != Outcome::kCancelled && mResult.outcome != Outcome::kCancelledBySender &&
        mResult.outcome != Outcome::kLinkLost && mResult.outcome != Outcome::kStalled) {
        return;
    }
    std::map<std::string, std::string> landed = ReadResumeNote(mOptions.destinationDir);
    for (const auto& [name, finalPath] : mEndpointObserver.TopLevelLanded()) {
        landed[name] = finalPath.substr(finalPath.find_last_of('/') + 1);
    }
    if (!landed.empty()) {
        WriteResumeNote(mOptions.destinationDir, landed);
        mResult.resumable = true;
    }
}

// The first that applies, in this order, decides the outcome.
void ReceiveSession::Conclude(const std::string& startFailure)
{
    std::lock_guard<std::mutex> lock(mMutex);
    mResult.verdict = mVerdict;
    mResult.refused = mRefused;
    mResult.renamed = mEndpointObserver.Renamed();
    // A resumed entry continues under the name it had: not a rename.
    for (const EntryLanding& landing : mResult.landings) {
        if (landing.resumed) {
            mResult.renamed.erase(std::remove_if(mResult.renamed.begin(), mResult.renamed.end(),
                                                 [&landing](const auto& renamed) { return renamed.first == landing.name; }),
                                  mResult.renamed.end());
        }
    }
    using Outcome = ReceivedSession::Outcome;
    if (!mRefusal.empty()) {
        mResult.outcome = Outcome::kFailed;
        mResult.failure = mRefusal;
    } else if (!startFailure.empty()) {
        // A sender that left before the endpoint started lost its link, as later.
        mResult.outcome = mSenderGone ? Outcome::kLinkLost : Outcome::kFailed;
        mResult.failure = startFailure;
    } else if (mVerdict && !mVerdict->matched) {
        mResult.outcome = Outcome::kVerifyFailed;
    } else if (mCancelCause == CancelCause::kStopped) {
        mResult.outcome = Outcome::kCancelled;
    } else if (mCancelCause == CancelCause::kListTimeout) {
        mResult.outcome = Outcome::kListTimeout;
    } else if (mCancelCause == CancelCause::kStalled) {
        mResult.outcome = Outcome::kStalled;
        mResult.failure = "no file data moved for " + DurationText(mOptions.progressTimeout);
    } else if (!mResult.summary.completed && mSenderCancelled) {
        mResult.outcome = Outcome::kCancelledBySender;
    } else if (!mResult.summary.completed) {
        const std::string failure = mEndpointObserver.Failure();
        mResult.outcome = mSenderGone ? Outcome::kLinkLost : Outcome::kFailed;
        mResult.failure = failure.empty() ? mResult.summary.error : failure;
    } else {
        mResult.outcome = mRefused.empty() ? Outcome::kOk : Outcome::kRefused;
    }
}

}  // namespace

ReceivedSession RunReceiveSession(std::unique_ptr<ITransport> link, std::string peer, const ReceiveSessionSetup& setup)
{
    ReceiveSession session(std::move(link), std::move(peer), setup);
    return session.Run();
}

}  // namespace orin::xfer::host::detail
