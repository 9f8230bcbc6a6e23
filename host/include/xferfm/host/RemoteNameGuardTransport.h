// A transport wrapper for the receiving side of a network link: every name
// the sender sends (each entry of its file list, each announced file) goes
// through RemoteNameGuard before the ReceiverEndpoint behind it sees it.
//
// A list entry whose name is refused is taken out of the list, and so is
// every entry inside a refused directory (it would be created in it); the
// rest of the list goes on and is copied. For each refused entry the
// sender hears an EntryRefused (its index in the list as offered and the
// refusal, which names the entry and the rule) before anything is
// requested, and `onEntryRefused` is called. The endpoint behind the
// wrapper sees the list without the refused entries: the wrapper maps the
// index of each of its requests back to the list as offered, so the sender
// serves the right entry and passes over the refused ones. Nothing is
// written for a refused entry. A list that cannot be read is passed on
// untouched: the endpoint rejects it whole, with its own message. One list
// per session: a later one is dropped.
//
// An announcement (FileStart) with a refused name comes from a sender that
// announces something other than what was asked for: the whole session is
// refused then. The sender hears a TransferError and a Disconnect naming
// the name and the rule, the link is closed, and the endpoint behind the
// wrapper hears OnTransportClosed with the same text; `onRefused` is
// called first.
//
// THREADING CONTRACT: as ITransport (Transport.h). The wrapper delivers on
// the inner transport's delivery thread; `onRefused` (at most once) and
// `onEntryRefused` (once per refused entry, all of them before the
// endpoint sees the list) are called there too. Send may come from any
// thread; the index map it reads is set once, under a lock, before the
// endpoint sees the list.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "xferfm/host/FileList.h"
#include "xferfm/host/ForwardingTransport.h"

namespace orin::xfer::host {

// An entry of a sender's list that the receiving side does not copy.
struct RefusedEntry {
    uint64_t index = 0;  // in the list as the sender offered it
    std::string name;    // the request name as sent (may hold any byte: quote it before printing)
    std::string reason;  // names the entry (quoted) and the rule it broke
};

class RemoteNameGuardTransport final : public ForwardingTransport {
public:
    // `destinationRoot`: the receiver's destination directory, for the
    // symbolic-link check of each entry's parents.
    RemoteNameGuardTransport(std::unique_ptr<ITransport> inner, std::string destinationRoot,
                             FileListLimits listLimits = {},
                             std::function<void(const std::string& refusal)> onRefused = {},
                             std::function<void(const RefusedEntry& entry)> onEntryRefused = {});
    ~RemoteNameGuardTransport() override;
    RemoteNameGuardTransport(const RemoteNameGuardTransport&) = delete;
    RemoteNameGuardTransport& operator=(const RemoteNameGuardTransport&) = delete;

    bool Send(Message message) override;

private:
    void OnMessage(Message message) override;
    void OnTransportClosed(const std::string& reason) override;

    // Takes the refused entries out of a list on its way to the endpoint.
    void ScreenList(FileListMessage& list);
    // Ends the session over an announcement with a refused name.
    void Refuse(const std::string& refusal);

    const std::string mDestinationRoot;
    const FileListLimits mListLimits;
    const std::function<void(const std::string&)> mOnRefused;
    const std::function<void(const RefusedEntry&)> mOnEntryRefused;
    bool mRefused = false;   // delivery thread only
    bool mListSeen = false;  // delivery thread only

    std::mutex mMutex;  // guards the two below
    // With refused entries: the index in the offered list of each entry the
    // endpoint sees, and the length of the offered list.
    std::vector<uint64_t> mOfferedIndex;
    uint64_t mOfferedCount = 0;
};

}  // namespace orin::xfer::host
