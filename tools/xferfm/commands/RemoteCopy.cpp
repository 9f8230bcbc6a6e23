#include "RemoteCopy.h"

#include <chrono>
#include <cstdio>
#include <iostream>
#include <mutex>
#include <optional>

#include "CopyReport.h"
#include "DestinationDir.h"
#include "NameReport.h"
#include "PlanSending.h"
#include "ProgressRenderer.h"
#include "ProgressTracker.h"
#include "ReceivingProgress.h"
#include "RemoteLink.h"
#include "ServeReport.h"
#include "SourcePlan.h"
#include "ToolError.h"
#include "xferfm/host/NetworkReceiver.h"
#include "xferfm/host/RemoteNameGuard.h"
#include "xferfm/host/TreeRemoval.h"

namespace xferfm::cli {
namespace {

namespace host = orin::xfer::host;
using Clock = std::chrono::steady_clock;

// Time for the far side to leave once the copy is over and its input has
// ended (it removes its cache first when the copy did not complete).
constexpr std::chrono::milliseconds kFarSideExit{10000};

void refuseLocalOnlyOptions(const CopyOptions& options, const CopyEnds& ends)
{
    std::string refused;
    const auto refuse = [&refused](bool given, const char* name) {
        if (given) {
            refused += (refused.empty() ? "" : ", ") + std::string(name);
        }
    };
    refuse(options.dryRun, "--dry-run");
    refuse(options.resume, "--resume");
    refuse(options.preservePermissions, "--preserve-perms");
    refuse(options.json, "--json");
    refuse(options.verbose, "--verbose");
    if (ends.direction == CopyDirection::kPull) {
        refuse(!options.excludes.empty(), "--exclude");
        refuse(options.strict, "--strict");
    }
    if (!refused.empty()) {
        throw ToolError(ExitCode::kUsage, refused + (refused.find(',') == std::string::npos ? " is" : " are") +
                                              " not available when " +
                                              (ends.direction == CopyDirection::kPush ? "DEST_DIR is"
                                                                                      : "the SOURCEs are") +
                                              " on another machine (" + ends.remote.hostLabel() + ")");
    }
}

// "copied N files (B bytes) to HOST:PATH in T s, R MiB/s"
std::string remoteSummaryLine(const host::TransferSummary& summary, const std::string& direction, double seconds)
{
    const double mebibytes = static_cast<double>(summary.bytesDone) / (1024.0 * 1024.0);
    char text[400];
    std::snprintf(text, sizeof text, "copied %zu files (%llu bytes) %s in %.2f s, %.1f MiB/s", summary.filesDone,
                  static_cast<unsigned long long>(summary.bytesDone), direction.c_str(), seconds,
                  seconds > 0.0 ? mebibytes / seconds : 0.0);
    return text;
}

int push(const CopyOptions& options, const CopyEnds& ends, ToolContext& context)
{
    const RemoteInvocation invocation = remoteInvocationFor(options, ends);  // usage errors first
    SourcePlan plan = planSources(ends.sources, options.strict ? Uncopyable::kRefuse : Uncopyable::kSkip,
                                  options.excludes);
    reportSkipped(plan.skipped, context.console);
    const std::string where = ends.remote.login() + ":" + ends.destination;

    // The far side is started only once the digests are made: it waits a
    // limited time for the list, and hashing a large tree takes a while.
    // It outlives the sender, which is gone when sendPlan returns.
    std::optional<RemoteLink> link;
    host::NetworkSenderOptions senderOptions;
    SendChoices choices;
    choices.showProgress = options.showProgress && !options.quiet;
    const PlanSent sent = sendPlan(plan, senderOptions, options, std::move(choices), context,
                                   [&](host::NetworkSender& sender, std::string&) {
                                       link.emplace(invocation, context.console);
                                       link->awaitFarSide([&context] { return context.signals.interrupted(); });
                                       sender.Attach(link->takeStreamEnds());
                                       return true;
                                   });
    link->finish(kFarSideExit);

    const host::SentSession& result = sent.result;
    if (!options.quiet) {
        if (result.verdict && result.verdict->matched) {
            std::cout << host::PrintableText(result.verdict->Text()) << "\n";
        }
        std::cout << remoteSummaryLine(result.summary, "to " + where, sent.seconds) << std::endl;
    }
    if (result.outcome == host::SentSession::Outcome::kPartial) {
        throw ToolError(ExitCode::kNamesRefused,
                        "not everything was copied: " + host::PrintableText(result.summary.error));
    }
    return plan.skipped.empty() ? toInt(ExitCode::kOk) : toInt(ExitCode::kEntriesSkipped);
}

// What the receiving endpoint reports, for the progress line. The totals
// are known once the far side's list is in; it counts entries, so a
// directory that lands counts as one done, as a file does.
class PullProgress final : public ReceivingProgress {
public:
    using ReceivingProgress::ReceivingProgress;

