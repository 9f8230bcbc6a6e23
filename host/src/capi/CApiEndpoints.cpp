// The sender and receiver functions of the C interface: each handle
// (CApiHandles.h) owns an endpoint and the observer that turns its calls
// into the host's C callbacks.
// - Every sender's link goes through a DigestOfferingLink (digests only
//   when verification is asked for, set at offer time), every receiver's
//   through a DigestCheckingLink (it checks only when the list carries
//   digests), so either end can take part in a verified copy.
// - Callbacks never let an exception out (a C host cannot throw; the
//   strings built for them can): a failure there is logged and dropped.
// - Waiting "forever" is a loop of bounded waits, so a long wait never
//   depends on the clock arithmetic of a huge timeout.
#include <algorithm>
#include <chrono>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include <map>
#include <set>

#include "CApiBoundary.h"
#include "CApiHandles.h"
#include "DigestCheckingLink.h"
#include "DigestOfferingLink.h"
#include "HostLog.h"
#include "xferfm/host/Sha256.h"
#include "xferfm/host/ReceiverEndpoint.h"
#include "xferfm/host/FileListDigests.h"
#include "xferfm/host/RemoteNameGuardTransport.h"
#include "xferfm/host/SenderEndpoint.h"
#include "xferfm/host/SourcePlan.h"
#include "xferfm/host/TransferObserver.h"

using namespace orin::xfer::host;
using namespace orin::xfer::host::capi;

namespace {

// Entries refused for their names count as skipped, and make the
// receiver's session partial as they make the sender's.

void FillSummary(const TransferSummary& summary, bool finished, xferfm_summary& out)
{
    out = xferfm_summary{};
    if (!finished) {
        out.outcome = XFERFM_RUNNING;
    } else if (summary.completed && summary.namesRefused.empty()) {
        out.outcome = XFERFM_COMPLETED;
    } else if (summary.completed) {
        out.outcome = XFERFM_PARTIAL;
    } else if (summary.cancelled) {
        out.outcome = XFERFM_CANCELLED;
    } else if (summary.partial) {
        out.outcome = XFERFM_PARTIAL;
    } else {
        out.outcome = XFERFM_FAILED;
    }
    out.entries_total = summary.entriesTotal;
    out.files_done = summary.filesDone;
    out.directories_done = summary.directoriesDone;
    out.entries_skipped = summary.skipped.size() + summary.namesRefused.size();
    out.bytes_total = summary.bytesTotal;
    out.bytes_done = summary.bytesDone;
    const size_t length = std::min(summary.error.size(), sizeof out.error - 1);
    std::memcpy(out.error, summary.error.data(), length);
    out.error[length] = '\0';
}

template <typename Call>
void Notify(const char* what, Call&& call) noexcept
{
    try {
        call();
    } catch (const std::exception& e) {
        HOST_LOG_W << "C callback " << what << " dropped: " << e.what();
    } catch (...) {
        HOST_LOG_W << "C callback " << what << " dropped";
    }
}

}  // namespace

namespace orin::xfer::host::capi {

class CallbackSenderObserver final : public SenderObserver {
public:
    explicit CallbackSenderObserver(const xferfm_callbacks& callbacks) : mCallbacks(callbacks) {}

