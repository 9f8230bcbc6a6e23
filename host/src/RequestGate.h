// The gate around the engine's one blocking call on the receiving side:
// the first file's RequestFile.
//
// Why a gate: the first RequestFile of a paste wipes the cache directory,
// then parks until a download completes or the writer is stopped. So it
// runs on a thread of its own (the request thread), and the request for
// the first file may go to the sender only once that call waits: its
// marker file exists in the cache, and a data call for an id no task has
// (which takes the engine's task lock) has gone through, proving the lock
// was released by the wait. Otherwise the wipe could delete a file being
// received. Every later RequestFile finds its file complete in the cache
// and returns at once; those run on the session thread, not here.
//
// The gate also knows when that call may be woken (a file's completion or
// a writer failure), which the teardown needs: the engine's Cancel clears
// lists that a woken RequestFile walks without a lock.
//
// THREADING CONTRACT: PostFirst, AwaitWaiting and CancelEngine from the
// session thread; NoteWriterEvent from the engine's listener callbacks;
// Returned and Barrier from any thread. `wake` is called on the request
// thread after RequestFile returned, with no lock of the gate held.
// Shutdown (or the destructor) releases a RequestFile still waiting and
// joins the request thread; call it before destroying the engine. The
// engine's callbacks may still reach NoteWriterEvent after it.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include "IFileTransferManager.h"
#include "xferfm/host/JobCountingLooperFactory.h"

namespace orin::xfer::host::detail {

// How the first file's RequestFile started.
enum class RequestStart {
    Waiting,     // it waits in the engine: the file may be requested
    Refused,     // it returned at once (its failure was reported, if any)
    NotStarted,  // it did not reach its wait in time
    Stopped,     // the session is stopping
};

class RequestGate {
public:
    RequestGate(IFileTransferManager& engine, std::function<void()> wake);
    ~RequestGate();
    void Shutdown();
    RequestGate(const RequestGate&) = delete;
    RequestGate& operator=(const RequestGate&) = delete;

    // Runs RequestFile(description) on the request thread; `marker` is the
    // cached path that call creates.
    void PostFirst(const FileDescription& description, const std::string& marker);
    // The first RequestFile was posted: the cache is (being) wiped.
    bool FirstPosted() const;
    // Waits until the posted RequestFile waits, returns, or `stopping`
    // says the session ends.
    RequestStart AwaitWaiting(const std::function<bool()>& stopping);
    // No RequestFile of the gate is outstanding.
    bool Returned() const;

    // A completion or a failure the engine reported: either wakes a
    // waiting RequestFile.
    void NoteWriterEvent();
    // Passes once the engine's task lock is free.
    void Barrier();

    // The engine's Cancel, once nothing else touches its lists. Call it
    // with the engine's input shut off; `engineJobs` counts the jobs its
    // loopers hold. Returns when a RequestFile it released has returned
    // (or a bound passed, which is logged).
    void CancelEngine(JobCounter& engineJobs);

private:
    bool waitForMarker(const std::string& marker, const std::function<bool()>& stopping) const;

    IFileTransferManager& mEngine;
    const std::function<void()> mWake;
    std::unique_ptr<IFileTransferLooper> mLooper;  // the request thread

    mutable std::mutex mMutex;  // guards everything below
    std::condition_variable mReturnedChanged;
    uint64_t mPosted = 0;
    uint64_t mReturned = 0;
    std::string mMarker;
    // Completions and failures heard from the engine; the count when the
    // first file's request was posted.
    uint64_t mWriterEvents = 0;
    uint64_t mWriterEventsAtRequest = 0;
};

}  // namespace orin::xfer::host::detail
