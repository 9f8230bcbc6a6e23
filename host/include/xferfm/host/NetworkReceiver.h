// Receives copies over TCP into a destination directory, one sender at a
// time: the serving side of a network copy, with every protection a
// receiver exposed to the network needs, whatever the host.
//
// Usage: make a TcpListener, construct a NetworkReceiver on it with
// options and an observer, call Run; Stop (from a signal hook, say) ends
// it. Each session gets one ReceivedSession through OnSessionEnded.
// Over a stream that is already open (the standard input and output of a
// process a sender started through a remote shell, say): construct without
// a listener and call RunOne with the stream's ends; it serves exactly that
// one session, with the same guards, and the stream's label names the
// sender wherever "HOST:PORT" would.
//
// What a session gets, innermost first: TcpTransport or StreamTransport
// (frames, liveness) ->
// RemoteNameGuardTransport (every name checked before the endpoint sees
// it; refused entries are named and left out) -> a digest check (when the
// sender's list carries digests, every landed file is hashed and the
// sender hears the verdict) -> ReceiverEndpoint. A sender that offers no
// list within `listTimeout` is cancelled. A sender that connects during a
// session waits up to `waitingPatience` for its turn, then is turned away
// with BusyDisconnect(serverName, session). Once the list is in, a session
// that moves no file data for `progressTimeout` ends, however busy its
// sender keeps the link. A failed or hostile session
// never ends Run; the next sender is taken once it has been torn down.
//
// THREADING CONTRACT
// 1. Run blocks the calling thread until Stop is called or `maxSessions`
//    sessions have ended; call it once. Each session's endpoint and link
//    run their own threads and are gone before the next session starts.
//    RunOne blocks until its one session has ended and is torn down; call
//    it once, instead of Run (a receiver made without a listener has only
//    RunOne; its Run returns at once).
// 2. Stop and ActiveCacheDirectory may be called from any thread (a signal
//    hook, say), also before Run or after it returned. Stop cancels the
//    session in progress (its outcome: kCancelled); senders still waiting
//    are then dropped without a word.
// 3. Observer calls come from three threads and may overlap:
//    OnSessionStarted, OnSessionEnded and OnAcceptFailed from Run's thread;
//    OnEntryRefused from the session's delivery thread (all of a session's
//    refusals before its first file is asked for, and before its
//    OnSessionEnded); OnFileReceived from the session's endpoint threads,
//    one at a time and before its OnSessionEnded; OnTurnedAway from the thread that watches the
//    waiting senders. They must be quick; they may call Stop, never Run.
// 4. Lifetime: the listener and the observer must outlive the receiver;
//    destroy the receiver only after Run (or RunOne) has returned. RunOne
//    owns the stream's descriptors from the call on and closes them before
//    it returns.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "xferfm/host/FileList.h"
#include "xferfm/host/ReceiverEndpoint.h"
#include "xferfm/host/RemoteNameGuardTransport.h"
#include "xferfm/host/StreamTransport.h"
#include "xferfm/host/TcpListener.h"
#include "xferfm/host/TransferObserver.h"
#include "xferfm/host/TransportMessages.h"

