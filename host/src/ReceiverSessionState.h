// Where a receiving session stands, and why it is stopping.
//
// The lifecycle is one state that moves forward only:
//   Created -> Preparing -> AwaitingList -> Receiving -> Finishing -> Finished
// with two short cuts to Finished for a session that never ran its thread:
// Created -> Finished (cancelled, or the link failed, before Start) and
// Preparing -> Finished (the destination cannot be used). Every change
// goes through SetState, which logs it and refuses a step the table does
// not allow, so a late or duplicated event cannot move the session back.
//
// Failure and cancellation are not states: they are requests the session
// thread reacts to from whichever state it is in (the first failure wins;
// a cancel and a failure may both be recorded, which decides what the
// sender is told).
//
// THREADING CONTRACT: none of its own; the endpoint keeps it under its lock.
#pragma once

#include <optional>
#include <string>

#include "xferfm/host/TransferObserver.h"

namespace orin::xfer::host::detail {

enum class ReceiverState {
    Created,       // constructed; the transport runs, the session does not
    Preparing,     // Start is resolving the destination and making the cache
    AwaitingList,  // the session thread waits for the sender's list
    Receiving,     // the session thread walks the list
    Finishing,     // the session releases the engine, tells the sender and the observer
    Finished,      // ended; Summary() is final
};

const char* ToString(ReceiverState state);

// The first failure of a session: the path concerned ("" when none is) and
// the message for the summary.
struct ReceiverFailure {
    std::string path;
    std::string message;
    bool fromPeer = false;  // the sender reported it (it is not told back)
};

class ReceiverSessionState {
public:
    // Whether `from` -> `to` is a step of the lifecycle.
    static bool IsLegal(ReceiverState from, ReceiverState to);

    ReceiverState State() const { return mState; }
    // The state before the last change (Created until the first one).
    ReceiverState Previous() const { return mPrevious; }
    bool Is(ReceiverState state) const { return mState == state; }
    // The session thread has been started (and not yet ended the session).
    bool SessionRunning() const;

    // Moves to `next` and logs why; false (logged as an error, state kept)
    // when the step is not legal.
    bool SetState(ReceiverState next, const std::string& why);

    // Records the first failure; false when one was recorded already or the
    // session has finished.
    bool RecordFailure(ReceiverFailure failure);
    const std::optional<ReceiverFailure>& Failure() const { return mFailure; }

    // Records a local Cancel(); false when it was recorded already or the
    // session has finished.
    bool RequestCancel();
    bool CancelRequested() const { return mCancelRequested; }
    void NotePeerCancelled() { mPeerCancelled = true; }
    bool PeerCancelled() const { return mPeerCancelled; }

    // The session must stop: a failure or a cancel is recorded.
    bool Stopping() const { return mFailure.has_value() || mCancelRequested; }

    TransferSummary& Summary() { return mSummary; }
    const TransferSummary& Summary() const { return mSummary; }

    // The facts that hold between public calls; the endpoint checks them in
    // debug builds. `why` names the first one broken.
    bool InvariantsHold(std::string& why) const;

private:
    ReceiverState mState = ReceiverState::Created;
    ReceiverState mPrevious = ReceiverState::Created;
    std::optional<ReceiverFailure> mFailure;
    bool mCancelRequested = false;
    bool mPeerCancelled = false;
    TransferSummary mSummary;
};

}  // namespace orin::xfer::host::detail
