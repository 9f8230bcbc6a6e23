#include "NetworkCommandLine.h"

#include <CLI/CLI.hpp>

#include <cstring>

#include "ExitCode.h"
#include "NetworkCommands.h"
#include "xferfm/host/TcpSocket.h"

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

void addLogLevel(CLI::App& command, int& logLevel)
{
    command.add_option("--log-level", logLevel,
                       "Engine log lines at this level and above go to stderr (0 verbose .. 5 fatal, 6 silences them)")
        ->check(CLI::Range(0, 6))
        ->capture_default_str();
}

}  // namespace

bool isNetworkCommand(int argc, char** argv)
{
    return argc > 1 && (std::strcmp(argv[1], "serve") == 0 || std::strcmp(argv[1], "send") == 0);
}

NetworkSubcommands addNetworkCommands(CLI::App& app, ParsedNetworkCommand& parsed)
{
    CLI::App* serve = app.add_subcommand(
        "serve", "Receive copies from `xferfm send` into DEST_DIR, one sender at a time, until stopped.");
    ServeOptions& serveOptions = parsed.serve;
    serve->add_option("--listen", serveOptions.listen,
                      "Address to listen on; port 0 picks a free one (printed at start)")
        ->type_name("HOST:PORT")
        ->check(hostPortValidator())
        ->capture_default_str();
    serve->add_flag("--once", serveOptions.once, "Exit after one session (its result is the exit code)");
    serve->add_option("--port-file", serveOptions.portFile,
                      "Write the port actually bound to this file once listening")
        ->type_name("PATH");
    addLogLevel(*serve, serveOptions.logLevel);
    serve->add_option("DEST_DIR", serveOptions.destinationDir, "Directory that receives the copies")->required();
    serve->footer(std::string(
                      "Files land exactly as `xferfm copy` pastes them: through a private cache directory on "
                      "DEST_DIR's file system, a clashing name gets a \"name(1).ext\" name, and every file is "
                      "verified when the sender asks. Prints one line per session on stdout.\n"
                      "Every name a sender sends is checked first: an entry whose name is absolute, holds \"..\", "
                      "a backslash, a control character or invalid UTF-8, or leads through a symbolic link, is not "
                      "copied (nor anything inside it), with a line on stderr naming it and the rule; the rest of "
                      "the list is copied and the session counts as failed (exit code 7 with --once).\n\n") +
                  exitCodeHelp());

    CLI::App* send = app.add_subcommand(
        "send", "Send SOURCE files and directories to an `xferfm serve` at HOST:PORT, which pastes them into its "
                "DEST_DIR.");
    SendOptions& sendOptions = parsed.send;
    send->add_option("--bandwidth", sendOptions.bandwidthKbps,
                     "Limit the transfer to KBPS kilobits per second (0: no limit)")
        ->type_name("KBPS")
        ->check(CLI::Range(0u, 4294967u));
    send->add_option("--window", sendOptions.window, "Chunks of 64 KiB sent before waiting for an acknowledgement")
        ->type_name("N")
        ->check(CLI::Range(1u, 100000u))
        ->capture_default_str();
    send->add_flag("--verify", sendOptions.verify,
                   "Have the receiver compare the SHA-256 of every copy with its source's");
    addLogLevel(*send, sendOptions.logLevel);
    send->add_flag("--no-progress", [&sendOptions](std::int64_t) { sendOptions.showProgress = false; },
                   "Print no progress on stderr");
    send->add_option("HOST:PORT", sendOptions.address, "Address of the receiving `xferfm serve`")
        ->required()
        ->check(hostPortValidator());
    send->add_option("SOURCE", sendOptions.sources, "Files and directories to send")->required();
    send->footer(std::string("An entry whose name the receiver refuses is not sent (a line on stderr names it and "
                             "the rule); the rest is, and the exit code is 7.\n\n") +
                 exitCodeHelp());
    return NetworkSubcommands{serve, send};
}

ParsedNetworkCommand parseNetworkCommandLine(int argc, char** argv)
{
    ParsedNetworkCommand parsed;
    CLI::App app("Copies files between two machines: `serve` receives, `send` sends.", "xferfm");
    app.footer(exitCodeHelp());
    app.require_subcommand(1);
    const NetworkSubcommands commands = addNetworkCommands(app, parsed);

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        const int code = app.exit(error);
        parsed.exitCode = code == 0 ? 0 : toInt(ExitCode::kUsage);
        return parsed;
    }
    parsed.command = commands.serve->parsed() ? NetworkCommand::kServe : NetworkCommand::kSend;
    return parsed;
}

}  // namespace xferfm::cli
