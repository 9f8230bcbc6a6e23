// The sending end of a copy: offers local files and streams them through
// its own engine to a ReceiverEndpoint at the other end of a transport.
//
// Usage: construct with a transport end, Offer(paths) (or Offer(plan)),
// then WaitFinished (or watch the observer's OnFinished) and read
// Summary(). One endpoint serves one session (one offered list); Offer
// succeeds at most once.
//
// What is copied: like `cp -r`, files and directories with their contents,
// hidden entries and empty directories included, symbolic links followed.
// The receiver may refuse entries; those are reported through
// OnEntrySkipped and in the summary, and the session then ends
// `partial` rather than `completed`.
//
// THREADING CONTRACT
// - Public operations may be called from any thread, concurrently.
// - Offer(paths) walks the sources on the calling thread and blocks for
//   that long; WaitFinished blocks up to its timeout; the others return
//   at once.
// - The endpoint runs threads of its own: the transport's delivery thread,
//   the engine's threads and a pacing thread. Observer callbacks come on
//   those threads, one at a time (never two at once), and none comes after
//   OnFinished. They should return quickly: data waits while they run.
// - Re-entrancy: an observer callback may call Cancel(), Finished() and
//   Summary(). It must not destroy the endpoint, and should not block in
//   WaitFinished.
//
// OWNERSHIP AND LIFETIME
// - The endpoint owns the transport from construction on, and nothing of
//   the observer, which must outlive it.
// - The destructor cancels a running session (the receiver is told), then
//   closes the transport and stops every thread before it returns; no
//   observer call comes after it. Never destroy the endpoint from one of
//   its observer's callbacks.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "xferfm/host/SourcePlan.h"
#include "xferfm/host/TransferObserver.h"
#include "xferfm/host/Transport.h"

namespace orin::xfer::host {

struct SenderOptions {
    uint32_t ackWindow = 50;       // chunks between pauses; at most two windows are unwritten
    uint32_t bandwidthKbps = 0;    // 0: unlimited; otherwise a token bucket at this rate
    bool flowControl = false;      // forced on when bandwidthKbps is set
    // Re-sending of a release until the worker moves on.
    std::chrono::microseconds renotifyInterval{200};
    // A transfer silent this long with window room left gets nudged (a
    // worker whose shared count the previous file's worker skewed).
    std::chrono::milliseconds idleNudgeAfter{2};
    SenderObserver* observer = nullptr;  // not owned; may be null
};

class SenderEndpoint final {
public:
    // Starts the transport. The endpoint owns it from now on.
    SenderEndpoint(std::unique_ptr<ITransport> transport, SenderOptions options = {});
    ~SenderEndpoint();
    SenderEndpoint(const SenderEndpoint&) = delete;
    SenderEndpoint& operator=(const SenderEndpoint&) = delete;

    // Describes the local paths (files or directories, copied with their
    // contents) and offers them: the list goes out as soon as the receiver
    // has asked for it. False with `error` naming the path when a path
    // cannot be offered (missing, unreadable, neither a file nor a
    // directory, a link loop, two paths with the same name), or when a
    // list was offered already or the session has ended; nothing is
    // offered then.
    bool Offer(const std::vector<std::string>& paths, std::string& error);
    // Offers a plan made by PlanSources (for example one a tool has shown
    // or hashed already), so the sources are walked once. False with
    // `error` when a list was offered already or the session has ended.
    bool Offer(const SourcePlan& plan, std::string& error);

    // True once the session has ended (completed, failed or cancelled);
    // false when `timeout` passed first.
    bool WaitFinished(std::chrono::milliseconds timeout);
    bool Finished() const;
    // Ends the session as cancelled and tells the receiver; nothing when it
    // has ended already. Returns at once; safe from observer callbacks.
    void Cancel();
    // The counts so far; final once Finished().
    TransferSummary Summary() const;

private:
    class Impl;
    std::unique_ptr<Impl> mImpl;
};

}  // namespace orin::xfer::host
