// A transport wrapper for the receiving side of a network link: every name
// the sender sends (each entry of its file list, each announced file) goes
// through RemoteNameGuard before the ReceiverEndpoint behind it sees it.
//
// A list holding a name that is refused never reaches the endpoint, so no
// engine call is made and nothing is written for any of its entries: the
// sender hears a TransferError and a Disconnect naming the refused entry
// and the rule, the link is closed, and the endpoint behind the wrapper
// hears OnTransportClosed with the same text. (The sender's engine sends
// entries strictly in list order, so a single entry cannot be skipped.)
// A list that does not parse is passed on untouched: the endpoint rejects
// it with its own message.
//
// THREADING CONTRACT: as ITransport (Transport.h). The wrapper delivers on
// the inner transport's delivery thread; `onRefused` is called there too,
// at most once, before the endpoint hears of the refusal.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "xferfm/host/FileList.h"
#include "xferfm/host/Transport.h"

namespace orin::xfer::host {

class RemoteNameGuardTransport final : public ITransport, private ITransportHandler {
public:
    // `destinationRoot`: the receiver's destination directory, for the
    // symbolic-link check of each entry's parents.
    RemoteNameGuardTransport(std::unique_ptr<ITransport> inner, std::string destinationRoot,
                             FileListLimits listLimits = {},
                             std::function<void(const std::string& refusal)> onRefused = {});
    ~RemoteNameGuardTransport() override;
    RemoteNameGuardTransport(const RemoteNameGuardTransport&) = delete;
    RemoteNameGuardTransport& operator=(const RemoteNameGuardTransport&) = delete;

    void Start(ITransportHandler& handler) override;
    bool Send(Message message) override;
    void Close() override;

private:
    void OnMessage(Message message) override;
    void OnTransportClosed(const std::string& reason) override;

    // The first refusal among the names of `message`, "" when all pass.
    std::string Refusal(const Message& message) const;
    void Refuse(const std::string& refusal);

    std::unique_ptr<ITransport> mInner;
    const std::string mDestinationRoot;
    const FileListLimits mListLimits;
    const std::function<void(const std::string&)> mOnRefused;
    ITransportHandler* mHandler = nullptr;
    bool mRefused = false;  // delivery thread only
};

}  // namespace orin::xfer::host