    void OnFileStarted(const std::string& sourcePath, uint64_t fileSize) override
    {
        if (mCallbacks.on_file_started != nullptr) {
            Notify("on_file_started",
                   [&] { mCallbacks.on_file_started(mCallbacks.user, sourcePath.c_str(), fileSize); });
        }
    }
    void OnBytesSent(uint64_t totalBytesSent) override
    {
        if (mCallbacks.on_progress != nullptr) {
            Notify("on_progress", [&] { mCallbacks.on_progress(mCallbacks.user, "", 0, 0, totalBytesSent, 0); });
        }
    }
    void OnEntrySkipped(const std::string& sourcePath, const std::string& reason) override
    {
        if (mCallbacks.on_entry_skipped != nullptr) {
            Notify("on_entry_skipped",
                   [&] { mCallbacks.on_entry_skipped(mCallbacks.user, sourcePath.c_str(), reason.c_str()); });
        }
    }
    void OnFailure(const std::string& path, const std::string& message) override
    {
        if (mCallbacks.on_failure != nullptr) {
            Notify("on_failure", [&] { mCallbacks.on_failure(mCallbacks.user, path.c_str(), message.c_str()); });
        }
    }
    void OnFinished(const TransferSummary& summary) override
    {
        if (mCallbacks.on_finished != nullptr) {
            Notify("on_finished", [&] {
                xferfm_summary out;
                FillSummary(summary, true, out);
                mCallbacks.on_finished(mCallbacks.user, &out);
            });
        }
    }

private:
    const xferfm_callbacks mCallbacks;
};

class CallbackReceiverObserver final : public ReceiverObserver {
public:
    explicit CallbackReceiverObserver(const xferfm_callbacks& callbacks) : mCallbacks(callbacks) {}

    void OnFileStarted(const std::string& name, uint64_t fileSize) override
    {
        if (mCallbacks.on_file_started != nullptr) {
            Notify("on_file_started", [&] { mCallbacks.on_file_started(mCallbacks.user, name.c_str(), fileSize); });
        }
    }
    void OnProgress(const std::string& name, uint64_t fileBytesDone, uint64_t fileSize, uint64_t totalBytesDone,
                    uint64_t totalBytes) override
    {
        if (mCallbacks.on_progress != nullptr) {
            Notify("on_progress", [&] {
                mCallbacks.on_progress(mCallbacks.user, name.c_str(), fileBytesDone, fileSize, totalBytesDone,
                                       totalBytes);
            });
        }
    }
    void OnFileCompleted(const std::string& name, const std::string& finalPath) override
    {
        {
            std::lock_guard<std::mutex> lock(mMutex);
            mLandedFiles[name] = finalPath;
        }
        EntryDone(name, finalPath, 0);
    }
    // The endpoint's name rules, before any file is asked for.
    void OnNameRefused(size_t, const std::string& name, const std::string& reason) override
    {
        {
            std::lock_guard<std::mutex> lock(mMutex);
            mRefusedNames.insert(name);
        }
        SkipEntry(name, reason);
    }
    void OnDirectoryCreated(const std::string& name, const std::string& finalPath) override
    {
        EntryDone(name, finalPath, 1);
    }
    void OnFailure(const std::string& path, const std::string& message) override
    {
        if (mCallbacks.on_failure != nullptr) {
            Notify("on_failure", [&] { mCallbacks.on_failure(mCallbacks.user, path.c_str(), message.c_str()); });
        }
    }
    void OnFinished(const TransferSummary& summary) override
    {
        if (mCallbacks.on_finished != nullptr) {
            Notify("on_finished", [&] {
                xferfm_summary out;
                FillSummary(summary, true, out);
                mCallbacks.on_finished(mCallbacks.user, &out);
            });
        }
    }
    // From the name guard, on the link's delivery thread, before the
    // endpoint sees the list (so never alongside the calls above).
    void OnEntryRefused(const RefusedEntry& entry) { SkipEntry(entry.name, entry.reason); }

