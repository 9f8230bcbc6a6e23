// Sends one walked SourcePlan through the host kit's NetworkSender and
// turns how it ended into the tool's exit codes: the sending half of both
// `xferfm send` (the sender connects over TCP) and `xferfm copy` to a
// HOST:PATH (the sender is attached to the pipes of the remote shell).
// What differs between the two is only how the link is opened.
//
// Shows the progress line, names each entry the receiver refuses on stderr
// ("xferfm: not sent: SOURCE: REASON"), computes the SHA-256 of every
// source file first with --verify, and cancels the send on Ctrl-C (the
// receiver then removes the file in flight).
//
// Threading: runs on the calling thread until the send has ended; the
// progress line, the endpoint and the link run threads of their own.
#pragma once

#include <functional>
#include <string>

#include "CommandOptions.h"
#include "SourcePlan.h"
#include "ToolContext.h"
#include "xferfm/host/NetworkSender.h"

namespace xferfm::cli {

// Opens the sender's link (Connect, or Attach to a stream); false with
// `error` set when it cannot, or throws ToolError. Called once, after the
// digests are made and before the progress line starts.
using OpenSenderLink = std::function<bool(orin::xfer::host::NetworkSender&, std::string& error)>;

// What the caller adds to a send, besides the link and the options.
struct SendChoices {
    bool showProgress = true;  // the progress line (never during a dry run)
    // Hears "sending SOURCE" as each file starts (-v); unset: nothing.
    std::function<void(const std::string&)> fileLine;
    // Appended to the interrupt message: how to go on (" To send the rest,
    // ... --resume"), "" where no resume is offered.
    std::string interruptHint;
};

struct PlanSent {
    orin::xfer::host::SentSession result;  // kCompleted or kPartial
    double seconds = 0.0;                  // from the link's opening to the end
};

// Offers `plan` with `options` (window, bandwidth, --verify) over the link
// `open` makes, `senderOptions` giving the rest (address, time limits, a
// dry run or a resume in `offer`: no digests are made for a dry run).
// Returns for a completed, partial or previewed (dry-run) send; throws ToolError for every
// other end: 8 the link could not be opened or was lost, 6 the receiver's
// verification failed, 9/10/1 the receiver ended the send, 12 stalled,
// 4 a source became unreadable, 130 interrupted.
PlanSent sendPlan(const SourcePlan& plan, orin::xfer::host::NetworkSenderOptions senderOptions,
                  const TransferOptions& options, SendChoices choices, ToolContext& context,
                  const OpenSenderLink& open);

}  // namespace xferfm::cli
