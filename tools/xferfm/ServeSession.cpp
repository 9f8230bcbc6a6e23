#include "ServeSession.h"

#include <chrono>
#include <cstdio>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "DigestCheckingLink.h"
#include "Sha256.h"
#include "xferfm/host/ReceiverEndpoint.h"
#include "xferfm/host/RemoteNameGuard.h"
#include "xferfm/host/RemoteNameGuardTransport.h"
#include "xferfm/host/TcpTransport.h"
#include "xferfm/host/TransferObserver.h"

namespace xferfm::cli {
namespace {

namespace host = orin::xfer::host;
using Clock = std::chrono::steady_clock;

// A sender must offer its list this soon after connecting; a client that
// connects and says nothing useful must not hold the server.
constexpr std::chrono::seconds kListTimeout{30};
constexpr std::chrono::milliseconds kPollInterval{200};
// Refused entries named in the session line; the count says the rest.
constexpr size_t kRefusalsNamed = 3;

// The entries the name guard took out of the sender's list. Filled on the
// link's delivery thread, read once the session is over.
class RefusedEntries {
public:
    void add(const std::string& reason)
    {
        std::lock_guard<std::mutex> lock(mMutex);
        mReasons.push_back(reason);
    }
    std::vector<std::string> reasons() const
    {
        std::lock_guard<std::mutex> lock(mMutex);
        return mReasons;
    }

private:
    mutable std::mutex mMutex;
    std::vector<std::string> mReasons;
};

// What the receiving endpoint reports during one session.
class SessionObserver final : public host::ReceiverObserver {
public:
    void OnListReceived(size_t, uint64_t) override
    {
        std::lock_guard<std::mutex> lock(mMutex);
        mListReceived = true;
    }
    void OnFileCompleted(const std::string& name, const std::string& finalPath) override { record(name, finalPath); }
    void OnDirectoryCreated(const std::string& name, const std::string& finalPath) override
    {
        record(name, finalPath);
    }
    void OnFailure(const std::string&, const std::string& message) override
    {
        std::lock_guard<std::mutex> lock(mMutex);
        if (mFailure.empty()) {
            mFailure = message;
        }
    }

    bool listReceived() const
    {
        std::lock_guard<std::mutex> lock(mMutex);
        return mListReceived;
    }
    std::string failure() const
    {
        std::lock_guard<std::mutex> lock(mMutex);
        return mFailure;
    }
    std::optional<std::string> finalPathOf(const std::string& name) const
    {
        std::lock_guard<std::mutex> lock(mMutex);
        const auto found = mFinalPaths.find(name);
        return found == mFinalPaths.end() ? std::nullopt : std::optional<std::string>(found->second);
    }
    // "'a' as 'a(1)'" for each top-level name that was taken in DEST_DIR.
    std::vector<std::string> renames() const
    {
        std::lock_guard<std::mutex> lock(mMutex);
        std::vector<std::string> renamed;
        for (const auto& [name, finalPath] : mFinalPaths) {
            const std::string landed = finalPath.substr(finalPath.find_last_of('/') + 1);
            if (name.find('/') == std::string::npos && landed != name) {
                renamed.push_back("'" + name + "' as '" + landed + "'");
            }
        }
        return renamed;
    }

private:
    void record(const std::string& name, const std::string& finalPath)
    {
        std::lock_guard<std::mutex> lock(mMutex);
        mFinalPaths[name] = finalPath;
    }

