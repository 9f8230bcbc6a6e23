#include "ListRequestVersionCheck.h"

namespace orin::xfer::host {

ListRequestVersionCheck::ListRequestVersionCheck(std::unique_ptr<ITransport> inner)
    : ForwardingTransport(std::move(inner))
{
}

// The inner transport goes first: its deliveries use this object's members.
ListRequestVersionCheck::~ListRequestVersionCheck() { ReleaseInner(); }

void ListRequestVersionCheck::OnMessage(Message message)
{
    if (mRefused) {
        return;
    }
    if (const auto* request = std::get_if<FileListRequest>(&message);
        request != nullptr && request->protocolVersion != kProtocolVersion) {
        mRefused = true;
        const std::string reason = "the receiver asks for the list with protocol version " +
                                   std::to_string(request->protocolVersion) + ", this end speaks " +
                                   std::to_string(kProtocolVersion);
        Inner().Send(Disconnect{false, reason});
        Inner().Close();
        Handler().OnTransportClosed(reason);
        return;
    }
    Handler().OnMessage(std::move(message));
}

void ListRequestVersionCheck::OnTransportClosed(const std::string& reason)
{
    if (!mRefused) {  // the handler has heard why already
        Handler().OnTransportClosed(reason);
    }
}

}  // namespace orin::xfer::host
