#include "SendCommand.h"

#include <chrono>
#include <cstdio>
#include <functional>
#include <iostream>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>

#include "ProgressRenderer.h"
#include "ProgressTracker.h"
#include "CopyReport.h"
#include "SendReport.h"
#include "ServeReport.h"
#include "SourcePlan.h"
#include "ToolError.h"
#include "xferfm/host/NetworkSender.h"
#include "xferfm/host/RemoteNameGuard.h"
#include "xferfm/host/Sha256.h"
#include "xferfm/host/StandardStreams.h"
#include "xferfm/host/TransferObserver.h"

namespace xferfm::cli {
namespace {

namespace host = orin::xfer::host;
using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds kConnectTimeout{10};

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
    host::FileDigests digests;
    for (const SourceEntry& entry : plan.entries) {
        if (entry.isDirectory) {
            continue;
        }
        std::string error;
        const std::optional<std::string> digest = host::Sha256OfFile(entry.sourcePath, error);
        if (!digest) {
            throw ToolError(ExitCode::kSourceUnreadable, "cannot read '" + entry.sourcePath + "': " + error);
        }
        digests[entry.relativePath] = *digest;
    }
    return digests;
}

}  // namespace

int runSend(const SendOptions& options, ToolContext& context)
{
    // With --stdio, standard output carries frames only: it is taken
    // before anything can be printed, and every line goes to stderr.
    std::string error;
    host::StreamEnds stream;
    if (options.stdio && !host::TakeStandardStreams(stream, error)) {
        throw ToolError(ExitCode::kLinkFailed, error);
    }
    // Every entry that cannot be copied is found and named before anything
    // is sent, as `copy` does; the sender offers what is left.
    SendOutcome outcome;
    outcome.plan = planSources(options.sources, options.strict ? Uncopyable::kRefuse : Uncopyable::kSkip,
                               options.excludes);
    const SourcePlan& plan = outcome.plan;
    reportSkipped(plan.skipped, context.console);
    const ReportStyle style = reportStyleOf(options);
    // A dry run sends no file, so there is nothing to verify.
    const host::FileDigests digests =
        options.verify && !options.dryRun ? hashSources(plan) : host::FileDigests{};
    if (context.signals.interrupted()) {
        throw ToolError(ExitCode::kInterrupted, "interrupted before anything was sent");
    }

    host::NetworkSenderOptions senderOptions;
    if (!options.stdio && !host::ParseHostPort(options.address, senderOptions.address, error)) {
        throw ToolError(ExitCode::kUsage, error);
    }
    const std::string receiverName = options.stdio ? stream.peer : options.address;
    outcome.address = receiverName;
    ProgressTracker tracker;
    tracker.start(plan.totalBytes, plan.fileCount);
    ProgressRenderer renderer(tracker, context.console,
                              chooseProgressStyle(options.showProgress && !options.quiet && !options.dryRun,
                                                  context.console));
    std::function<void(const std::string&)> fileLine;
    if (options.verbose && options.json) {
        fileLine = [&context](const std::string& line) { context.console.writeLine(line); };  // stdout holds the JSON
    } else if (options.verbose && !options.quiet) {
        fileLine = [](const std::string& line) { std::cout << line << '\n'; };
    }
    SendProgress progress(tracker, plan, context.console, std::move(fileLine));
    senderOptions.connectTimeout = kConnectTimeout;
    senderOptions.progressTimeout =
        std::chrono::milliseconds(static_cast<int64_t>(options.progressTimeoutSeconds * 1000));
    senderOptions.digests = digests;
    senderOptions.offer.dryRun = options.dryRun;
    senderOptions.offer.resume = options.resume;
    senderOptions.endpoint.ackWindow = options.window;
    senderOptions.endpoint.bandwidthKbps = options.bandwidthKbps;
    senderOptions.endpoint.flowControl = options.bandwidthKbps != 0;
    senderOptions.endpoint.observer = &progress;

    Clock::time_point started;  // once connected
    host::SentSession result;
    {
        host::NetworkSender sender(senderOptions);
        if (options.stdio) {
            sender.Attach(std::move(stream));
        } else if (!sender.Connect(error)) {
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
        result = sender.Result();
        if (!result.summary.completed) {
            context.engineLog.silence();  // the failure is ours to report from here on
        }
    }
    const double seconds = std::chrono::duration<double>(Clock::now() - started).count();
    const host::TransferSummary& summary = result.summary;

    using Outcome = host::SentSession::Outcome;
    if (context.signals.interrupted() || result.outcome == Outcome::kCancelled) {
        // The receiver notes under which names what landed stays, so a
        // resumed send continues there.
        // Sent is what this end knows: the receiver keeps each of those
        // that arrived whole.
        throw ToolError(ExitCode::kInterrupted,
                        "interrupted after sending " + std::to_string(result.summary.filesDone) + " of " +
                            std::to_string(plan.fileCount) +
                            " files; the receiver keeps every file that arrived whole, under the names it gave "
                            "them, and removes the one in flight. To send the rest, run the same command again "
                            "with --resume");
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
    outcome.filesSent = summary.filesDone;
    outcome.bytesSent = summary.bytesDone;
    outcome.seconds = seconds;
    outcome.verdict = result.verdict;
    outcome.dryRun = result.outcome == Outcome::kPreviewed;
    outcome.landings = result.landings;
    outcome.alreadyComplete = result.alreadyComplete.size();
    for (const host::SkippedEntry& entry : summary.skipped) {
        outcome.refused.push_back({entry.path, entry.reason});
    }
    if (result.outcome == Outcome::kPartial && outcome.refused.empty()) {
        outcome.refused.push_back({"", summary.error});  // the exit code must say so all the same
    }
    const int exitCode = reportSend(outcome, style);
    if (result.outcome == Outcome::kPartial) {
        // Each entry was named on stderr as it was refused; this sums up.
        context.console.writeLine("xferfm: not everything was sent: " + host::PrintableText(summary.error));
    }
    return exitCode;
}

}  // namespace xferfm::cli