namespace orin::xfer::host {

struct NetworkReceiverOptions {
    std::string destinationDir;  // an existing directory this process may write into
    // Names this receiver in the goodbye of a sender turned away.
    std::string serverName = "xferfm serve";
    // A sender must offer its list this soon after connecting: a client
    // that connects and says nothing useful must not hold the receiver.
    std::chrono::milliseconds listTimeout{30000};
    // Once the list is in, a session that moves no file data this long
    // ends (outcome kStalled). Progress counts, not frames: a request, a
    // written chunk or a landed entry restarts it; keepalives, repeated
    // acknowledgements and empty data frames do not.
    std::chrono::milliseconds progressTimeout{45000};
    // How long a sender that connects during a session waits for its turn:
    // enough for back-to-back senders, well inside a link's 10 s silence
    // timeout.
    std::chrono::milliseconds waitingPatience{4000};
    // Run returns after this many sessions (0: until Stop). Senders still
    // waiting then hear that the receiver has finished.
    unsigned maxSessions = 0;
    FileListLimits listLimits;
    // When set, also told everything each session's receiving endpoint
    // reports (the list, each file's progress, what landed where, the
    // failure), as ReceiverEndpoint calls its observer: from the endpoint's
    // threads, serialised. For a host that shows progress; it must outlive
    // Run or RunOne and must not call back into the receiver but Stop.
    ReceiverObserver* endpointObserver = nullptr;
    // Names fitted to another platform (ReceiverEndpoint.h): the entries
    // they refuse are refused like the guard's (OnEntryRefused, outcome
    // kRefused; their index counts in the list after the guard's
    // refusals), the mapped ones are in the summary's namesMapped.
    std::optional<ReceiverNameRules> names;
    // Bits cleared from every mode a sender lists (ReceiverOptions): pass
    // the process umask to land files the way `cp` without -p does; 0, the
    // default, keeps the sender's modes exact.
    uint32_t permissionMask = 0;
};

// How one session ended, and what it brought.
struct ReceivedSession {
    enum class Outcome {
        kOk,                 // every entry offered arrived
        kRefused,            // the refused entries were left out, the rest arrived
        kVerifyFailed,       // everything arrived, but copies differ from their sources
        kCancelled,          // Stop was called during the session
        kCancelledBySender,  // the sender cancelled the copy (its user pressed Ctrl-C, say)
        kListTimeout,        // the sender offered no list within listTimeout
        kStalled,            // no file data moved for progressTimeout after the list
        kLinkLost,           // the sender ended or broke the link before the session was over, without a goodbye
                             // (its process exited, say): `failure` says what was cut
        kFailed,             // anything else: `failure` says why
    };
    unsigned number = 0;  // 1 for the first session of Run
    std::string peer;     // "HOST:PORT" of the sender, or the label of the stream
    Outcome outcome = Outcome::kFailed;
    std::string failure;  // kFailed: the reason (the sender's words included: escape before printing)
    TransferSummary summary;
    std::chrono::steady_clock::duration duration{};
    std::optional<VerifyVerdict> verdict;  // when the sender asked for verification and the copy got that far
    std::vector<RefusedEntry> refused;     // entries of the list left out, in list order
    // Top-level entries that landed under another name because theirs was
    // taken in the destination: (name offered, name it landed as).
    std::vector<std::pair<std::string, std::string>> renamed;
    // What the sender asked beyond a plain copy (OfferOptions), and the
    // answer: where each top-level entry lands (or would, in a dry run,
    // which lands nothing) and, resuming, how many files were complete
    // already and kept.
    OfferOptions offer;
    std::vector<EntryLanding> landings;
    uint64_t entriesComplete = 0;
    // The session was cut short after entries landed: the destination's
    // resume note (ResumeNote.h) names them, and a resumed offer continues.
    bool resumable = false;
};

class NetworkReceiverObserver {
public:
    virtual ~NetworkReceiverObserver() = default;
    virtual void OnSessionStarted(unsigned number, const std::string& peer) { (void)number, (void)peer; }
    // An entry of the sender's list is left out (all of them before the
    // first file is asked for); the session goes on with the rest.
    virtual void OnEntryRefused(unsigned number, const std::string& peer, const RefusedEntry& entry)
    {
        (void)number, (void)peer, (void)entry;
    }
    // A file of the session landed under `finalPath` (`name` as the list
    // names it).
    virtual void OnFileReceived(unsigned number, const std::string& name, const std::string& finalPath)
    {
        (void)number, (void)name, (void)finalPath;
    }
    virtual void OnSessionEnded(const ReceivedSession& session) { (void)session; }
    // A waiting sender was told the receiver is busy.
    virtual void OnTurnedAway(const std::string& peer) { (void)peer; }
    // Accepting failed (out of descriptors, say); Run tries again shortly.
    virtual void OnAcceptFailed(const std::string& error) { (void)error; }
};

class NetworkReceiver final {
public:
    NetworkReceiver(TcpListener& listener, NetworkReceiverOptions options, NetworkReceiverObserver& observer);
    // For RunOne only.
    NetworkReceiver(NetworkReceiverOptions options, NetworkReceiverObserver& observer);
    NetworkReceiver(const NetworkReceiver&) = delete;
    NetworkReceiver& operator=(const NetworkReceiver&) = delete;

    void Run();
    // Serves the one session that comes over `stream`; its outcome is also
    // given to OnSessionEnded. `maxSessions` and `waitingPatience` play no
    // part: no one else can arrive on the stream.
    ReceivedSession RunOne(StreamEnds stream);
    void Stop();
    // The private cache directory of the session in progress ("" when
    // none), for a host's emergency exit.
    std::string ActiveCacheDirectory() const;

private:
    ReceivedSession Serve(unsigned number, std::unique_ptr<ITransport> link, std::string peer,
                          std::function<bool()> senderWentAway);

    TcpListener* const mListener;  // null: RunOne only
    const NetworkReceiverOptions mOptions;
    NetworkReceiverObserver& mObserver;
    std::atomic<bool> mStopRequested{false};
    mutable std::mutex mMutex;
    std::string mActiveCache;  // guarded by mMutex
};

}  // namespace orin::xfer::host
