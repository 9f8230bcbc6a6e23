#include "CommandLine.h"

#include <CLI/CLI.hpp>

#include <iostream>
#include <map>
#include <memory>

#include "ExitCode.h"
#include "NameReport.h"
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

// HOST[:PORT] for `send`: a HOST alone takes the port `serve` listens on
// by default, so the two ends meet without either naming it.
CLI::Validator hostDefaultPortTransform()
{
    return CLI::Validator(
        [](std::string& text) {
            orin::xfer::host::HostPort address;
            std::string error;
            if (orin::xfer::host::ParseHostPort(text, address, error)) {
                return std::string();
            }
            // Only a bare name or address, or a bracketed IPv6 one: "host:"
            // or "host:http" stay errors.
            const bool bare = text.find(':') == std::string::npos || (text.front() == '[' && text.back() == ']');
            const std::string withPort = text + ":" + std::to_string(kDefaultServePort);
            std::string ignored;
            if (bare && orin::xfer::host::ParseHostPort(withPort, address, ignored)) {
                text = withPort;
                return std::string();
            }
            return error;
        },
        "");
}

// The one usage line of each command, shown under a usage error.
std::string usageLine(const std::string& command)
{
    if (command == "copy") {
        return "xferfm copy [OPTIONS] SOURCE... DEST_DIR";
    }
    if (command == "demo") {
        return "xferfm demo [OPTIONS]";
    }
    if (command == "serve") {
        return "xferfm serve [OPTIONS] DEST_DIR   (or: xferfm serve --stdio [OPTIONS] DEST_DIR)";
    }
    if (command == "send") {
        return "xferfm send [OPTIONS] HOST[:PORT] SOURCE...   (or: xferfm send --stdio [OPTIONS] SOURCE...)";
    }
    return "xferfm COMMAND [OPTIONS] ARGS...   (COMMAND: copy, demo, serve, send)";
}

// --help shows the same usage line as a usage error does.
class UsageLineFormatter : public CLI::Formatter {
public:
    std::string make_usage(const CLI::App* app, std::string) const override
    {
        return "Usage: " + usageLine(app->get_parent() != nullptr ? app->get_name() : "") + "\n";
    }
};

// A usage error as a terminal user expects it: the program (and command)
// that complains, what is wrong, the usage line and where help is.
void printUsageError(const CLI::App& app, const CLI::Error& error)
{
    std::string command;
    for (const CLI::App* sub : app.get_subcommands()) {
        command = sub->get_name();
    }
    const std::string program = command.empty() ? "xferfm" : "xferfm " + command;
    std::string what = error.what();
    if (command == "copy" && (dynamic_cast<const CLI::RequiredError*>(&error) != nullptr ||
                              dynamic_cast<const CLI::ArgumentMismatch*>(&error) != nullptr)) {
        what = "needs at least one SOURCE and a DEST_DIR";
    }
    std::cerr << program << ": " << what << "\n"
              << "Usage: " << usageLine(command) << "\n"
              << "Run '" << program << " --help' for every option.\n";
}

