// The phase of a sender session, and the only way it changes.
//
// A session is created, offers its list (Offer) and sends it once the
// receiver has asked for it (the request may come first), serves the
// receiver's requests while its files stream, and ends once: completed,
// failed or cancelled. Which of these it is decides what every message and
// engine callback may still do, so it is one value, not a set of flags.
//
//   Created ──Offer──▶ Offered ──list request──▶ ListSent ──▶ Finished
//      └─list request─▶ ListRequested ──Offer──────┘            ▲
//   (every phase before Finished may end the session) ──────────┘
//
// THREADING CONTRACT: none of its own; the sender endpoint keeps it under
// its session lock.
#pragma once

#include <string_view>

namespace orin::xfer::host::detail {

enum class SenderState {
    kCreated,        // nothing offered, nothing asked for
    kListRequested,  // the receiver asked for the list before Offer
    kOffered,        // the list is ready; the receiver has not asked for it yet
    kListSent,       // the list went out; the receiver requests its entries
    kFinished,       // the session has ended; nothing more is served or reported
};

const char* SenderStateName(SenderState state);

// Whether a session may go from `from` to `to` (a change, never a stay).
bool SenderTransitionAllowed(SenderState from, SenderState to);

class SenderSessionState {
public:
    SenderState Current() const { return mState; }

    // Moves to `next` and logs it with `why`; an illegal move is logged as
    // an error and refused (false), leaving the phase as it was.
    bool SetState(SenderState next, std::string_view why);

    // Offer has handed the list over (it may or may not have gone out).
    bool ListOffered() const;
    bool Finished() const { return mState == SenderState::kFinished; }

private:
    SenderState mState = SenderState::kCreated;
};

}  // namespace orin::xfer::host::detail
