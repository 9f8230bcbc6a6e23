#include "SendCommand.h"

#include <chrono>
#include <cstdio>
#include <iostream>

#include "PlanSending.h"
#include "SourcePlan.h"
#include "ToolError.h"
#include "xferfm/host/NetworkSender.h"
#include "xferfm/host/RemoteNameGuard.h"
#include "xferfm/host/StandardStreams.h"

namespace xferfm::cli {
namespace {

namespace host = orin::xfer::host;

constexpr std::chrono::seconds kConnectTimeout{10};

std::string summaryLine(const host::TransferSummary& summary, const std::string& address, double seconds)
{
    const double mebibytes = static_cast<double>(summary.bytesDone) / (1024.0 * 1024.0);
    char text[300];
    std::snprintf(text, sizeof text, "sent %zu files (%llu bytes) to %s in %.2f s, %.1f MiB/s", summary.filesDone,
                  static_cast<unsigned long long>(summary.bytesDone), address.c_str(), seconds,
                  seconds > 0.0 ? mebibytes / seconds : 0.0);
    return text;
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
    const SourcePlan plan = planSources(options.sources);
    host::NetworkSenderOptions senderOptions;
    if (!options.stdio && !host::ParseHostPort(options.address, senderOptions.address, error)) {
        throw ToolError(ExitCode::kUsage, error);
    }
    const std::string receiverName = options.stdio ? stream.peer : options.address;
    senderOptions.connectTimeout = kConnectTimeout;
    senderOptions.progressTimeout =
        std::chrono::milliseconds(static_cast<int64_t>(options.progressTimeoutSeconds * 1000));

    const PlanSent sent = sendPlan(plan, senderOptions, options, options.showProgress && !options.quiet, context,
                                   [&options, &stream](host::NetworkSender& sender, std::string& failure) {
                                       if (options.stdio) {
                                           sender.Attach(std::move(stream));
                                           return true;
                                       }
                                       return sender.Connect(failure);
                                   });
    const host::SentSession& result = sent.result;
    if (!options.quiet) {
        if (result.verdict && result.verdict->matched) {
            std::cout << host::PrintableText(result.verdict->Text()) << "\n";
        }
        std::cout << summaryLine(result.summary, receiverName, sent.seconds) << std::endl;
    }
    if (result.outcome == host::SentSession::Outcome::kPartial) {
        // Each entry was named on stderr as it was refused; this sums up.
        throw ToolError(ExitCode::kNamesRefused,
                        "not everything was sent: " + host::PrintableText(result.summary.error));
    }
    return toInt(ExitCode::kOk);
}

}  // namespace xferfm::cli
