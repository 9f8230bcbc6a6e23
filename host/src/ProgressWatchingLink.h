// The sending side's measure of progress: a transport wrapper that tells
// its owner each time the receiver moves the copy on. A receiver that
// keeps the link alive with keepalives, or repeats an acknowledgement it
// already gave, moves nothing on; one that asks for the list or the next
// entry, accepts a file, acknowledges more written chunks of the file
// being sent or refuses an entry does. The owner ends a session without progress for its limit.
//
// THREADING CONTRACT: as ForwardingTransport. `onProgress` runs on the
// inner transport's delivery thread, before the handler hears the message.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>

#include "xferfm/host/ForwardingTransport.h"

namespace orin::xfer::host {

class ProgressWatchingLink final : public ForwardingTransport {
public:
    ProgressWatchingLink(std::unique_ptr<ITransport> inner, std::function<void()> onProgress);
    ~ProgressWatchingLink() override;

    bool Send(Message message) override;

private:
    void OnMessage(Message message) override;
    bool MovesOn(const Message& message);

    const std::function<void()> mOnProgress;
    std::mutex mMutex;  // Send runs on the endpoint's threads, OnMessage on the delivery thread
    uint32_t mSending = 0;         // transfer id of the file announced last
    uint64_t mChunksWritten = 0;   // of that file, as last acknowledged
};

}  // namespace orin::xfer::host