    // Hashes each landed file named in `expected` (on the session thread,
    // after the last one landed) and names every one that differs.
    DigestCheck CheckLanded(const FileDigests& expected) const
    {
        DigestCheck check;
        for (const auto& [name, digest] : expected) {
            std::optional<std::string> landed;
            {
                std::lock_guard<std::mutex> lock(mMutex);
                if (RefusedLocked(name)) {
                    continue;  // left out for its name: the sender heard so
                }
                const auto found = mLandedFiles.find(name);
                if (found != mLandedFiles.end()) {
                    landed = found->second;
                }
            }
            ++check.filesCompared;
            std::string error;
            const std::optional<std::string> actual = landed ? Sha256OfFile(*landed, error) : std::nullopt;
            if (!landed) {
                check.problems.push_back("'" + name + "' did not arrive");
            } else if (!actual) {
                check.problems.push_back("'" + *landed + "' cannot be read: " + error);
            } else if (*actual != digest) {
                check.problems.push_back("'" + *landed + "' has sha256 " + *actual + ", its source " + digest);
            }
        }
        return check;
    }

private:
    void SkipEntry(const std::string& name, const std::string& reason)
    {
        if (mCallbacks.on_entry_skipped != nullptr) {
            Notify("on_entry_skipped",
                   [&] { mCallbacks.on_entry_skipped(mCallbacks.user, name.c_str(), reason.c_str()); });
        }
    }
    // `name` or a directory above it was refused for its name.
    bool RefusedLocked(const std::string& name) const
    {
        for (size_t end = name.find('/');; end = name.find('/', end + 1)) {
            if (mRefusedNames.count(name.substr(0, end)) != 0) {
                return true;
            }
            if (end == std::string::npos) {
                return false;
            }
        }
    }

    void EntryDone(const std::string& name, const std::string& finalPath, int isDirectory)
    {
        if (mCallbacks.on_entry_done != nullptr) {
            Notify("on_entry_done", [&] {
                mCallbacks.on_entry_done(mCallbacks.user, name.c_str(), finalPath.c_str(), isDirectory);
            });
        }
    }

    const xferfm_callbacks mCallbacks;
    mutable std::mutex mMutex;  // guards the two below
    std::map<std::string, std::string> mLandedFiles;  // request name -> final path
    std::set<std::string> mRefusedNames;
};

}  // namespace orin::xfer::host::capi

namespace {

xferfm_callbacks CallbacksOf(const xferfm_callbacks* callbacks)
{
    return callbacks != nullptr ? *callbacks : xferfm_callbacks{};
}

// Waits in bounded steps; XFERFM_WAIT_FOREVER never gives up.
template <typename Endpoint>
int WaitFor(Endpoint& endpoint, uint32_t timeoutMs)
{
    constexpr std::chrono::milliseconds kStep{60000};
    if (timeoutMs == XFERFM_WAIT_FOREVER) {
        while (!endpoint.WaitFinished(kStep)) {
        }
        return XFERFM_OK;
    }
    return endpoint.WaitFinished(std::chrono::milliseconds(timeoutMs))
               ? XFERFM_OK
               : Fail(XFERFM_ERR_TIMEOUT, "the session has not ended yet");
}

// The calls a sender and a receiver handle share, for either kind.
template <typename Handle>
int CancelHandle(const char* function, Handle* handle)
{
    return Guarded(function, [&]() -> int {
        if (handle == nullptr) {
            return Fail(XFERFM_ERR_INVALID_ARGUMENT, std::string(function) + ": NULL handle");
        }
        handle->endpoint->Cancel();
        return XFERFM_OK;
    });
}

template <typename Handle>
int WaitHandle(const char* function, Handle* handle, uint32_t timeoutMs)
{
    return Guarded(function, [&]() -> int {
        if (handle == nullptr) {
            return Fail(XFERFM_ERR_INVALID_ARGUMENT, std::string(function) + ": NULL handle");
        }
        return WaitFor(*handle->endpoint, timeoutMs);
    });
}

template <typename Handle>
int SummaryOfHandle(const char* function, const Handle* handle, xferfm_summary* out)
{
    return Guarded(function, [&]() -> int {
        if (handle == nullptr || out == nullptr) {
            return Fail(XFERFM_ERR_INVALID_ARGUMENT, std::string(function) + ": NULL handle or output");
        }
        const bool finished = handle->endpoint->Finished();
        FillSummary(handle->endpoint->Summary(), finished, *out);
        return XFERFM_OK;
    });
}

template <typename Handle>
void DestroyHandle(Handle* handle)
{
    try {
        std::unique_ptr<Handle> owned(handle);
    } catch (...) {
        // Teardown failing leaves nothing the caller could do.
    }
}

}  // namespace

