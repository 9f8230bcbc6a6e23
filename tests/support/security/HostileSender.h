// A sending peer played by hand over the host kit's message protocol: it
// offers a crafted file list (raw bytes, no checks of its own), answers
// every request with an announcement of the requested name (or of a name
// it was told to use instead) and a few bytes of data.
//
// THREADING CONTRACT: its handler runs on the transport's delivery thread;
// configure it before the link starts, read Closed() from any thread.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

#include "xferfm/host/Transport.h"

namespace orin::xfer::test {

using namespace orin::xfer::host;

struct CraftedEntry {
    std::string filePath;
    std::string fileName;
    bool isDirectory = false;
};

// The list as the engine's JSON, with every byte of the names kept as it
// is except what JSON itself must escape (quote, backslash, controls).
std::string CraftedListJson(const std::vector<CraftedEntry>& entries);

class HostileSender final : public ITransportHandler {
public:
    static constexpr uint64_t kFileBytes = 10;

    HostileSender(std::vector<CraftedEntry> entries, std::string announceInstead);

    // The sender's end of the link; not owned, must outlive the handler's use.
    void Attach(ITransport& link) { mLink = &link; }

    void OnMessage(Message message) override;
    void OnTransportClosed(const std::string& reason) override;
    bool Closed() const { return mClosed.load(); }

private:
    std::vector<CraftedEntry> mEntries;
    std::string mAnnounceInstead;  // empty: announce what was requested
    ITransport* mLink = nullptr;
    std::atomic<bool> mClosed{false};
};

}  // namespace orin::xfer::test
