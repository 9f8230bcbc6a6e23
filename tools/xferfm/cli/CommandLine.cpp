#include "CommandLine.h"

#include <CLI/CLI.hpp>

#include "ExitCode.h"
#include "xferfm/host/TcpSocket.h"

#ifndef XFERFM_VERSION
#error "XFERFM_VERSION must come from the build (the project version)"
#endif

namespace xferfm::cli {
namespace {

// HOST:PORT as the link's address parser reads it.
CLI::Validator hostPortValidator()
{
    return CLI::Validator(
        [](std::string& text) {
            orin::xfer::host::HostPort address;
            std::string error;
            return orin::xfer::host::ParseHostPort(text, address, error) ? std::string() : error;
        },
        "");  // the options name their type HOST:PORT already
}

void addLogLevelOption(CLI::App& command, CommonOptions& options)
{
    command.add_option("--log-level", options.logLevel,
                       "Engine log lines at this level and above go to stderr "
                       "(0 verbose .. 5 fatal, 6 silences them)")
        ->check(CLI::Range(0, 6))
        ->capture_default_str();
}

void addNoProgressFlag(CLI::App& command, TransferOptions& options)
{
    command.add_flag("--no-progress", [&options](std::int64_t) { options.showProgress = false; },
                     "Print no progress on stderr");
}

// The options of every command that moves files out of SOURCE paths; only
// what --verify means differs between them.
void addTransferOptions(CLI::App& command, TransferOptions& options, const std::string& verifyHelp)
{
    command.add_option("--bandwidth", options.bandwidthKbps,
                       "Limit the transfer to KBPS kilobits per second (0: no limit)")
        ->type_name("KBPS")
        ->check(CLI::Range(0u, 4294967u));
    command.add_option("--window", options.window, "Chunks of 64 KiB sent before waiting for an acknowledgement")
        ->type_name("N")
        ->check(CLI::Range(1u, 100000u))
        ->capture_default_str();
    command.add_flag("--verify", options.verify, verifyHelp);
    addLogLevelOption(command, options);
    addNoProgressFlag(command, options);
}

CLI::App* addCopyCommand(CLI::App& app, CopyOptions& options, std::vector<std::string>& paths)
{
    CLI::App* copy = app.add_subcommand(
        "copy", "Copy SOURCE files and directories into DEST_DIR. Each goes to a private cache directory "
                "on DEST_DIR's file system first and is moved into place only when complete; a name "
                "that already exists gets a \"name(1).ext\" name instead of being overwritten.");
    addTransferOptions(*copy, options, "Compare the SHA-256 of every source file with its copy afterwards");
    copy->add_option("paths", paths, "SOURCE... DEST_DIR")
        ->required()
        ->expected(2, CLI::detail::expected_max_vector_size)
        ->type_name("SOURCE... DEST_DIR");
    return copy;
}

CLI::App* addDemoCommand(CLI::App& app, CopyOptions& options)
{
    CLI::App* demo = app.add_subcommand(
        "demo", "Make a sample tree in a temporary directory, copy it with `copy --verify`, show what "
                "happened and clean up.");
    addLogLevelOption(*demo, options);
    addNoProgressFlag(*demo, options);
    return demo;
}

CLI::App* addServeCommand(CLI::App& app, ServeOptions& options)
{
    CLI::App* serve = app.add_subcommand(
        "serve", "Receive copies from `xferfm send` into DEST_DIR, one sender at a time, until stopped.");
    serve->add_option("--listen", options.listen, "Address to listen on; port 0 picks a free one (printed at start)")
        ->type_name("HOST:PORT")
        ->check(hostPortValidator())
        ->capture_default_str();
    serve->add_flag("--once", options.once, "Exit after one session (its result is the exit code)");
    serve->add_option("--port-file", options.portFile, "Write the port actually bound to this file once listening")
        ->type_name("PATH");
    addLogLevelOption(*serve, options);
    serve->add_option("DEST_DIR", options.destinationDir, "Directory that receives the copies")->required();
    serve->footer(std::string(
                      "Files land exactly as `xferfm copy` pastes them: through a private cache directory on "
                      "DEST_DIR's file system, a clashing name gets a \"name(1).ext\" name, and every file is "
                      "verified when the sender asks. Prints one line per session on stdout.\n"
                      "Every name a sender sends is checked first: an entry whose name is absolute, holds \"..\", "
                      "a backslash, a control character or invalid UTF-8, or leads through a symbolic link, is not "
                      "copied (nor anything inside it), with a line on stderr naming it and the rule; the rest of "
                      "the list is copied and the session counts as failed (exit code 7 with --once).\n\n") +
                  exitCodeHelp());
    return serve;
}

CLI::App* addSendCommand(CLI::App& app, SendOptions& options)
{
    CLI::App* send = app.add_subcommand(
        "send", "Send SOURCE files and directories to an `xferfm serve` at HOST:PORT, which pastes them into its "
                "DEST_DIR.");
    addTransferOptions(*send, options, "Have the receiver compare the SHA-256 of every copy with its source's");
    send->add_option("HOST:PORT", options.address, "Address of the receiving `xferfm serve`")
        ->required()
        ->check(hostPortValidator());
    send->add_option("--progress-timeout", options.progressTimeoutSeconds,
                     "End the send (exit code 8) when the receiver moves nothing on for this long")
        ->type_name("SECONDS")
        ->check(CLI::Range(0.1, 86400.0))
        ->capture_default_str();
    send->add_option("SOURCE", options.sources, "Files and directories to send")->required();
    send->footer(std::string("An entry whose name the receiver refuses is not sent (a line on stderr names it and "
                             "the rule); the rest is, and the exit code is 7.\n\n") +
                 exitCodeHelp());
    return send;
}

}  // namespace

ParsedCommandLine parseCommandLine(int argc, char** argv)
{
    ParsedCommandLine parsed;
    CLI::App app("Copies files and directory trees the way a clipboard paste does, through two "
                 "file-transfer engines joined in-process.",
                 "xferfm");
    app.set_version_flag("--version", std::string("xferfm ") + XFERFM_VERSION);
    app.footer(exitCodeHelp());  // `copy` and `demo` inherit it
    app.require_subcommand(1);

    std::vector<std::string> copyPaths;
    const CLI::App* copy = addCopyCommand(app, parsed.copy, copyPaths);
    const CLI::App* demo = addDemoCommand(app, parsed.copy);
    const CLI::App* serve = addServeCommand(app, parsed.serve);
    const CLI::App* send = addSendCommand(app, parsed.send);

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        const int code = app.exit(error);
        parsed.exitCode = code == 0 ? 0 : toInt(ExitCode::kUsage);
        return parsed;
    }

    if (copy->parsed()) {
        parsed.command = Command::kCopy;
        parsed.copy.destinationDir = copyPaths.back();
        copyPaths.pop_back();
        parsed.copy.sources = std::move(copyPaths);
    } else if (demo->parsed()) {
        parsed.command = Command::kDemo;
        parsed.copy.verify = true;
    } else if (serve->parsed()) {
        parsed.command = Command::kServe;
    } else if (send->parsed()) {
        parsed.command = Command::kSend;
    }
    return parsed;
}

}  // namespace xferfm::cli