extern "C" int xferfm_sender_create(xferfm_link* link, uint32_t bandwidth_kbps, const xferfm_callbacks* callbacks,
                                    xferfm_sender** out)
{
    return Guarded("xferfm_sender_create", [&]() -> int {
        if (link == nullptr || out == nullptr) {
            return Fail(XFERFM_ERR_INVALID_ARGUMENT, "xferfm_sender_create: NULL link or output");
        }
        auto sender = std::make_unique<xferfm_sender>();
        sender->observer = std::make_unique<CallbackSenderObserver>(CallbacksOf(callbacks));
        std::unique_ptr<ITransport> transport = TakeTransport(*link);
        if (!transport) {
            return XFERFM_ERR_BAD_STATE;
        }
        SenderOptions options;
        options.bandwidthKbps = bandwidth_kbps;
        options.observer = sender->observer.get();
        sender->verdict = std::make_shared<VerdictBox>();
        auto digestLink = std::make_unique<DigestOfferingLink>(
            std::move(transport), FileDigests{},
            [verdict = sender->verdict](const VerifyVerdict& reached) { verdict->Set(reached); }, nullptr);
        sender->digestLink = digestLink.get();
        sender->endpoint = std::make_unique<SenderEndpoint>(std::move(digestLink), options);
        *out = sender.release();
        return XFERFM_OK;
    });
}

extern "C" int xferfm_sender_offer(xferfm_sender* sender, const char* const* paths, size_t count)
{
    return Guarded("xferfm_sender_offer", [&]() -> int {
        if (sender == nullptr || paths == nullptr || count == 0) {
            return Fail(XFERFM_ERR_INVALID_ARGUMENT, "xferfm_sender_offer: NULL sender, no paths");
        }
        std::vector<std::string> list;
        for (size_t i = 0; i < count; ++i) {
            if (paths[i] == nullptr) {
                return Fail(XFERFM_ERR_INVALID_ARGUMENT, "xferfm_sender_offer: path " + std::to_string(i) + " is NULL");
            }
            list.emplace_back(paths[i]);
        }
        std::lock_guard<std::mutex> lock(sender->offerMutex);
        if (sender->offered) {
            return Fail(XFERFM_ERR_BAD_STATE, "xferfm_sender_offer: the sender has offered its list already");
        }
        std::string error;
        if (!sender->verify) {
            if (!sender->endpoint->Offer(list, error)) {
                return Fail(XFERFM_ERR_PATH, error);
            }
            sender->offered = true;
            return XFERFM_OK;
        }
        // Verified: the files are hashed as walked, before the list goes out.
        SourcePlan plan;
        SourceProblem problem;
        if (!PlanSources(list, plan, problem)) {
            return Fail(XFERFM_ERR_PATH, DescribeSourceProblem(problem));
        }
        std::optional<FileDigests> digests = DigestSourceFiles(plan, error);
        if (!digests) {
            return Fail(XFERFM_ERR_PATH, error);
        }
        sender->digestLink->SetDigests(std::move(*digests));
        if (!sender->endpoint->Offer(plan, error)) {
            return Fail(XFERFM_ERR_PATH, error);
        }
        sender->offered = true;
        return XFERFM_OK;
    });
}

extern "C" int xferfm_sender_cancel(xferfm_sender* sender)
{
    return CancelHandle("xferfm_sender_cancel", sender);
}

extern "C" int xferfm_sender_wait(xferfm_sender* sender, uint32_t timeout_ms)
{
    return WaitHandle("xferfm_sender_wait", sender, timeout_ms);
}

extern "C" int xferfm_sender_summary(const xferfm_sender* sender, xferfm_summary* out)
{
    return SummaryOfHandle("xferfm_sender_summary", sender, out);
}

