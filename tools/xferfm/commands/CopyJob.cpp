#include "CopyJob.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <iostream>
#include <mutex>
#include <set>

#include "CopyReport.h"
#include "NameReport.h"
#include "ResumePlan.h"
#include "DestinationDir.h"
#include "ProgressRenderer.h"
#include "ProgressTracker.h"
#include "ReceivingProgress.h"
#include "ToolError.h"
#include "xferfm/host/TreeRemoval.h"
#include "xferfm/host/InProcessTransport.h"
#include "xferfm/host/ReceiverEndpoint.h"
#include "xferfm/host/SenderEndpoint.h"
#include "xferfm/host/TransferObserver.h"

namespace xferfm::cli {
namespace {

namespace host = orin::xfer::host;
using Clock = std::chrono::steady_clock;

struct Failure {
    std::string path;
    std::string message;
};

// What the receiving side reports: progress for the renderer, where each
// entry landed, and the first failure.
class ReceiverReport final : public ReceivingProgress {
public:
    // `fileLine`, when set, hears "copied SOURCE -> FINAL" per file (-v).
    ReceiverReport(ProgressTracker& tracker, std::function<void(const std::string&)> fileLine)
        : ReceivingProgress(tracker), mFileLine(std::move(fileLine))
    {
    }

    void OnFileCompleted(const std::string& name, const std::string& finalPath) override
    {
        Tracker().fileCompleted();
        record(name, finalPath);
        if (mFileLine) {
            mFileLine(name + " -> " + finalPath);
        }
    }
    void OnDirectoryCreated(const std::string& name, const std::string& finalPath) override
    {
        record(name, finalPath);
    }
    void OnFailure(const std::string& path, const std::string& message) override
    {
        std::lock_guard<std::mutex> lock(mMutex);
        if (!mFailure) {
            mFailure = Failure{path, message};
        }
    }

    std::map<std::string, std::string> finalPaths() const
    {
        std::lock_guard<std::mutex> lock(mMutex);
        return mFinalPaths;
    }
    std::optional<Failure> failure() const
    {
        std::lock_guard<std::mutex> lock(mMutex);
        return mFailure;
    }

private:
    void record(const std::string& name, const std::string& finalPath)
    {
        std::lock_guard<std::mutex> lock(mMutex);
        mFinalPaths[name] = finalPath;
    }

