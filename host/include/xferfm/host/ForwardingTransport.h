// The base of every transport wrapper: a transport that sits on an inner
// transport and passes everything through, both ways. A wrapper derives
// from it and overrides only the calls whose messages it changes, reads or
// holds back; what it does not override is forwarded unchanged.
//
//   outgoing  Send / Close           -> the inner transport
//   incoming  OnMessage / OnTransportClosed (from the inner transport)
//                                    -> the handler given to Start
//
// Data travels as ordinary FileData messages through Send and OnMessage
// (the defaults of SendData and OnData), so a wrapper sees every message.
//
// THREADING CONTRACT
// 1. As ITransport (Transport.h): Start once, by the owner; Send and Close
//    from any thread. The incoming calls run on the inner transport's
//    delivery thread, and a wrapper that forwards them does so there.
// 2. Handler() is valid from Start on; Inner() for the wrapper's lifetime.
//    A wrapper may send through Inner() from its incoming calls (to answer
//    the peer without the handler seeing it).
// 3. Lifetime: the inner transport is destroyed first, so that no delivery
//    reaches a half-destroyed wrapper. A wrapper whose incoming calls use
//    its own members calls ReleaseInner() first thing in its destructor
//    (those members are gone before this base's destructor runs).
#pragma once

#include <memory>
#include <string>

#include "xferfm/host/Transport.h"

namespace orin::xfer::host {

class ForwardingTransport : public ITransport, protected ITransportHandler {
public:
    explicit ForwardingTransport(std::unique_ptr<ITransport> inner);
    ~ForwardingTransport() override;
    ForwardingTransport(const ForwardingTransport&) = delete;
    ForwardingTransport& operator=(const ForwardingTransport&) = delete;

    void Start(ITransportHandler& handler) override;
    bool Send(Message message) override;
    void Close() override;

protected:
    void OnMessage(Message message) override;
    void OnTransportClosed(const std::string& reason) override;

    ITransport& Inner() { return *mInner; }
    ITransportHandler& Handler() { return *mHandler; }
    // Destroys the inner transport: no incoming call runs after it returns.
    // Idempotent; only from the destructor of a derived class.
    void ReleaseInner() { mInner.reset(); }

private:
    std::unique_ptr<ITransport> mInner;
    ITransportHandler* mHandler = nullptr;
};

}  // namespace orin::xfer::host