    void OnListReceived(size_t entryCount, uint64_t totalBytes) override { Tracker().start(totalBytes, entryCount); }
    void OnFileCompleted(const std::string&, const std::string&) override { Tracker().fileCompleted(); }
    void OnDirectoryCreated(const std::string&, const std::string&) override { Tracker().fileCompleted(); }
};

// Names each entry of the far side's list that the name guard refuses, as
// `serve` does (the first ones one line each, then a count).
class PullRefusals final : public host::NetworkReceiverObserver {
public:
    PullRefusals(StderrConsole& console, std::string host) : mConsole(console), mHost(std::move(host)) {}

    // One session's refusals come from its delivery thread, in order.
    void OnEntryRefused(unsigned, const std::string&, const host::RefusedEntry& entry) override
    {
        switch (refusalLineFor(++mRefused)) {
        case RefusalLine::kNamed:
            mConsole.writeLine("xferfm: not copied from " + mHost + ": " + host::PrintableText(entry.reason));
            break;
        case RefusalLine::kRestCounted:
            mConsole.writeLine("xferfm: more entries not copied from " + mHost + "; the summary counts them");
            break;
        case RefusalLine::kSilent: break;
        }
    }

private:
    StderrConsole& mConsole;
    const std::string mHost;
    size_t mRefused = 0;
};

int exitCodeOfPull(const host::ReceivedSession& session)
{
    using Outcome = host::ReceivedSession::Outcome;
    switch (session.outcome) {
    case Outcome::kOk: return toInt(ExitCode::kOk);
    case Outcome::kRefused: return toInt(ExitCode::kNamesRefused);
    case Outcome::kVerifyFailed: return toInt(ExitCode::kVerifyMismatch);
    case Outcome::kCancelled: return toInt(ExitCode::kInterrupted);
    case Outcome::kLinkLost: return toInt(ExitCode::kLinkFailed);
    case Outcome::kCancelledBySender: return toInt(ExitCode::kCancelledByPeer);
    case Outcome::kListTimeout:
    case Outcome::kStalled: return toInt(ExitCode::kReceiverStalled);
    case Outcome::kFailed: break;
    }
    return exitCodeOf(session);
}

int pull(const CopyOptions& options, const CopyEnds& ends, ToolContext& context)
{
    const RemoteInvocation invocation = remoteInvocationFor(options, ends);  // usage errors first
    const std::string destination =
        usableDestinationDir(ends.destination, DestinationNeed::kWritableDirectory, "cannot copy into");
    const std::string from = "from " + ends.remote.login();

    RemoteLink link(invocation, context.console);
    link.awaitFarSide([&context] { return context.signals.interrupted(); });

    ProgressTracker tracker;
    ProgressRenderer renderer(tracker, context.console,
                              chooseProgressStyle(options.showProgress && !options.quiet, context.console));
    PullProgress progress(tracker);
    PullRefusals refusals(context.console, ends.remote.hostLabel());
    host::NetworkReceiverOptions receiverOptions;
    receiverOptions.destinationDir = destination;
    receiverOptions.serverName = "xferfm copy";
    receiverOptions.endpointObserver = &progress;
    receiverOptions.names = receiverNameRules(options);
    host::NetworkReceiver receiver(receiverOptions, refusals);
    ScopedSignalHooks hooks(
        context.signals,
        [&receiver, &context] {
            context.engineLog.silence();
            receiver.Stop();
        },
        [&receiver] {
            const std::string cache = receiver.ActiveCacheDirectory();
            if (!cache.empty()) {
                host::RemoveTree(cache);
            }
        });
    if (context.signals.interrupted()) {  // Ctrl-C came before the hook was in place
        receiver.Stop();
    }
    const auto started = Clock::now();
    renderer.start();
    const host::ReceivedSession session = receiver.RunOne(link.takeStreamEnds());
    renderer.stop();
    const double seconds = std::chrono::duration<double>(Clock::now() - started).count();
    if (session.outcome != host::ReceivedSession::Outcome::kOk) {
        context.engineLog.silence();
    }
    const std::optional<ChildEnd> farSide = link.finish(kFarSideExit);

    const int exitCode = context.signals.interrupted() ? toInt(ExitCode::kInterrupted) : exitCodeOfPull(session);
    if (exitCode == toInt(ExitCode::kInterrupted)) {
        throw ToolError(ExitCode::kInterrupted, "interrupted: files already complete stay in " + destination +
                                                    "; the file being written was removed");
    }
    if (session.outcome == host::ReceivedSession::Outcome::kLinkLost) {
        throw ToolError(ExitCode::kLinkFailed,
                        "the link to " + ends.remote.hostLabel() + " was lost mid-copy" +
                            (farSide ? " (the far side ended with " + farSide->describe() + ")" : std::string()) +
                            ": " + host::PrintableText(session.failure) + "; the file being written was removed");
    }
    if (exitCode != toInt(ExitCode::kOk) && exitCode != toInt(ExitCode::kNamesRefused) &&
        exitCode != toInt(ExitCode::kVerifyMismatch)) {
        throw ToolError(static_cast<ExitCode>(exitCode),
                        "copy " + from + " failed: " + host::PrintableText(sessionLine(session, receiverOptions.listTimeout)));
    }
    if (!options.quiet) {
        for (const auto& [name, landed] : session.renamed) {
            std::cout << "'" << host::PrintableText(name) << "' already existed in " << destination
                      << ": copied as '" << host::PrintableText(landed) << "'\n";
        }
        printMappedNames(session.summary.namesMapped, "");
        if (session.verdict) {
            std::cout << host::PrintableText(session.verdict->Text()) << "\n";
        }
        std::cout << remoteSummaryLine(session.summary, from, seconds) << std::endl;
    }
    if (exitCode != toInt(ExitCode::kOk)) {
        throw ToolError(static_cast<ExitCode>(exitCode), host::PrintableText(sessionLine(session, receiverOptions.listTimeout)));
    }
    return exitCode;
}

}  // namespace

RemoteInvocation remoteInvocationFor(const CopyOptions& options, const CopyEnds& ends)
{
    refuseLocalOnlyOptions(options, ends);
    RemoteInvocation invocation;
    invocation.rshWords = splitShellWords(options.rsh);
    invocation.xferfmPath = options.xferfmPath;
    invocation.target = ends.remote;
    if (ends.direction == CopyDirection::kPush) {
        invocation.role = RemoteRole::kReceive;
        invocation.options = {"--quiet"};  // the local side reports; the far side speaks only of trouble
        for (std::string& argument : nameOptionArguments(options)) {
            invocation.options.push_back(std::move(argument));
        }
        invocation.paths = {ends.destination};
    } else {
        // The sender's options travel to the far side, which sends.
        invocation.role = RemoteRole::kSend;
        invocation.options = {"--quiet", "--window", std::to_string(options.window)};
        if (options.bandwidthKbps != 0) {
            invocation.options.push_back("--bandwidth");
            invocation.options.push_back(std::to_string(options.bandwidthKbps));
        }
        if (options.verify) {
            invocation.options.push_back("--verify");
        }
        invocation.paths = ends.sources;
    }
    return invocation;
}

int runRemoteCopy(const CopyOptions& options, const CopyEnds& ends, ToolContext& context)
{
    return ends.direction == CopyDirection::kPush ? push(options, ends, context) : pull(options, ends, context);
}

}  // namespace xferfm::cli
