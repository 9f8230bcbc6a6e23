// A receiver played by hand over one end of a link: asks for the first entry
// of the list it is offered, accepts it and counts its data, and never
// acknowledges unless the test sends a DataAck itself.
//
// Threading: OnMessage runs on the link's delivery thread; the accessors
// may be called from any thread.
#pragma once

#include <cstdint>
#include <mutex>
#include <string>

#include "xferfm/host/Transport.h"

namespace orin::xfer::test {

using namespace orin::xfer::host;

class HandPlayedReceiver : public ITransportHandler {
public:
    // `firstName` is the request name the receiver expects for entry 0.
    HandPlayedReceiver(ITransport& link, std::string firstName);

    void OnMessage(Message message) override;
    void OnTransportClosed(const std::string&) override {}

    uint64_t Chunks() const;
    // The sender's transfer id of the accepted entry (0 until announced).
    uint32_t TransferId() const;

private:
    ITransport& mLink;
    const std::string mFirstName;
    mutable std::mutex mMutex;
    uint32_t mTransferId = 0;
    uint64_t mChunks = 0;
};

}  // namespace orin::xfer::test
