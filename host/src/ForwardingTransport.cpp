#include "xferfm/host/ForwardingTransport.h"

#include <utility>

namespace orin::xfer::host {

ForwardingTransport::ForwardingTransport(std::unique_ptr<ITransport> inner) : mInner(std::move(inner)) {}

ForwardingTransport::~ForwardingTransport() { ReleaseInner(); }

void ForwardingTransport::Start(ITransportHandler& handler)
{
    mHandler = &handler;
    mInner->Start(*this);
}

bool ForwardingTransport::Send(Message message) { return mInner->Send(std::move(message)); }

void ForwardingTransport::Close() { mInner->Close(); }

void ForwardingTransport::OnMessage(Message message) { mHandler->OnMessage(std::move(message)); }

void ForwardingTransport::OnTransportClosed(const std::string& reason) { mHandler->OnTransportClosed(reason); }

}  // namespace orin::xfer::host
