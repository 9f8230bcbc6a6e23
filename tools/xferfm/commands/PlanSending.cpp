#include "PlanSending.h"

#include <chrono>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <set>

#include "ProgressRenderer.h"
#include "ProgressTracker.h"
#include "ServeReport.h"
#include "ToolError.h"
#include "xferfm/host/FileListDigests.h"
#include "xferfm/host/RemoteNameGuard.h"
#include "xferfm/host/TransferObserver.h"

namespace xferfm::cli {
namespace {

namespace host = orin::xfer::host;
using Clock = std::chrono::steady_clock;

// A receiver that ended the session says why: busy with another sender,
// cancelled by its user, or failed.
ExitCode exitCodeForGoodbye(const std::optional<host::DisconnectReason>& goodbye)
{
    if (goodbye == host::DisconnectReason::kBusy) {
        return ExitCode::kPeerBusy;
    }
    if (goodbye == host::DisconnectReason::kCancelled) {
        return ExitCode::kCancelledByPeer;
    }
    return ExitCode::kTransferFailed;
}

class SendProgress final : public host::SenderObserver {
public:
    // `fileLine`, when set, hears the source path of each file as it goes (-v).
    SendProgress(ProgressTracker& tracker, const SourcePlan& plan, StderrConsole& console,
                 std::function<void(const std::string&)> fileLine)
        : mTracker(tracker), mConsole(console), mFileLine(std::move(fileLine))
    {
        // The walk the endpoint offers, so its paths are spelled as the
        // endpoint reports them.
        for (const host::SourceEntry& entry : plan.walked.entries) {
            if (entry.isDirectory) {
                mDirectories.insert(entry.sourcePath);
            } else {
                mFileSizes[entry.sourcePath] = entry.size;
            }
        }
    }

    // Called for directories too; only files count as files.
    void OnFileStarted(const std::string& sourcePath, uint64_t) override
    {
        if (mDirectories.count(sourcePath) != 0) {
            return;
        }
        std::lock_guard<std::mutex> lock(mMutex);
        if (mFileInFlight) {
            mTracker.fileCompleted();  // the previous one was sent whole
        }
        mFileInFlight = true;
        mTracker.fileStarted(sourcePath);
        if (mFileLine) {
            mFileLine("sending " + sourcePath);
        }
    }
    void OnBytesSent(uint64_t totalBytesSent) override { mTracker.setBytesDone(totalBytesSent); }
    // One line per entry the receiver will not take; the copy goes on
    // without it, and the totals shrink by a skipped file.
    void OnEntrySkipped(const std::string& sourcePath, const std::string& reason) override
    {
        switch (refusalLineFor(++mSkipped)) {
        case RefusalLine::kNamed:
            mConsole.writeLine("xferfm: not sent: " + host::PrintableText(sourcePath + ": " + reason));
            break;
        case RefusalLine::kRestCounted:
            mConsole.writeLine("xferfm: more entries not sent; the summary counts them");
            break;
        case RefusalLine::kSilent: break;
        }
        const auto file = mFileSizes.find(sourcePath);
        if (file != mFileSizes.end()) {
            mTracker.fileSkipped(file->second);
        }
    }
    // Resuming: the receiver has it already; the totals shrink by it.
    void OnEntryKept(const std::string& sourcePath) override
    {
        const auto file = mFileSizes.find(sourcePath);
        if (file != mFileSizes.end()) {
            mTracker.fileSkipped(file->second);
        }
    }
    void OnFailure(const std::string&, const std::string& message) override
    {
        std::lock_guard<std::mutex> lock(mMutex);
        if (mFailure.empty()) {
            mFailure = message;
        }
    }
    void OnFinished(const host::TransferSummary& summary) override
    {
        std::lock_guard<std::mutex> lock(mMutex);
        if ((summary.completed || summary.partial) && mFileInFlight) {
            mTracker.fileCompleted();
            mFileInFlight = false;
        }
    }