void addLogLevelOption(CLI::App& command, CommonOptions& options)
{
    command.add_option("--log-level", options.logLevel,
                       "Show engine log lines at this level and above on stderr "
                       "(0 verbose .. 5 fatal; 6, the default, shows none)")
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

// --names and --name-action, on every command that receives.
void addNameOptions(CLI::App& command, NameOptions& options)
{
    using orin::xfer::host::NameTarget;
    const std::map<std::string, NameTarget> targets{
        {"posix", NameTarget::kPosix}, {"windows", NameTarget::kWindows}, {"portable", NameTarget::kPortable}};
    const std::map<std::string, NameChoice> choices{
        {"map", NameChoice::kMap}, {"refuse", NameChoice::kRefuse}, {"map-back", NameChoice::kMapBack}};
    command
        .add_option("--names", options.names,
                    "Fit every received name to this platform's rules: posix (the default: names land byte for "
                    "byte), windows (no < > : \" | ? * or control characters, no CON, PRN, AUX, NUL, COM1-9, "
                    "LPT1-9, no trailing dot or space, no names differing only in case, paths up to 260), or "
                    "portable (fits both)")
        ->type_name("TARGET")
        ->transform(CLI::CheckedTransformer(targets));
    command
        .add_option("--name-action", options.nameAction,
                    "What happens to a name that breaks a rule of --names: map (the default: it lands under a "
                    "reversible form, full-width characters for the forbidden ones, and a line names it), refuse "
                    "(it is not copied, nor what it holds; each is named on stderr, the rest is copied, exit code "
                    "7), or map-back (with --names posix: names a mapping changed land under their original form)")
        ->type_name("ACTION")
        ->transform(CLI::CheckedTransformer(choices));
}

// The two runs besides a plain one (`copy`, `send`: only the words differ).
void addRunModeOptions(CLI::App& command, SelectionOptions& options, const std::string& verb)
{
    const bool send = verb == "send";
    command.add_flag("--resume", options.resume,
                     "Continue an interrupted " + verb + " into the same " +
                         (send ? "receiver's DEST_DIR" : "DEST_DIR") +
                         ": its top-level entries keep the names the interrupted run gave them, files already there "
                         "with the source's size and modification time are kept, only the rest is " +
                         (send ? "sent" : "copied"));
    command.add_flag("-n,--dry-run", options.dryRun,
                     std::string("Print what would be ") + (send ? "sent" : "copied") +
                         " and skipped, and where each top-level entry would land (renames included); write nothing");
}

// What to leave out, and what to do with entries that cannot be copied.
void addSelectionOptions(CLI::App& command, SelectionOptions& options, const std::string& verb)
{
    const bool send = verb == "send";
    command
        .add_option("--exclude", options.excludes,
                    "Leave out entries matching this shell glob, and what they hold (repeatable): a PATTERN "
                    "with a \"/\" is matched against the path relative to " +
                        std::string(send ? "the receiver's DEST_DIR" : "DEST_DIR") +
                        " (\"tree/sub/*.o\"), one without against each name")
        ->type_name("PATTERN")
        ->allow_extra_args(false);
    command.add_flag("--strict", options.strict,
                     std::string(send ? "Send" : "Copy") +
                         " nothing when any entry cannot be copied (a device, FIFO or socket, a broken link, an "
                         "unreadable entry, a name holding a backslash); by default each is named and skipped, the "
                         "rest is " + (send ? "sent" : "copied") + " and the exit code is 11");
}

// -q, -v, --json: `perFile` says what -v prints a line for, `jsonFields`
// what the JSON document holds.
void addOutputOptions(CLI::App& command, OutputOptions& options, const std::string& perFile,
                      const std::string& jsonFields)
{
    command.add_flag("-q,--quiet", options.quiet, "Print nothing on stdout and no progress; errors still go to stderr");
    command.add_flag("-v,--verbose", options.verbose, "Print one line per file " + perFile);
    command.add_flag("--json", options.json,
                     "Write one JSON summary on stdout instead of the usual lines: " + jsonFields);
}

CLI::App* addCopyCommand(CLI::App& app, CopyOptions& options, std::vector<std::string>& paths)
{
    CLI::App* copy = app.add_subcommand(
        "copy", "Copy SOURCE files and directories into DEST_DIR. Each goes to a private cache directory "
                "on DEST_DIR's file system first and is moved into place only when complete; a name "
                "that already exists gets a \"name(1).ext\" name instead of being overwritten. "
                "DEST_DIR, or every SOURCE, may be on another machine, written [USER@]HOST:PATH as for "
                "scp (a colon before the first slash; ./a:b stays local): xferfm runs there through "
                "the remote shell (--rsh) and the files travel over its standard input and output.");
    addTransferOptions(*copy, options, "Compare the SHA-256 of every source file with its copy afterwards");
    copy->add_flag("-p,--preserve-perms", options.preservePermissions,
                   "Keep the exact permission bits of the sources (default: under the umask, as cp does)");
    addRunModeOptions(*copy, options, "copy");
    addSelectionOptions(*copy, options, "copy");
    addOutputOptions(*copy, options, "copied (or, with --dry-run, to copy)",
                     "files, directories, bytes, seconds, skipped entries with reasons, excluded count, renames, "
                     "where each top-level entry landed, the --verify result and the exit code");
    copy->add_option("-e,--rsh", options.rsh,
                     "Remote shell that reaches the host of a [USER@]HOST:PATH operand, with its arguments "
                     "(\"ssh -p 2222 -i key\"); split into words as a shell would, nothing expanded")
        ->type_name("COMMAND")
        ->capture_default_str();
    copy->add_option("--xferfm-path", options.xferfmPath,
                     "Program that the remote shell runs on that host (a name looked up in its PATH, or a path)")
        ->type_name("PROGRAM")
        ->capture_default_str();
    addNameOptions(*copy, options);
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
    CLI::Option* listen =
        serve->add_option("--listen", options.listen, "Address to listen on; port 0 picks a free one (printed at start)")
            ->type_name("HOST:PORT")
            ->check(hostPortValidator())
            ->capture_default_str();
    serve->add_flag("--once", options.once, "Exit after one session (its result is the exit code)");
    CLI::Option* portFile =
        serve->add_option("--port-file", options.portFile, "Write the port actually bound to this file once listening")
            ->type_name("PATH");
    serve->add_flag("--stdio", options.stdio,
                    "Serve one session over standard input and output instead of listening (implies --once; "
                    "every message goes to stderr). Used by copy over SSH; you rarely run it yourself")
        ->excludes(listen)
        ->excludes(portFile);
    serve->add_flag("-p,--preserve-perms", options.preservePermissions,
                    "Land files and directories with the exact permission bits the sender lists (default: under "
                    "this process's umask, as scp and rsync without -p do)");
    addOutputOptions(*serve, options, "received, as it lands",
                     "one line per session: its number, peer, destination, outcome and failure, files, "
                     "directories, bytes, seconds, refused entries, renames, the verify result and the exit code "
                     "(with --once, the one document)");
    addNameOptions(*serve, options);
    addLogLevelOption(*serve, options);
    serve->add_option("DEST_DIR", options.destinationDir, "Directory that receives the copies")->required();
    serve->footer(std::string(
                      "Files land exactly as `xferfm copy` pastes them: through a private cache directory on "
                      "DEST_DIR's file system, a clashing name gets a \"name(1).ext\" name, and every file is "
                      "verified when the sender asks. Prints one line per session on stdout.\n"
                      "Every name a sender sends is checked first: an entry whose name is absolute, holds \"..\", "
                      "a backslash, a control character or invalid UTF-8, or leads through a symbolic link, is not "
                      "copied (nor anything inside it), with a line on stderr naming it and the rule; the rest of "
                      "the list is copied and the session counts as failed (exit code 7 with --once).\n"
                      "Modification times are kept; permission bits land under this process's umask unless -p. "
                      "With --once, a session whose link is lost exits 8, one the sender cancels 10.\n\n") +
                  exitCodeHelp());
    return serve;
}

CLI::App* addSendCommand(CLI::App& app, SendOptions& options)
{
    CLI::App* send = app.add_subcommand(
        "send", "Send SOURCE files and directories to an `xferfm serve` at HOST:PORT, which pastes them into its "
                "DEST_DIR.");
    addTransferOptions(*send, options, "Have the receiver compare the SHA-256 of every copy with its source's");
    // Both positionals are checked after parsing: with --stdio there is no HOST:PORT.
    send->add_option("HOST:PORT", options.address,
                     "Address of the receiving `xferfm serve`; the port defaults to " +
                         std::to_string(kDefaultServePort) + ", serve's default");
    send->add_option("--progress-timeout", options.progressTimeoutSeconds,
                     "End the send (exit code 12) when the receiver moves nothing on for this long")
        ->type_name("SECONDS")
        ->check(CLI::Range(0.1, 86400.0))
        ->capture_default_str();
    send->add_flag("--stdio", options.stdio,
                   "Send over standard input and output, to an `xferfm serve --stdio` at their other end, instead "
                   "of to HOST:PORT: every argument is then a SOURCE, and every message goes to stderr. Used by "
                   "copy over SSH; you rarely run it yourself");
    addRunModeOptions(*send, options, "send");
    addSelectionOptions(*send, options, "send");
    addOutputOptions(*send, options, "sent",
                     "the receiver's address, files, directories, bytes, seconds, skipped entries with reasons, "
                     "excluded count, entries the receiver refused with reasons, the --verify result and the exit "
                     "code");
    send->add_option("SOURCE", options.sources, "Files and directories to send");
    send->footer(std::string("Entries that cannot be copied (a device, FIFO or socket, a broken link, an unreadable "
                             "entry, a name holding a backslash) are all found before anything is sent, named on "
                             "stderr with their reason and skipped; the rest is sent and the exit code is 11 "
                             "(--strict sends nothing instead). An entry whose name the receiver refuses is not sent "
                             "(a line on stderr names it and the rule); the rest is, and the exit code is 7.\n\n") +
                 exitCodeHelp());
    return send;
}

// Without --stdio the first argument is HOST[:PORT]; with it, every one is a SOURCE.
void settleSendArguments(SendOptions& options)
{
    if (options.stdio) {
        if (!options.address.empty()) {
            options.sources.insert(options.sources.begin(), options.address);
            options.address.clear();
        }
    } else {
        if (options.address.empty()) {
            throw CLI::RequiredError("HOST:PORT");
        }
        const std::string error = hostDefaultPortTransform()(options.address);
        if (!error.empty()) {
            throw CLI::ValidationError("HOST:PORT", error);
        }
    }
    if (options.sources.empty()) {
        throw CLI::RequiredError("SOURCE");
    }
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
    app.formatter(std::make_shared<UsageLineFormatter>());  // before the commands: they inherit it

    std::vector<std::string> copyPaths;
    const CLI::App* copy = addCopyCommand(app, parsed.copy, copyPaths);
    const CLI::App* demo = addDemoCommand(app, parsed.copy);
    const CLI::App* serve = addServeCommand(app, parsed.serve);
    const CLI::App* send = addSendCommand(app, parsed.send);

    try {
        app.parse(argc, argv);
        if (send->parsed()) {
            settleSendArguments(parsed.send);
        }
    } catch (const CLI::ParseError& error) {
        if (error.get_exit_code() == 0) {  // --help, --version
            parsed.exitCode = app.exit(error);
            return parsed;
        }
        printUsageError(app, error);
        parsed.exitCode = toInt(ExitCode::kUsage);
        return parsed;
    }

    const std::string nameProblem = nameOptionsProblem(serve->parsed() ? static_cast<const NameOptions&>(parsed.serve)
                                                                        : static_cast<const NameOptions&>(parsed.copy));
    if (!nameProblem.empty()) {
        printUsageError(app, CLI::ValidationError(nameProblem));
        parsed.exitCode = toInt(ExitCode::kUsage);
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
