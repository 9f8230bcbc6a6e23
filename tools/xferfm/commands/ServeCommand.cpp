#include "ServeCommand.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <mutex>

#include "DestinationDir.h"
#include "NameReport.h"
#include "ServeReport.h"
#include "ToolError.h"
#include "xferfm/host/TreeRemoval.h"
#include "xferfm/host/NetworkReceiver.h"
#include "xferfm/host/RemoteNameGuard.h"
#include "xferfm/host/StandardStreams.h"
#include "xferfm/host/TcpListener.h"

namespace xferfm::cli {
namespace {

namespace host = orin::xfer::host;

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
                        "cannot write the port file '" + path + "': " + SystemErrorText(error));
    }
}

// Prints what the kit's receiver reports, as it happens.
class ServePrinter final : public host::NetworkReceiverObserver {
public:
    ServePrinter(ToolContext& context, const ServeOptions& options, const std::string& destination,
                 std::chrono::milliseconds listTimeout)
        : mContext(context), mOptions(options), mDestination(destination), mListTimeout(listTimeout)
    {
    }

    // -v: one line per file as it lands (on stderr when stdout holds JSON).
    void OnFileReceived(unsigned number, const std::string& name, const std::string& finalPath) override
    {
        if (!mOptions.verbose) {
            return;
        }
        const std::string line = host::PrintableText("session " + std::to_string(number) + ": received " + name +
                                                     " -> " + finalPath);
        if (mOptions.json) {
            mContext.console.writeLine(line);
        } else if (!mOptions.quiet) {
            std::lock_guard<std::mutex> lock(mStdoutMutex);
            std::cout << line << '\n';
        }
    }

    // One session's refusals come from its delivery thread, in order.
    void OnEntryRefused(unsigned number, const std::string& peer, const host::RefusedEntry& entry) override
    {
        size_t count = 0;
        {
            std::lock_guard<std::mutex> lock(mRefusalMutex);
            mRefusals = mRefusalSession == number ? mRefusals + 1 : 1;
            mRefusalSession = number;
            count = mRefusals;
        }
        switch (refusalLineFor(count)) {
        case RefusalLine::kNamed:
            mContext.console.writeLine(
                host::PrintableText(sessionPrefix(number, peer) + "not copied: " + entry.reason));
            break;
        case RefusalLine::kRestCounted:
            mContext.console.writeLine(host::PrintableText(sessionPrefix(number, peer)) +
                                       "more entries not copied; the session line counts them");
            break;
        case RefusalLine::kSilent: break;
        }
    }
    void OnSessionEnded(const host::ReceivedSession& session) override
    {
        mExitCode = exitCodeOf(session);
        std::lock_guard<std::mutex> lock(mStdoutMutex);
        if (mOptions.json) {
            std::cout << sessionJson(session, mDestination, mListTimeout) << std::endl;
        } else if (!mOptions.quiet) {
            printMappedNames(session.summary.namesMapped,
                             host::PrintableText(sessionPrefix(session.number, session.peer)));
            std::cout << sessionLine(session, mListTimeout) << std::endl;
        } else if (mExitCode != toInt(ExitCode::kOk)) {
            // Quiet keeps stdout empty; a failed session still says why.
            mContext.console.writeLine("xferfm serve: " + sessionLine(session, mListTimeout));
        }
    }
    void OnTurnedAway(const std::string& peer) override
    {
        mContext.console.writeLine("xferfm serve: turned away " + peer + ": busy with another sender");
    }
    void OnAcceptFailed(const std::string& error) override { mContext.console.writeLine("xferfm serve: " + error); }

    // The exit code of the last session (Run's thread only).
    int lastExitCode() const { return mExitCode; }

private:
    ToolContext& mContext;
    const ServeOptions& mOptions;
    const std::string mDestination;
    const std::chrono::milliseconds mListTimeout;
    std::mutex mStdoutMutex;  // the file lines and the session lines come from different threads
    std::mutex mRefusalMutex;
    unsigned mRefusalSession = 0;
    size_t mRefusals = 0;
    int mExitCode = toInt(ExitCode::kInterrupted);
};

// Runs `receive` with the receiver's stop and emergency clean-up hooked to
// the signals.
template <typename Receive>
void receiveUntilStopped(host::NetworkReceiver& receiver, ToolContext& context, Receive receive)
{
    ScopedSignalHooks hooks(
        context.signals, [&receiver] { receiver.Stop(); },
        [&receiver] {
            const std::string cache = receiver.ActiveCacheDirectory();
            if (!cache.empty()) {
                orin::xfer::host::RemoveTree(cache);
            }
        });
    if (context.signals.interrupted()) {  // Ctrl-C came before the hook was in place
        receiver.Stop();
    }
    receive();
}

// One session over standard input/output. Standard output carries frames
// only: it is taken before anything is printed, and every line of ours
// goes to stderr from then on.
int serveOverStandardStreams(const ServeOptions& options, ToolContext& context)
{
    host::StreamEnds stream;
    std::string error;
    if (!host::TakeStandardStreams(stream, error)) {
        throw ToolError(ExitCode::kLinkFailed, error);
    }
    const std::string destination =
        usableDestinationDir(options.destinationDir, DestinationNeed::kWritableDirectory, "cannot receive into");
    if (!options.quiet) {
        std::cerr << "xferfm serve: receiving into " << destination << " over standard input/output" << std::endl;
    }
    host::NetworkReceiverOptions receiverOptions;
    receiverOptions.destinationDir = destination;
    receiverOptions.names = receiverNameRules(options);
    receiverOptions.permissionMask = options.preservePermissions ? 0 : options.umask;
    ServePrinter printer(context, options, destination, receiverOptions.listTimeout);
    host::NetworkReceiver receiver(receiverOptions, printer);
    receiveUntilStopped(receiver, context, [&] { receiver.RunOne(std::move(stream)); });
    return printer.lastExitCode();
}

}  // namespace

int runServe(const ServeOptions& options, ToolContext& context)
{
    if (options.stdio) {
        return serveOverStandardStreams(options, context);
    }
    const std::string destination = usableDestinationDir(options.destinationDir, DestinationNeed::kWritableDirectory, "cannot receive into");
    host::HostPort address;
    std::string error;
    if (!host::ParseHostPort(options.listen, address, error)) {
        throw ToolError(ExitCode::kUsage, error);
    }
    host::TcpListener listener(address, error);
    if (!listener.Valid()) {
        throw ToolError(ExitCode::kTransferFailed, error);
    }
    if (!options.quiet && !options.json) {
        std::cout << "xferfm serve: listening on " << listener.Address() << ", receiving into " << destination
                  << std::endl;
    }
    if (!options.portFile.empty()) {
        writePortFile(options.portFile, listener.Port());
    }

    host::NetworkReceiverOptions receiverOptions;
    receiverOptions.destinationDir = destination;
    receiverOptions.maxSessions = options.once ? 1 : 0;
    receiverOptions.names = receiverNameRules(options);
    // The sender's modes under this process's umask, as scp and rsync
    // without -p land them; exact with -p.
    receiverOptions.permissionMask = options.preservePermissions ? 0 : options.umask;
    ServePrinter printer(context, options, destination, receiverOptions.listTimeout);
    host::NetworkReceiver receiver(listener, receiverOptions, printer);
    receiveUntilStopped(receiver, context, [&receiver] { receiver.Run(); });
    if (options.once) {
        return printer.lastExitCode();
    }
    return toInt(ExitCode::kInterrupted);
}

}  // namespace xferfm::cli
