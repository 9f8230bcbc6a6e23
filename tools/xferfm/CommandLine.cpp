#include "CommandLine.h"

#include <CLI/CLI.hpp>

#include <iostream>

#include "ExitCode.h"
#include "NetworkCommandLine.h"

#ifndef XFERFM_VERSION
#error "XFERFM_VERSION must come from the build (the project version)"
#endif

namespace xferfm::cli {
namespace {

// Options shared by `copy` and `demo`.
void addTransferOptions(CLI::App& command, CopyOptions& options)
{
    command.add_option("--log-level", options.logLevel,
                       "Engine log lines at this level and above go to stderr "
                       "(0 verbose .. 5 fatal, 6 silences them)")
        ->check(CLI::Range(0, 6))
        ->capture_default_str();
    command.add_flag("--no-progress", [&options](std::int64_t) { options.showProgress = false; },
                     "Print no progress on stderr");
}

}  // namespace

ParsedCommandLine parseCommandLine(int argc, char** argv)
{
    ParsedCommandLine parsed;
    CLI::App app("Copies files and directory trees the way a clipboard paste does, through two "
                 "file-transfer engines joined in-process.",
                 "xferfm");
    app.set_version_flag("--version", std::string("xferfm ") + XFERFM_VERSION);
    app.footer(exitCodeHelp());
    app.require_subcommand(1);

    std::vector<std::string> copyPaths;
    CLI::App* copy = app.add_subcommand(
        "copy", "Copy SOURCE files and directories into DEST_DIR. Each goes to a private cache directory "
                "on DEST_DIR's file system first and is moved into place only when complete; a name "
                "that already exists gets a \"name(1).ext\" name instead of being overwritten.");
    copy->add_option("--bandwidth", parsed.options.bandwidthKbps,
                     "Limit the transfer to KBPS kilobits per second (0: no limit)")
        ->type_name("KBPS")
        ->check(CLI::Range(0u, 4294967u));
    copy->add_option("--window", parsed.options.window,
                     "Chunks of 64 KiB sent before waiting for an acknowledgement")
        ->type_name("N")
        ->check(CLI::Range(1u, 100000u))
        ->capture_default_str();
    copy->add_flag("--verify", parsed.options.verify,
                   "Compare the SHA-256 of every source file with its copy afterwards");
    addTransferOptions(*copy, parsed.options);
    copy->add_option("paths", copyPaths, "SOURCE... DEST_DIR")
        ->required()
        ->expected(2, CLI::detail::expected_max_vector_size)
        ->type_name("SOURCE... DEST_DIR");
    copy->footer(exitCodeHelp());

    CLI::App* demo = app.add_subcommand(
        "demo", "Make a sample tree in a temporary directory, copy it with `copy --verify`, show what "
                "happened and clean up.");
    addTransferOptions(*demo, parsed.options);

    // Listed here for --help; main hands both to their own parser before
    // this one runs, so reaching them here means they did not come first.
    ParsedNetworkCommand network;
    const NetworkSubcommands networkCommands = addNetworkCommands(app, network);

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        const int code = app.exit(error);
        parsed.exitCode = code == 0 ? 0 : toInt(ExitCode::kUsage);
        return parsed;
    }

    if (networkCommands.serve->parsed() || networkCommands.send->parsed()) {
        std::cerr << "xferfm: serve and send must be the first argument\n";
        parsed.exitCode = toInt(ExitCode::kUsage);
        return parsed;
    }
    if (copy->parsed()) {
        parsed.command = Command::kCopy;
        parsed.options.destinationDir = copyPaths.back();
        copyPaths.pop_back();
        parsed.options.sources = std::move(copyPaths);
    } else if (demo->parsed()) {
        parsed.command = Command::kDemo;
        parsed.options.verify = true;
    }
    return parsed;
}

}  // namespace xferfm::cli
