// The sender and receiver handles behind the C interface's opaque pointers,
// shared by the files that implement their functions (CApiEndpoints.cpp:
// create, offer, start, wait, summary, destroy; CApiVerifyNames.cpp:
// verification and name rules).
// - The observer is declared before the endpoint in each handle, and the
//   verdict before both, so they outlive the endpoint (members are
//   destroyed in reverse order), as the endpoints and their links require.
//
// THREADING CONTRACT: each handle guards its own state: `offered` and
// `verify` under offerMutex, `started` under startMutex, the verdict under
// its own lock; the endpoint is thread-safe.
#pragma once

#include <memory>
#include <mutex>
#include <optional>

#include "xferfm/host/ReceiverEndpoint.h"
#include "xferfm/host/SenderEndpoint.h"
#include "xferfm/host/TransportMessages.h"

namespace orin::xfer::host {
class DigestOfferingLink;
}

namespace orin::xfer::host::capi {

class CallbackSenderObserver;
class CallbackReceiverObserver;

// The verdict of a verified copy, written from a link's thread.
class VerdictBox {
public:
    void Set(const VerifyVerdict& verdict)
    {
        std::lock_guard<std::mutex> lock(mMutex);
        if (!mVerdict || !verdict.matched) {  // a failure is the last word
            mVerdict = verdict;
        }
    }
    std::optional<VerifyVerdict> Get() const
    {
        std::lock_guard<std::mutex> lock(mMutex);
        return mVerdict;
    }

private:
    mutable std::mutex mMutex;
    std::optional<VerifyVerdict> mVerdict;
};

}  // namespace orin::xfer::host::capi

struct xferfm_sender {
    std::shared_ptr<orin::xfer::host::capi::VerdictBox> verdict;                // outlives the endpoint
    std::unique_ptr<orin::xfer::host::capi::CallbackSenderObserver> observer;  // outlives the endpoint
    std::unique_ptr<orin::xfer::host::SenderEndpoint> endpoint;
    orin::xfer::host::DigestOfferingLink* digestLink = nullptr;  // owned by the endpoint
    std::mutex offerMutex;
    bool offered = false;
    bool verify = false;  // xferfm_sender_set_verify
};

struct xferfm_receiver {
    std::shared_ptr<orin::xfer::host::capi::VerdictBox> verdict;                  // outlives the endpoint
    std::unique_ptr<orin::xfer::host::capi::CallbackReceiverObserver> observer;  // outlives the endpoint
    std::unique_ptr<orin::xfer::host::ReceiverEndpoint> endpoint;
    std::mutex startMutex;
    bool started = false;
};
