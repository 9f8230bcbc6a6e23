// The sending side of OfferOptions: a transport wrapper that sends the
// options right before the file list (only when one is set, so a plain copy
// is unchanged on the wire) and takes the receiver's answers out of the
// stream before the endpoint sees them: each EntryLanding (where a
// top-level entry lands or would land) and each EntryComplete (an entry the
// receiver already has complete, which it will never ask for). It also
// notes each EntryRefused on its way to the endpoint, so its owner can tell
// a refused entry from one that was only passed over.
//
// THREADING CONTRACT: as ForwardingTransport. The callbacks run on the
// inner transport's delivery thread, before the endpoint hears what
// follows; they must be quick.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>

#include "xferfm/host/ForwardingTransport.h"

namespace orin::xfer::host {

class OfferOptionsLink final : public ForwardingTransport {
public:
    struct Callbacks {
        std::function<void(const EntryLanding&)> onLanding;
        std::function<void(const EntryComplete&)> onComplete;
        std::function<void(uint64_t index)> onRefused;
    };

    OfferOptionsLink(std::unique_ptr<ITransport> inner, OfferOptions options, Callbacks callbacks);
    ~OfferOptionsLink() override;

    bool Send(Message message) override;

private:
    void OnMessage(Message message) override;

    const OfferOptions mOptions;
    const Callbacks mCallbacks;
};

}  // namespace orin::xfer::host
