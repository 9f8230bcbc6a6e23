// The host kit over TCP: the same two endpoints as kit_inprocess_copy, with
// a TcpListener and two TcpTransports on 127.0.0.1 between them instead of
// an in-process pair. In a real deployment the two halves run on different
// machines: the receiver listens and accepts, the sender connects.
//
//   kit_tcp_copy SOURCE_FILE DESTINATION_DIR
//
// Exits 0 only when DESTINATION_DIR/<name of SOURCE_FILE> is a byte-for-byte
// copy of SOURCE_FILE (DESTINATION_DIR must exist).
#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <memory>
#include <string>

#include "IFileTransferLogger.h"
#include "Version.h"
#include "xferfm/host/ReceiverEndpoint.h"
#include "xferfm/host/RemoteNameGuardTransport.h"
#include "xferfm/host/SenderEndpoint.h"
#include "xferfm/host/StderrLoggerSink.h"
#include "xferfm/host/TcpListener.h"
#include "xferfm/host/TcpSocket.h"
#include "xferfm/host/TcpTransport.h"

namespace {

namespace host = orin::xfer::host;

bool sameBytes(const std::string& left, const std::string& right)
{
    std::ifstream a(left, std::ios::binary);
    std::ifstream b(right, std::ios::binary);
    if (!a || !b) {
        return false;
    }
    return std::equal(std::istreambuf_iterator<char>(a), std::istreambuf_iterator<char>(),
                      std::istreambuf_iterator<char>(b), std::istreambuf_iterator<char>());
}

int fail(const std::string& error)
{
    std::cerr << "kit_tcp_copy: " << error << "\n";
    return 1;
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc != 3) {
        std::cerr << "usage: kit_tcp_copy SOURCE_FILE DESTINATION_DIR\n";
        return 2;
    }
    const std::string source = argv[1];
    const std::string destinationDir = argv[2];
    std::cout << "libxferfm " << orin::xfer::VersionString() << "\n";
    orin::xfer::IFileTransferLogger::SetLogger(std::make_shared<host::StderrLoggerSink>(orin::xfer::kWarning));

    // [snippet kit-tcp]
    // Receiving side: listen (port 0 picks a free one) and accept one sender.
    std::string error;
    host::TcpListener listener(host::HostPort{"127.0.0.1", 0}, error);
    if (!listener.Valid()) {
        return fail(error);
    }
    // Sending side: connect. The kernel completes the connection before
    // Accept, so one thread can do both here.
    host::TcpSocket senderSocket = host::ConnectTcp({"127.0.0.1", listener.Port()}, std::chrono::seconds(5), error);
    if (!senderSocket.Valid()) {
        return fail(error);
    }
    host::TcpSocket receiverSocket;
    if (listener.Accept(std::chrono::seconds(5), receiverSocket, error) != host::TcpListener::AcceptResult::kAccepted) {
        return fail(error);
    }

    host::SenderEndpoint sender(std::make_unique<host::TcpTransport>(std::move(senderSocket)));
    // Names from the network are checked before they reach the engine.
    host::ReceiverOptions receiverOptions;
    receiverOptions.destinationDir = destinationDir;
    host::ReceiverEndpoint receiver(
        std::make_unique<host::RemoteNameGuardTransport>(
            std::make_unique<host::TcpTransport>(std::move(receiverSocket)), destinationDir),
        receiverOptions);

    if (!sender.Offer({source}, error) || !receiver.Start(error)) {
        return fail(error);
    }
    receiver.WaitFinished(std::chrono::minutes(1));
    sender.WaitFinished(std::chrono::seconds(10));
    const host::TransferSummary summary = receiver.Summary();
    if (!summary.completed) {
        return fail(summary.error);
    }
    // [end snippet]

    const std::string landed = destinationDir + "/" + std::filesystem::path(source).filename().string();
    const bool ok = summary.filesDone == 1 && sameBytes(source, landed);
    std::cout << (ok ? "copied " : "FAILED to copy ") << source << " to " << landed << "\n";
    return ok ? 0 : 1;
}