    std::string failure() const
    {
        std::lock_guard<std::mutex> lock(mMutex);
        return mFailure;
    }

private:
    ProgressTracker& mTracker;
    StderrConsole& mConsole;
    const std::function<void(const std::string&)> mFileLine;
    std::set<std::string> mDirectories;            // fixed after construction
    std::map<std::string, uint64_t> mFileSizes;  // fixed after construction
    size_t mSkipped = 0;  // entries skipped so far; the endpoint's observer calls are serialised
    mutable std::mutex mMutex;
    bool mFileInFlight = false;
    std::string mFailure;
};

// The SHA-256 of every source file, by the name the receiver knows it by.
host::FileDigests hashSources(const SourcePlan& plan)
{
    std::string error;
    std::optional<host::FileDigests> digests = host::DigestSourceFiles(plan.walked, error);
    if (!digests) {
        throw ToolError(ExitCode::kSourceUnreadable, error);
    }
    return std::move(*digests);
}

}  // namespace

PlanSent sendPlan(const SourcePlan& plan, host::NetworkSenderOptions senderOptions, const TransferOptions& options,
                  SendChoices choices, ToolContext& context, const OpenSenderLink& open)
{
    // A dry run sends no file, so there is nothing to verify.
    const host::FileDigests digests =
        options.verify && !senderOptions.offer.dryRun ? hashSources(plan) : host::FileDigests{};
    if (context.signals.interrupted()) {
        throw ToolError(ExitCode::kInterrupted, "interrupted before anything was sent");
    }

    ProgressTracker tracker;
    tracker.start(plan.totalBytes, plan.fileCount);
    ProgressRenderer renderer(tracker, context.console, chooseProgressStyle(choices.showProgress && !senderOptions.offer.dryRun, context.console));
    SendProgress progress(tracker, plan, context.console, std::move(choices.fileLine));
    senderOptions.digests = digests;
    senderOptions.endpoint.ackWindow = options.window;
    senderOptions.endpoint.bandwidthKbps = options.bandwidthKbps;
    senderOptions.endpoint.flowControl = options.bandwidthKbps != 0;
    senderOptions.endpoint.observer = &progress;

    std::string error;
    Clock::time_point started;  // once the link is open
    PlanSent sent;
    {
        host::NetworkSender sender(senderOptions);
        if (!open(sender, error)) {
            throw ToolError(ExitCode::kLinkFailed, error);
        }
        started = Clock::now();
        const host::NetworkSender::OfferResult offered = sender.Offer(plan.walked, error);
        if (offered != host::NetworkSender::OfferResult::kOffered) {
            context.engineLog.silence();
            if (offered == host::NetworkSender::OfferResult::kEndedByReceiver) {
                throw ToolError(exitCodeForGoodbye(sender.Result().goodbye),
                                "send failed: " + host::PrintableText(error));
            }
            throw ToolError(ExitCode::kSourceUnreadable, "cannot read sources: " + error);
        }
        ScopedSignalHooks hooks(
            context.signals, [&sender, &context] {
                context.engineLog.silence();
                sender.Cancel();
            },
            [] {});
        if (context.signals.interrupted()) {  // Ctrl-C came before the hook was in place
            sender.Cancel();
        }
        renderer.start();
        while (!sender.WaitFinished(std::chrono::seconds(1))) {
        }
        renderer.stop();
        sent.result = sender.Result();
        if (!sent.result.summary.completed) {
            context.engineLog.silence();  // the failure is ours to report from here on
        }
    }
    sent.seconds = std::chrono::duration<double>(Clock::now() - started).count();
    const host::SentSession& result = sent.result;

    using Outcome = host::SentSession::Outcome;
    if (context.signals.interrupted() || result.outcome == Outcome::kCancelled) {
        // Sent is what this end knows: the receiver keeps each of those
        // that arrived whole.
        throw ToolError(ExitCode::kInterrupted,
                        "interrupted after sending " + std::to_string(result.summary.filesDone) + " of " +
                            std::to_string(plan.fileCount) +
                            " files; the receiver keeps every file that arrived whole, under the names it gave "
                            "them, and removes the one in flight" +
                            choices.interruptHint);
    }
    // What the receiver said is shown with its control bytes escaped.
    if (result.outcome == Outcome::kVerifyFailed) {
        throw ToolError(ExitCode::kVerifyMismatch, "the receiver's " + host::PrintableText(result.verdict->Text()));
    }
    if (result.outcome == Outcome::kStalled) {
        throw ToolError(ExitCode::kReceiverStalled, "send failed: " + result.failure);
    }
    if (result.outcome == Outcome::kLinkLost) {
        throw ToolError(ExitCode::kLinkFailed,
                        "send failed: the link to the receiver was lost: " + host::PrintableText(result.failure));
    }
    if (result.outcome == Outcome::kFailed) {
        const std::string failure = progress.failure();
        throw ToolError(exitCodeForGoodbye(result.goodbye),
                        "send failed: " + host::PrintableText(failure.empty() ? result.failure : failure));
    }
    return sent;
}

}  // namespace xferfm::cli