    const std::function<void(const std::string&)> mFileLine;
    mutable std::mutex mMutex;
    std::map<std::string, std::string> mFinalPaths;
    std::optional<Failure> mFailure;
};

class SenderReport final : public host::SenderObserver {
public:
    void OnFailure(const std::string& path, const std::string& message) override
    {
        std::lock_guard<std::mutex> lock(mMutex);
        if (!mFailure) {
            mFailure = Failure{path, message};
        }
    }
    std::optional<Failure> failure() const
    {
        std::lock_guard<std::mutex> lock(mMutex);
        return mFailure;
    }

private:
    mutable std::mutex mMutex;
    std::optional<Failure> mFailure;
};

// A source that can no longer be read explains a failed copy better than
// the engine's words: find the first one.
std::optional<std::string> firstSourceNowUnreadable(const SourcePlan& plan)
{
    for (const SourceEntry& entry : plan.entries) {
        struct stat status {};
        if (::stat(entry.sourcePath.c_str(), &status) != 0) {
            return entry.sourcePath;
        }
        if (!entry.isDirectory) {
            const int fd = ::open(entry.sourcePath.c_str(), O_RDONLY | O_NOCTTY | O_CLOEXEC | O_NONBLOCK);
            if (fd < 0) {
                return entry.sourcePath;
            }
            ::close(fd);
        }
    }
    return std::nullopt;
}

[[noreturn]] void throwFailure(const SourcePlan& plan, const std::string& destinationDir,
                               const std::optional<Failure>& failure, const std::string& summaryError)
{
    if (const auto vanished = firstSourceNowUnreadable(plan)) {
        throw ToolError(ExitCode::kSourceUnreadable,
                        "cannot read '" + *vanished + "': it vanished or became unreadable during the copy");
    }
    struct stat status {};
    if (::stat(destinationDir.c_str(), &status) != 0 || !S_ISDIR(status.st_mode)) {
        throw ToolError(ExitCode::kDestinationUnusable,
                        "cannot copy into '" + destinationDir + "': it vanished during the copy");
    }
    std::string message = failure ? failure->message : summaryError;
    if (failure && !failure->path.empty() && message.find(failure->path) == std::string::npos) {
        message = "'" + failure->path + "': " + message;
    }
    // A failure at a path inside DEST_DIR is the receiver failing to write
    // there (a full disk, a quota, an I/O error): the destination's fault.
    const bool atDestination = failure && failure->path.compare(0, destinationDir.size() + 1, destinationDir + "/") == 0;
    throw ToolError(atDestination ? ExitCode::kDestinationUnusable : ExitCode::kTransferFailed,
                    "copy failed: " + (message.empty() ? "unknown error" : message));
}

// The plan less the entries the receiver refused for their names (and what
// they hold): those were never meant to arrive.
SourcePlan withoutRefusedNames(const SourcePlan& plan, const std::vector<host::SkippedEntry>& refused)
{
    if (refused.empty()) {
        return plan;
    }
    std::set<std::string> names;
    for (const host::SkippedEntry& entry : refused) {
        names.insert(entry.path);
    }
    SourcePlan kept = plan;
    kept.entries.clear();
    for (const SourceEntry& entry : plan.entries) {
        if (names.count(entry.relativePath) == 0) {
            kept.entries.push_back(entry);
        }
    }
    return kept;
}

std::string lastComponent(const std::string& path) { return path.substr(path.find_last_of('/') + 1); }

// What an interrupted copy leaves behind, said exactly: complete files stay,
// the one being written goes with the cache; and how to go on.
std::string interruptedMessage(const CopyOutcome& outcome, const host::TransferSummary& summary,
                               const std::map<std::string, std::string>& landed)
{
    std::string where;
    for (const auto& [name, finalName] : landed) {
        where += (where.empty() ? " (as '" : ", '") + finalName + "'";
    }
    if (!where.empty()) {
        where += ")";
    }
    return "interrupted: " + std::to_string(summary.filesDone + outcome.alreadyComplete) + " of " +
           std::to_string(outcome.plan.fileCount + outcome.alreadyComplete) + " files are complete and stay in " +
           outcome.destinationDir + where +
           "; the file being written when the copy stopped was removed. To copy the rest, run the same command "
           "again with --resume";
}

}  // namespace

CopyOutcome runCopyJob(const CopyOptions& options, ToolContext& context)
{
    SignalWatcher& signals = context.signals;
    StderrConsole& console = context.console;
    EngineLogFilter& engineLog = context.engineLog;
    CopyOutcome outcome;
    // Only that it is a directory: whether it takes new entries is the
    // receiver's first question, asked after the sources are walked so that
    // a bad source is reported first.
    outcome.destinationDir =
        usableDestinationDir(options.destinationDir, DestinationNeed::kDirectory, "cannot copy into");

    // The sources are walked once, before anything is written: every entry
    // that cannot be copied is found and named now, and the sender offers
    // what is left (less, resuming, what is complete already).
    outcome.plan = planSources(options.sources, options.strict ? Uncopyable::kRefuse : Uncopyable::kSkip,
                               options.excludes);
    reportSkipped(outcome.plan.skipped, console);
    std::map<std::string, std::string> resumeNames;
    if (options.resume) {
        resumeNames = chooseResumeNames(outcome.plan, outcome.destinationDir);
        outcome.alreadyComplete = leaveOutCompleteFiles(outcome.plan, outcome.destinationDir, resumeNames);
    }
    if (outcome.plan.entries.empty()) {
        if (options.resume) {
            removeResumeNote(outcome.destinationDir);
        }
        return outcome;  // nothing left to copy
    }

    ProgressTracker tracker;
    ProgressRenderer renderer(tracker, console, chooseProgressStyle(options.showProgress && !options.quiet, console));
    std::function<void(const std::string&)> fileLine;
    if (options.verbose && options.json) {
        fileLine = [&console](const std::string& line) { console.writeLine(line); };  // stdout holds the JSON
    } else if (options.verbose && !options.quiet) {
        fileLine = [](const std::string& line) { std::cout << line << '\n'; };
    }
    ReceiverReport receiverReport(tracker, std::move(fileLine));
    SenderReport senderReport;

    host::SenderOptions senderOptions;
    senderOptions.ackWindow = options.window;
    senderOptions.bandwidthKbps = options.bandwidthKbps;
    senderOptions.flowControl = options.bandwidthKbps != 0;
    senderOptions.observer = &senderReport;
    host::ReceiverOptions receiverOptions;
    receiverOptions.destinationDir = outcome.destinationDir;
    receiverOptions.permissionMask = options.preservePermissions ? 0 : options.umask;
    receiverOptions.resumeNames = resumeNames;
    receiverOptions.names = receiverNameRules(options);
    receiverOptions.observer = &receiverReport;

    const auto started = Clock::now();
    host::TransferSummary summary;
    {
        // Both ends live in this process: chunks go straight from the
        // sender's hand-off into the receiving engine, without a copy.
        host::InProcessTransportOptions linkOptions;
        linkOptions.inlineData = true;
        auto link = host::InProcessTransport::CreatePair(linkOptions);
        host::SenderEndpoint sender(std::move(link.first), senderOptions);
        host::ReceiverEndpoint receiver(std::move(link.second), receiverOptions);

        std::string offerError;
        const bool offered = sender.Offer(outcome.plan.walked, offerError);
        if (signals.interrupted()) {
            engineLog.silence();
            throw ToolError(ExitCode::kInterrupted, "interrupted before anything was copied");
        }
        tracker.start(outcome.plan.totalBytes, outcome.plan.fileCount);

        // Then the receiver: a destination it cannot use fails the copy
        // before the sender's offer is looked at.
        std::string error;
        if (!receiver.Start(error)) {
            engineLog.silence();
            throw ToolError(ExitCode::kDestinationUnusable,
                            error.find(outcome.destinationDir) != std::string::npos
                                ? error
                                : "cannot write into '" + outcome.destinationDir + "': " + error);
        }
        if (!offered) {
            engineLog.silence();
            throw ToolError(ExitCode::kSourceUnreadable, "cannot read sources: " + offerError);
        }
        const std::string cacheDir = receiver.CacheDirectory();
        ScopedSignalHooks hooks(
            signals,
            [&sender, &receiver, &engineLog] {
                engineLog.silence();
                receiver.Cancel();
                sender.Cancel();
            },
            [cacheDir] { orin::xfer::host::RemoveTree(cacheDir); });
        if (signals.interrupted()) {  // Ctrl-C came before the hooks were in place
            engineLog.silence();
            receiver.Cancel();
            sender.Cancel();
        }

        renderer.start();
        while (!receiver.WaitFinished(std::chrono::seconds(1))) {
        }
        renderer.stop();
        summary = receiver.Summary();
        if (!summary.completed) {
            engineLog.silence();  // the failure is ours to report from here on
        } else if (!sender.WaitFinished(std::chrono::seconds(2))) {
            // The receiver's goodbye is on its way to the sender, whose
            // teardown would otherwise call the finished copy cancelled.
            engineLog.silence();
        }
        // Leaving this scope cancels what is left, closes the link and
        // removes the receiver's cache directory.
    }
    outcome.seconds = std::chrono::duration<double>(Clock::now() - started).count();

    if (signals.interrupted()) {
        // What landed, under which top-level names: a --resume rerun
        // continues there.
        std::map<std::string, std::string> landed = readResumeNote(outcome.destinationDir);
        const std::map<std::string, std::string> finalPaths = receiverReport.finalPaths();
        for (const std::string& name : outcome.plan.topLevelNames) {
            const auto found = finalPaths.find(name);
            if (found != finalPaths.end()) {
                landed[name] = lastComponent(found->second);
            }
        }
        if (!landed.empty()) {
            writeResumeNote(outcome.destinationDir, landed);
        }
        throw ToolError(ExitCode::kInterrupted, interruptedMessage(outcome, summary, landed));
    }
    if (!summary.completed) {
        throwFailure(outcome.plan, outcome.destinationDir,
                     receiverReport.failure() ? receiverReport.failure() : senderReport.failure(), summary.error);
    }

    removeResumeNote(outcome.destinationDir);  // whatever it noted is complete now
    outcome.finalPaths = receiverReport.finalPaths();
    outcome.filesCopied = summary.filesDone;
    outcome.bytesCopied = summary.bytesDone;
    outcome.namesMapped = summary.namesMapped;
    outcome.namesRefused = summary.namesRefused;
    std::map<std::string, std::string> mappedNames(summary.namesMapped.begin(), summary.namesMapped.end());
    for (const std::string& name : outcome.plan.topLevelNames) {
        const auto found = outcome.finalPaths.find(name);
        const auto mapped = mappedNames.find(name);  // landing under its mapped name is no rename
        const std::string& wanted = mapped != mappedNames.end() ? mapped->second : name;
        if (found != outcome.finalPaths.end() && lastComponent(found->second) != wanted && !resumeNames.count(name)) {
            outcome.renamed.push_back({name, lastComponent(found->second)});
        }
    }
    if (options.verify) {
        outcome.verification =
            verifyCopy(withoutRefusedNames(outcome.plan, summary.namesRefused), outcome.finalPaths,
                       [&signals] { return signals.interrupted(); });
        if (signals.interrupted()) {
            throw ToolError(ExitCode::kInterrupted,
                            "interrupted while verifying; the copy itself is complete in " + outcome.destinationDir);
        }
    }
    return outcome;
}

}  // namespace xferfm::cli