    mutable std::mutex mMutex;
    bool mListReceived = false;
    std::string mFailure;
    std::map<std::string, std::string> mFinalPaths;
};

// Hashes each landed file named in `expected` and names every mismatch.
DigestCheck checkLandedFiles(const host::FileDigests& expected, const SessionObserver& observer)
{
    DigestCheck check;
    for (const auto& [name, digest] : expected) {
        ++check.filesCompared;
        const std::optional<std::string> landed = observer.finalPathOf(name);
        if (!landed) {
            check.problems.push_back("'" + name + "' did not arrive");
            continue;
        }
        std::string error;
        const std::optional<std::string> actual = sha256OfFile(*landed, error);
        if (!actual) {
            check.problems.push_back("'" + *landed + "' cannot be read: " + error);
        } else if (*actual != digest) {
            check.problems.push_back("'" + *landed + "' has sha256 " + *actual + ", its source " + digest);
        }
    }
    return check;
}

// "received 3 files and 1 directories (42 bytes) in 0.10 s", with the
// verification and the renames when there are any.
std::string describeReceived(const host::TransferSummary& summary, double seconds, const SessionObserver& observer,
                             const RemoteVerdict& verdict)
{
    char text[200];
    std::snprintf(text, sizeof text, "received %zu files and %zu directories (%llu bytes) in %.2f s",
                  summary.filesDone, summary.directoriesDone, static_cast<unsigned long long>(summary.bytesDone),
                  seconds);
    std::string line = text;
    if (verdict.state() == RemoteVerdict::State::kVerified) {
        line += "; " + verdict.text();
    }
    const std::vector<std::string> renamed = observer.renames();
    for (size_t index = 0; index < renamed.size(); ++index) {
        line += (index == 0 ? "; already existed, so received " : ", ") + renamed[index];
    }
    return line;
}

// "refused 2 of 7 entries (REASON; REASON)"
std::string describeRefusals(const std::vector<std::string>& reasons, size_t entriesOffered)
{
    std::string text = "refused " + std::to_string(reasons.size()) + " of " + std::to_string(entriesOffered) +
                       (entriesOffered == 1 ? " entry (" : " entries (");
    for (size_t index = 0; index < reasons.size() && index < kRefusalsNamed; ++index) {
        text += (index == 0 ? "" : "; ") + reasons[index];
    }
    if (reasons.size() > kRefusalsNamed) {
        text += "; and " + std::to_string(reasons.size() - kRefusalsNamed) + " more";
    }
    return text + ")";
}

}  // namespace

ServeSessionResult runServeSession(host::TcpSocket connection, const std::string& destinationDir,
                                   unsigned sessionNumber, ToolContext& context, ActiveCache& activeCache)
{
    const std::string peer = host::PeerAddressOf(connection.Fd());
    const std::string prefix = "session " + std::to_string(sessionNumber) + " from " + peer + ": ";
    SessionObserver observer;
    auto verdict = std::make_shared<RemoteVerdict>();
    auto refusal = std::make_shared<RemoteVerdict>();  // kFailed with the guard's words when it refuses
    auto refused = std::make_shared<RefusedEntries>();  // entries taken out of the list, the rest is copied

    host::TcpTransportOptions linkOptions;
    linkOptions.threadName = "xfer-serve";
    auto tcp = std::make_unique<host::TcpTransport>(std::move(connection), linkOptions);
    auto guarded = std::make_unique<host::RemoteNameGuardTransport>(
        std::move(tcp), destinationDir, host::FileListLimits{},
        [refusal](const std::string& why) { refusal->set(RemoteVerdict::State::kFailed, why); },
        [refused, prefix, &context](const host::RefusedEntry& entry) {
            refused->add(entry.reason);
            context.console.writeLine(host::PrintableText(prefix + "not copied: " + entry.reason));
        });
    auto link = std::make_unique<DigestCheckingLink>(
        std::move(guarded),
        [&observer](const host::FileDigests& expected) { return checkLandedFiles(expected, observer); }, verdict);

    host::ReceiverOptions options;
    options.destinationDir = destinationDir;
    options.observer = &observer;

    ServeSessionResult result;
    const auto started = Clock::now();
    host::TransferSummary summary;
    bool listTimedOut = false;
    bool interrupted = false;
    std::string startFailure;
    {
        host::ReceiverEndpoint receiver(std::move(link), options);
        std::string error;
        if (receiver.Start(error)) {
            std::lock_guard<std::mutex> lock(activeCache.mutex);
            activeCache.path = receiver.CacheDirectory();
        } else {
            // A link that broke at once ends the endpoint before it starts;
            // its summary then holds the link's reason.
            const std::string failure = receiver.Finished() ? receiver.Summary().error : "";
            startFailure = failure.empty() ? "cannot receive into " + destinationDir + ": " + error : failure;
        }
        while (startFailure.empty() && !receiver.WaitFinished(kPollInterval)) {
            if (context.signals.interrupted() && !interrupted) {
                interrupted = true;
                receiver.Cancel();
            }
            if (!listTimedOut && !observer.listReceived() && Clock::now() - started > kListTimeout) {
                listTimedOut = true;
                receiver.Cancel();
            }
        }
        summary = receiver.Summary();
        // Leaving the scope closes the link and removes the cache directory.
    }
    {
        std::lock_guard<std::mutex> lock(activeCache.mutex);
        activeCache.path.clear();
    }
    const double seconds = std::chrono::duration<double>(Clock::now() - started).count();
    const std::vector<std::string> refusals = refused->reasons();

    if (refusal->state() == RemoteVerdict::State::kFailed) {
        result.line = prefix + "failed: " + refusal->text();
    } else if (!startFailure.empty()) {
        result.line = prefix + "failed: " + startFailure;
    } else if (verdict->state() == RemoteVerdict::State::kFailed) {
        result.outcome = ServeSessionResult::Outcome::kVerifyFailed;
        result.line = prefix + "failed: " + verdict->text();
    } else if (interrupted) {
        result.outcome = ServeSessionResult::Outcome::kInterrupted;
        result.line = prefix + "failed: interrupted; the file in flight was removed";
    } else if (listTimedOut) {
        result.line = prefix + "failed: the sender offered no file list within " +
                      std::to_string(kListTimeout.count()) + " s";
    } else if (!summary.completed) {
        const std::string failure = observer.failure();
        result.line = prefix + "failed: " + (failure.empty() ? summary.error : failure);
    } else if (!refusals.empty()) {
        result.outcome = ServeSessionResult::Outcome::kRefused;
        result.line = prefix + "failed: " + describeRefusals(refusals, summary.entriesTotal + refusals.size()) +
                      "; " + describeReceived(summary, seconds, observer, *verdict);
    } else {
        result.outcome = ServeSessionResult::Outcome::kOk;
        result.line = prefix + "ok: " + describeReceived(summary, seconds, observer, *verdict);
    }
    if (result.outcome != ServeSessionResult::Outcome::kRefused && !refusals.empty()) {
        result.line += " (" + std::to_string(refusals.size()) + " refused entries were not copied either)";
    }
    // The line quotes what the sender said: keep its bytes off the terminal.
    result.line = host::PrintableText(result.line);
    return result;
}

}  // namespace xferfm::cli
