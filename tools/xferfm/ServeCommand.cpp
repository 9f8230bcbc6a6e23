#include "ServeCommand.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <deque>
#include <iostream>
#include <thread>

#include "ServeSession.h"
#include "WaitingRoom.h"
#include "ToolError.h"
#include "TreeRemoval.h"
#include "xferfm/host/TcpListener.h"

namespace xferfm::cli {
namespace {

namespace host = orin::xfer::host;

constexpr std::chrono::milliseconds kAcceptWait{200};
// A sender that connects during a session waits this long for its turn:
// enough for back-to-back senders, well inside its link's 10 s silence
// timeout, after which it is told the server is busy.
constexpr std::chrono::milliseconds kWaitingPatience{4000};

// DEST_DIR as an absolute path, or ToolError when it cannot receive.
std::string usableDestination(const std::string& destinationDir)
{
    struct stat status {};
    char resolved[PATH_MAX];
    int error = 0;
    if (::stat(destinationDir.c_str(), &status) != 0) {
        error = errno;
    } else if (!S_ISDIR(status.st_mode)) {
        error = ENOTDIR;
    } else if (::access(destinationDir.c_str(), W_OK | X_OK) != 0) {
        error = errno;
    } else if (::realpath(destinationDir.c_str(), resolved) == nullptr) {
        error = errno;
    }
    if (error != 0) {
        throw ToolError(ExitCode::kDestinationUnusable,
                        "cannot receive into '" + destinationDir + "': " + systemErrorText(error));
    }
    return resolved;
}

// Written whole or not at all, so a reader never sees half a number.
void writePortFile(const std::string& path, uint16_t port)
{
    const std::string partial = path + ".partial";
    {
        std::ofstream out(partial, std::ios::trunc);
        out << port << "\n";
        if (!out) {
            throw ToolError(ExitCode::kTransferFailed, "cannot write the port file '" + path + "'");
        }
    }
    if (std::rename(partial.c_str(), path.c_str()) != 0) {
        const int error = errno;
        std::remove(partial.c_str());
        throw ToolError(ExitCode::kTransferFailed,
                        "cannot write the port file '" + path + "': " + systemErrorText(error));
    }
}

int exitCodeOf(ServeSessionResult::Outcome outcome)
{
    switch (outcome) {
    case ServeSessionResult::Outcome::kOk: return toInt(ExitCode::kOk);
    case ServeSessionResult::Outcome::kVerifyFailed: return toInt(ExitCode::kVerifyMismatch);
    case ServeSessionResult::Outcome::kInterrupted: return toInt(ExitCode::kInterrupted);
    case ServeSessionResult::Outcome::kRefused: return toInt(ExitCode::kNamesRefused);
    case ServeSessionResult::Outcome::kFailed: break;
    }
    return toInt(ExitCode::kTransferFailed);
}

}  // namespace

int runServe(const ServeOptions& options, ToolContext& context)
{
    const std::string destination = usableDestination(options.destinationDir);
    host::HostPort address;
    std::string error;
    if (!host::ParseHostPort(options.listen, address, error)) {
        throw ToolError(ExitCode::kUsage, error);
    }
    host::TcpListener listener(address, error);
    if (!listener.Valid()) {
        throw ToolError(ExitCode::kTransferFailed, error);
    }
    std::cout << "xferfm serve: listening on " << listener.Address() << ", receiving into " << destination
              << std::endl;
    if (!options.portFile.empty()) {
        writePortFile(options.portFile, listener.Port());
    }

    ActiveCache activeCache;
    ScopedSignalHooks hooks(
        context.signals, [] {},  // the session loop polls interrupted() and cancels
        [&activeCache] {
            std::lock_guard<std::mutex> lock(activeCache.mutex);
            if (!activeCache.path.empty()) {
                removeTree(activeCache.path);
            }
        });

    unsigned sessions = 0;
    std::deque<WaitingSender> waiting;  // connected while the last session ran
    while (!context.signals.interrupted()) {
        host::TcpSocket connection;
        if (!waiting.empty()) {
            connection = std::move(waiting.front().connection);
            waiting.pop_front();
        } else {
            const auto accepted = listener.Accept(kAcceptWait, connection, error);
            if (accepted == host::TcpListener::AcceptResult::kTimedOut) {
                continue;
            }
            if (accepted == host::TcpListener::AcceptResult::kFailed) {
                // Out of descriptors and the like: say so, then try again
                // rather than leave the senders that will come later.
                context.console.writeLine("xferfm serve: " + error);
                std::this_thread::sleep_for(kAcceptWait);
                continue;
            }
        }
        ++sessions;
        const std::string busy = host::BusyDisconnect("xferfm serve", sessions).reason;
        WaitingRoom room(listener, std::move(waiting), kWaitingPatience, busy, [&context](const std::string& peer) {
            context.console.writeLine("xferfm serve: turned away " + peer + ": busy with another sender");
        });
        const ServeSessionResult result =
            runServeSession(std::move(connection), destination, sessions, context, activeCache);
        waiting = room.Leave();
        std::cout << result.line << std::endl;
        if (options.once) {
            for (const WaitingSender& sender : waiting) {
                WaitingRoom::TurnAway(sender.connection, "xferfm serve has finished its one session");
            }
            return exitCodeOf(result.outcome);
        }
    }
    return toInt(ExitCode::kInterrupted);
}

}  // namespace xferfm::cli
