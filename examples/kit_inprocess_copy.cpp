// The host kit in one process: a SenderEndpoint and a ReceiverEndpoint, each
// with its own engine, joined by an InProcessTransport pair. The kit does
// all the engine calls, the ordering rules and the cache handling; the host
// says what to copy and where.
//
//   kit_inprocess_copy SOURCE_FILE DESTINATION_DIR
//
// Exits 0 only when DESTINATION_DIR/<name of SOURCE_FILE> is a byte-for-byte
// copy of SOURCE_FILE (DESTINATION_DIR must exist; a clashing name would get
// the engine's duplicate name, name(1).ext, and fail the comparison).
#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <memory>
#include <string>

// [snippet includes]
// Engine headers by bare name (installed in include/xferfm/), host-kit
// headers as xferfm/host/... (installed in include/xferfm/host/).
#include "IFileTransferLogger.h"
#include "Version.h"
#include "xferfm/host/InProcessTransport.h"
#include "xferfm/host/ReceiverEndpoint.h"
#include "xferfm/host/SenderEndpoint.h"
#include "xferfm/host/StderrLoggerSink.h"
// [end snippet]

namespace {

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

}  // namespace

int main(int argc, char** argv)
{
    if (argc != 3) {
        std::cerr << "usage: kit_inprocess_copy SOURCE_FILE DESTINATION_DIR\n";
        return 2;
    }
    const std::string source = argv[1];
    const std::string destinationDir = argv[2];
    std::cout << "libxferfm " << orin::xfer::VersionString() << "\n";

    // [snippet kit-inprocess]
    namespace host = orin::xfer::host;
    // First of all: without a sink the engine prints to standard output.
    orin::xfer::IFileTransferLogger::SetLogger(std::make_shared<host::StderrLoggerSink>(orin::xfer::kWarning));

    auto [senderEnd, receiverEnd] = host::InProcessTransport::CreatePair();
    host::SenderEndpoint sender(std::move(senderEnd), host::SenderOptions{});
    host::ReceiverOptions receiverOptions;
    receiverOptions.destinationDir = destinationDir;  // must exist
    host::ReceiverEndpoint receiver(std::move(receiverEnd), receiverOptions);

    std::string error;
    if (!sender.Offer({source}, error) || !receiver.Start(error)) {
        std::cerr << "kit_inprocess_copy: " << error << "\n";
        return 1;
    }
    receiver.WaitFinished(std::chrono::minutes(1));
    sender.WaitFinished(std::chrono::seconds(10));
    const host::TransferSummary summary = receiver.Summary();
    if (!summary.completed) {
        std::cerr << "kit_inprocess_copy: " << summary.error << "\n";
        return 1;
    }
    // [end snippet]

    const std::string landed = destinationDir + "/" + std::filesystem::path(source).filename().string();
    const bool ok = summary.filesDone == 1 && sameBytes(source, landed);
    std::cout << (ok ? "copied " : "FAILED to copy ") << source << " to " << landed << "\n";
    return ok ? 0 : 1;
}
