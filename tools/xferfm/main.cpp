// xferfm: copies files and directory trees through two file-transfer
// engines, joined in-process (`copy`, `demo`), over TCP (`serve`, `send`)
// or over a remote shell's pipes (`copy` to or from HOST:PATH).
#include <sys/stat.h>

#include "AllocatorTuning.h"
#include "CommandLine.h"
#include "CommandRunner.h"
#include "CopyJob.h"
#include "CopyReport.h"
#include "DryRun.h"
#include "DemoCommand.h"
#include "RemoteCopy.h"
#include "SchedulingTuning.h"
#include "SendCommand.h"
#include "ServeCommand.h"


namespace {

// umask can only be read by setting it: done once, before any thread.
uint32_t readUmask()
{
    const mode_t mask = ::umask(022);
    ::umask(mask);
    return static_cast<uint32_t>(mask);
}

}  // namespace

int main(int argc, char** argv)
{
    using namespace xferfm::cli;
    tuneAllocatorForChunkTraffic();
    preferShortSchedulingSlices();
    ParsedCommandLine parsed = parseCommandLine(argc, argv);
    parsed.copy.umask = readUmask();
    parsed.serve.umask = parsed.copy.umask;
    switch (parsed.command) {
    case Command::kCopy:
        return runCommand(parsed.copy.logLevel, [&parsed](ToolContext& context) {
            const CopyEnds ends = sortCopyOperands(parsed.copy.sources, parsed.copy.destinationDir);
            if (ends.direction != CopyDirection::kLocal) {
                return runRemoteCopy(parsed.copy, ends, context);
            }
            if (parsed.copy.dryRun) {
                return runDryRun(parsed.copy, context);
            }
            return reportCopy(runCopyJob(parsed.copy, context), context.console, reportStyleOf(parsed.copy));
        });
    case Command::kDemo:
        return runCommand(parsed.copy.logLevel,
                          [&parsed](ToolContext& context) { return runDemo(parsed.copy, context); });
    case Command::kServe:
        return runCommand(parsed.serve.logLevel,
                          [&parsed](ToolContext& context) { return runServe(parsed.serve, context); });
    case Command::kSend:
        return runCommand(parsed.send.logLevel,
                          [&parsed](ToolContext& context) { return runSend(parsed.send, context); });
    case Command::kExit:
        break;
    }
    return parsed.exitCode;
}
