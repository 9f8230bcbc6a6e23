#include "SendCommand.h"

#include <chrono>
#include <iostream>

#include "CopyReport.h"
#include "PlanSending.h"
#include "SendReport.h"
#include "SourcePlan.h"
#include "ToolError.h"
#include "xferfm/host/NetworkSender.h"
#include "xferfm/host/RemoteNameGuard.h"
#include "xferfm/host/StandardStreams.h"

namespace xferfm::cli {
namespace {

namespace host = orin::xfer::host;
constexpr std::chrono::seconds kConnectTimeout{10};

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
    host::NetworkSenderOptions senderOptions;
    if (!options.stdio && !host::ParseHostPort(options.address, senderOptions.address, error)) {
        throw ToolError(ExitCode::kUsage, error);
    }
    const std::string receiverName = options.stdio ? stream.peer : options.address;
    outcome.address = receiverName;
    SendChoices choices;
    choices.showProgress = options.showProgress && !options.quiet;
    if (options.verbose && options.json) {
        choices.fileLine = [&context](const std::string& line) { context.console.writeLine(line); };  // stdout holds the JSON
    } else if (options.verbose && !options.quiet) {
        choices.fileLine = [](const std::string& line) { std::cout << line << '\n'; };
    }
    // The receiver notes under which names what landed stays, so a resumed
    // send continues there.
    choices.interruptHint = ". To send the rest, run the same command again with --resume";
    senderOptions.connectTimeout = kConnectTimeout;
    senderOptions.progressTimeout =
        std::chrono::milliseconds(static_cast<int64_t>(options.progressTimeoutSeconds * 1000));
    senderOptions.offer.dryRun = options.dryRun;
    senderOptions.offer.resume = options.resume;

    const PlanSent sent = sendPlan(plan, senderOptions, options, std::move(choices), context,
                                   [&options, &stream](host::NetworkSender& sender, std::string& failure) {
                                       if (options.stdio) {
                                           sender.Attach(std::move(stream));
                                           return true;
                                       }
                                       return sender.Connect(failure);
                                   });
    const host::SentSession& result = sent.result;
    const double seconds = sent.seconds;
    const host::TransferSummary& summary = result.summary;

    using Outcome = host::SentSession::Outcome;
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
