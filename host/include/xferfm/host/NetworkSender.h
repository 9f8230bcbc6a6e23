// Sends a copy over TCP, or over a stream that is already open, to a
// NetworkReceiver: the sending side of a network copy, for any host.
//
// Usage: construct with options, Connect (or Attach to an open stream:
// the standard input and output of a receiver started through a remote
// shell, say; `address` is then unused and the stream's label names the
// receiver in messages), Offer the sources, then WaitFinished until it
// returns true and read Result. With digests in the
// options (Sha256OfFile of every file, by the name the receiver knows it
// by) the copy is verified: the digests travel in the file list, the
// receiver hashes what landed and its verdict comes back typed in Result.
//
// The link, innermost first: TcpTransport or StreamTransport (frames,
// liveness) -> a check
// of the list request's protocol version -> a progress watch -> a digest offer (adds the digests, reads the verdict,
// notes a link lost before the receiver's goodbye) -> SenderEndpoint.
//
// Progress: a receiver that moves the copy on for no `progressTimeout`
// (it never asks for the list, never accepts or acknowledges, only keeps
// the link alive) ends the session as kStalled. Moving on is asking for
// the list or an entry, accepting a file, acknowledging more written
// chunks, refusing an entry; keepalives and repeated acknowledgements are
// not. The limit also covers the receiver's hashing at the end of a
// verified copy.
//
// The session is a state machine, each change logged with its reason:
//   kIdle -> kConnecting -> kConnected -> kSending -> kEnded
//   kIdle -> kConnected (Attach)
//   kSending -> kCancelling (Cancel, no progress) -> kEnded
//   kConnecting / kConnected -> kEnded (no connection; nothing to offer)
//
// THREADING CONTRACT
// 1. Connect (or Attach) and Offer are called once each, in that order, by
//    one host thread, Offer only after Connect returned true or Attach
//    returned; Connect blocks up to `connectTimeout`, Attach never, Offer
//    while the sources are listed. WaitFinished
//    blocks up to its timeout; the progress limit is checked while it
//    runs, so a host calls it until it returns true.
// 2. Cancel, Finished, WaitFinished and Result may be called from any
//    thread (Cancel also from a signal hook or an endpoint observer
//    callback); Cancel is idempotent.
// 3. The endpoint observer in `endpoint.observer` is called as
//    SenderEndpoint calls it (TransferObserver.h); it must outlive the
//    NetworkSender.
// 4. Attach takes ownership of the stream's descriptors; they close when
//    the link is torn down. The destructor cancels a session still running and waits until the
//    endpoint and the link are torn down. Never destroy a NetworkSender
//    from its observer's callbacks.
#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <set>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "xferfm/host/FileListDigests.h"
#include "xferfm/host/SenderEndpoint.h"
#include "xferfm/host/StreamTransport.h"
#include "xferfm/host/TcpSocket.h"
#include "xferfm/host/TransportMessages.h"

namespace orin::xfer::host {

struct NetworkSenderOptions {
    HostPort address;
    std::chrono::milliseconds connectTimeout{10000};
    std::chrono::milliseconds progressTimeout{60000};
    SenderOptions endpoint;
    FileDigests digests;  // empty: no verification
    // A dry run (the receiver says where each top-level entry would land and
    // what it refuses; nothing is sent or written) or a resume (the receiver
    // continues under the names an interrupted copy landed as and keeps what
    // is complete; those entries are not sent). Only with Offer(plan).
    OfferOptions offer;
};

// How the session ended.
struct SentSession {
    enum class Outcome {
        kCompleted,     // every entry went over (resuming: or was complete at the receiver already)
        kPreviewed,     // a dry run: the receiver answered with `landings` and its refusals; nothing went over
        kPartial,       // the receiver refused some entries; the rest went over
        kVerifyFailed,  // the receiver found copies that differ from their sources
        kCancelled,     // Cancel was called
        kLinkLost,      // the link broke before the receiver said goodbye
        kStalled,       // the receiver moved nothing on for progressTimeout: `failure` says so
        kFailed,        // anything else (the receiver ended it, say): `failure` says why
    };
    Outcome outcome = Outcome::kFailed;
    std::string failure;  // kLinkLost, kFailed: why, in the link's or the receiver's words
    TransferSummary summary;
    std::optional<VerifyVerdict> verdict;  // the receiver's, when digests went along
    std::optional<DisconnectReason> goodbye;  // why the receiver ended the session, when it said so
    // Asked with `offer`: where each top-level entry landed (or would), and,
    // resuming, the entries the receiver had complete (by their relative
    // path), which were not sent and are not in summary.skipped.
    std::vector<EntryLanding> landings;
    std::vector<std::string> alreadyComplete;
};

class NetworkSender final {
public:
    enum class OfferResult {
        kOffered,
        kSourcesUnusable,    // `error` names the source and why
        kEndedByReceiver,    // the receiver ended the session first (busy, say): `error` has its words
    };

    explicit NetworkSender(NetworkSenderOptions options);
    ~NetworkSender();
    NetworkSender(const NetworkSender&) = delete;
    NetworkSender& operator=(const NetworkSender&) = delete;

    // False with `error` set when the receiver cannot be reached.
    bool Connect(std::string& error);
    // Instead of Connect: the receiver is at the other end of `stream`.
    void Attach(StreamEnds stream);
    OfferResult Offer(const std::vector<std::string>& sources, std::string& error);
    // The same for a plan the host has already made (and shown): the
    // sources are not walked again.
    OfferResult Offer(const SourcePlan& plan, std::string& error);

    bool WaitFinished(std::chrono::milliseconds timeout);
    bool Finished() const;
    void Cancel();
    // Meaningful once Finished.
    SentSession Result() const;

private:
    OfferResult offer(const std::function<bool(SenderEndpoint&, std::string&)>& offerTo, const std::string& offeredWhat,
                      std::string& error);
    enum class State { kIdle, kConnecting, kConnected, kSending, kCancelling, kEnded };
    static const char* StateName(State state);
    void SetState(State next, const std::string& why);  // with mMutex held
    SenderEndpoint* Endpoint() const;
    void CheckProgress(SenderEndpoint& endpoint);

    const NetworkSenderOptions mOptions;
    std::string mPeer;                  // "HOST:PORT", or the stream's label once attached
    std::unique_ptr<ITransport> mLink;  // made by Connect or Attach, until Offer stacks the session on it
    mutable std::mutex mMutex;  // guards the members below
    std::unique_ptr<SenderEndpoint> mEndpoint;  // set by Offer, then fixed until destruction
    State mState = State::kIdle;
    bool mCancelRequested = false;  // the cause, kept past kCancelling
    bool mStalled = false;          // the other cause
    std::chrono::steady_clock::time_point mLastProgress;
    std::optional<VerifyVerdict> mVerdict;
    std::optional<std::string> mLinkLost;
    std::optional<DisconnectReason> mGoodbye;  // the receiver's, from its Disconnect
    // What the receiver answered to mOptions.offer, and the plan's paths to
    // read it by (list index -> source path, relative path -> source path).
    class SkipFilter;
    std::unique_ptr<SkipFilter> mSkipFilter;  // between the endpoint and the host's observer
    std::vector<std::string> mSourceByIndex;
    std::map<std::string, std::string> mSourceByName;
    std::vector<EntryLanding> mLandings;
    std::set<std::string> mCompleteSources;
    std::vector<std::string> mCompleteNames;
    std::set<std::string> mRefusedSources;
    bool IsQuietSkip(const std::string& sourcePath) const;  // with mMutex held
};

}  // namespace orin::xfer::host
