// A whole receiving session on arbitrary frames: the bytes are what a
// sender sends after its hello, decoded as the TCP link decodes them and
// played into the receiver's stack (name guard, then ReceiverEndpoint)
// over an in-process link. Whatever arrives, the session must end within
// its bounds and leave the file system sound:
// - nothing beside the destination changes (a canary directory there is
//   fingerprinted before and after);
// - the destination holds only regular files and directories (the
//   receiver never makes a link) and no cache directory once it is gone.
#include <sys/stat.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "FuzzSupport.h"
#include "xferfm/host/FrameCodec.h"
#include "xferfm/host/InProcessTransport.h"
#include "xferfm/host/ReceiverEndpoint.h"
#include "xferfm/host/RemoteNameGuardTransport.h"

namespace {

using namespace orin::xfer::host;
using xferfm::fuzz::Violation;
namespace fs = std::filesystem;

// What the played sender hears is dropped: the input does not react.
class Deaf final : public ITransportHandler {
public:
    void OnMessage(Message) override {}
    void OnTransportClosed(const std::string&) override {}
};

// Names, kinds and sizes under `root`, links not followed.
std::string Fingerprint(const std::string& root)
{
    std::string print;
    std::error_code ignored;
    for (auto it = fs::recursive_directory_iterator(root, ignored); it != fs::recursive_directory_iterator();
         it.increment(ignored)) {
        const fs::file_status status = it->symlink_status(ignored);
        print += it->path().string() + ":" + std::to_string(static_cast<int>(status.type()));
        if (status.type() == fs::file_type::regular) {
            print += ":" + std::to_string(it->file_size(ignored));
        }
        print += "\n";
    }
    return print;
}

void CheckDestination(const std::string& dest)
{
    std::error_code ignored;
    for (auto it = fs::recursive_directory_iterator(dest, ignored); it != fs::recursive_directory_iterator();
         it.increment(ignored)) {
        const fs::file_type type = it->symlink_status(ignored).type();
        if (type != fs::file_type::regular && type != fs::file_type::directory) {
            Violation("the destination holds something other than files and directories", it->path().string());
        }
        if (it->path().filename().string().rfind(".xferfm-cache-", 0) == 0) {
            Violation("a cache directory outlived its endpoint", it->path().string());
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    xferfm::fuzz::SilenceEngineLog();
    static const std::string base = xferfm::fuzz::ScratchDirectory() + "/session";
    static const std::string canary = base + "/canary";
    static const std::string dest = base + "/dest";
    static const bool prepared = [] {
        fs::create_directories(canary + "/inside");
        fs::create_directories(dest);
        return true;
    }();
    (void)prepared;
    const std::string canaryBefore = Fingerprint(canary);

    // The input, as the link would decode it after a good hello.
    std::vector<uint8_t> stream;
    FrameEncoder().AppendHello(stream);
    stream.insert(stream.end(), data, data + size);
    FrameDecoder decoder;
    std::vector<Message> messages;
    decoder.Feed(stream.data(), stream.size(), messages);

    {
        auto [senderEnd, receiverEnd] = InProcessTransport::CreatePair();
        ReceiverOptions options;
        options.destinationDir = dest;
        options.stallTimeout = std::chrono::milliseconds(200);
        ReceiverEndpoint receiver(std::make_unique<RemoteNameGuardTransport>(std::move(receiverEnd), dest), options);
        Deaf deaf;
        senderEnd->Start(deaf);
        std::string error;
        if (receiver.Start(error)) {
            for (Message& message : messages) {
                if (!senderEnd->Send(std::move(message))) {
                    break;
                }
            }
            senderEnd->Close();
            if (!receiver.WaitFinished(std::chrono::seconds(5))) {
                Violation("the session did not end within 5 s of the sender leaving", std::to_string(size));
            }
        }
    }

    CheckDestination(dest);
    if (Fingerprint(canary) != canaryBefore) {
        Violation("something beside the destination changed", Fingerprint(canary));
    }
    std::error_code ignored;
    for (const auto& entry : fs::directory_iterator(dest, ignored)) {
        fs::remove_all(entry.path(), ignored);
    }
    return 0;
}