extern "C" void xferfm_sender_destroy(xferfm_sender* sender)
{
    DestroyHandle(sender);
}

extern "C" int xferfm_receiver_create(xferfm_link* link, const char* destination_dir, uint32_t flags,
                                      uint32_t stall_timeout_ms, const xferfm_callbacks* callbacks,
                                      xferfm_receiver** out)
{
    return Guarded("xferfm_receiver_create", [&]() -> int {
        if (link == nullptr || destination_dir == nullptr || out == nullptr) {
            return Fail(XFERFM_ERR_INVALID_ARGUMENT, "xferfm_receiver_create: NULL link, destination or output");
        }
        if ((flags & ~XFERFM_RECEIVER_SCREEN_NAMES) != 0) {
            return Fail(XFERFM_ERR_INVALID_ARGUMENT, "xferfm_receiver_create: unknown flags");
        }
        auto receiver = std::make_unique<xferfm_receiver>();
        receiver->observer = std::make_unique<CallbackReceiverObserver>(CallbacksOf(callbacks));
        std::unique_ptr<ITransport> transport = TakeTransport(*link);
        if (!transport) {
            return XFERFM_ERR_BAD_STATE;
        }
        ReceiverOptions options;
        options.destinationDir = destination_dir;
        if (stall_timeout_ms != 0) {
            options.stallTimeout = std::chrono::milliseconds(stall_timeout_ms);
        }
        options.observer = receiver->observer.get();
        if ((flags & XFERFM_RECEIVER_SCREEN_NAMES) != 0) {
            CallbackReceiverObserver* observer = receiver->observer.get();
            transport = std::make_unique<RemoteNameGuardTransport>(
                std::move(transport), options.destinationDir, options.listLimits, nullptr,
                [observer](const RefusedEntry& entry) { observer->OnEntryRefused(entry); });
        }
        receiver->verdict = std::make_shared<VerdictBox>();
        CallbackReceiverObserver* checker = receiver->observer.get();
        transport = std::make_unique<DigestCheckingLink>(
            std::move(transport), [checker](const FileDigests& expected) { return checker->CheckLanded(expected); },
            [verdict = receiver->verdict](const VerifyVerdict& reached) { verdict->Set(reached); });
        receiver->endpoint = std::make_unique<ReceiverEndpoint>(std::move(transport), options);
        *out = receiver.release();
        return XFERFM_OK;
    });
}

extern "C" int xferfm_receiver_start(xferfm_receiver* receiver)
{
    return Guarded("xferfm_receiver_start", [&]() -> int {
        if (receiver == nullptr) {
            return Fail(XFERFM_ERR_INVALID_ARGUMENT, "xferfm_receiver_start: NULL receiver");
        }
        std::lock_guard<std::mutex> lock(receiver->startMutex);
        if (receiver->started) {
            return Fail(XFERFM_ERR_BAD_STATE, "xferfm_receiver_start: the receiver has started already");
        }
        std::string error;
        if (!receiver->endpoint->Start(error)) {
            return Fail(XFERFM_ERR_PATH, error);
        }
        receiver->started = true;
        return XFERFM_OK;
    });
}

extern "C" int xferfm_receiver_cancel(xferfm_receiver* receiver)
{
    return CancelHandle("xferfm_receiver_cancel", receiver);
}

extern "C" int xferfm_receiver_wait(xferfm_receiver* receiver, uint32_t timeout_ms)
{
    return WaitHandle("xferfm_receiver_wait", receiver, timeout_ms);
}

extern "C" int xferfm_receiver_summary(const xferfm_receiver* receiver, xferfm_summary* out)
{
    return SummaryOfHandle("xferfm_receiver_summary", receiver, out);
}

extern "C" void xferfm_receiver_destroy(xferfm_receiver* receiver)
{
    DestroyHandle(receiver);
}
