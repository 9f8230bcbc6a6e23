// The receiving side of OfferOptions (docs/protocol.md): a transport
// wrapper above the name guard, so it sees the list with the refused
// entries already taken out. When the sender asked for a dry run or a
// resume, it answers the list before the endpoint sees it:
// - an EntryLanding for each top-level entry: the name it lands under, by
//   the engine's duplicate-name rule (PredictLandingNames) or, resuming,
//   the name the interrupted copy gave it, as the destination's note says
//   (ResumeNote.h; never a name the note does not give, and never through a
//   symbolic link);
// - resuming, an EntryComplete for each file already there with the
//   listed size and modification time; such files are taken out of the
//   list the endpoint gets (requests are mapped back to the list as
//   received), and ResumeNames() tells the endpoint which top-level names
//   continue (ReceiverOptions::resumeNamesFromLink);
// - a dry run hands the endpoint an empty list: it asks for nothing,
//   writes nothing and ends the session as complete.
// Without OfferOptions it passes everything through.
//
// THREADING CONTRACT: as ForwardingTransport. Send may come from any
// thread; Answered and ResumeNames from any thread (the latter from the
// endpoint's list handling, after this link has answered the list).
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "xferfm/host/ForwardingTransport.h"

namespace orin::xfer::host {

class OfferAnswerLink final : public ForwardingTransport {
public:
    // What the session was asked and answered.
    struct Answer {
        OfferOptions options;
        std::vector<EntryLanding> landings;  // one per top-level entry, when asked
        uint64_t entriesComplete = 0;        // resuming: files kept and not asked for
    };

    OfferAnswerLink(std::unique_ptr<ITransport> inner, std::string destinationDir);
    ~OfferAnswerLink() override;

    bool Send(Message message) override;
    Answer Answered() const;
    std::map<std::string, std::string> ResumeNames() const;

private:
    void OnMessage(Message message) override;
    void AnswerList(FileListMessage& list);

    const std::string mDestination;
    mutable std::mutex mMutex;  // guards the members below
    OfferOptions mOptions;
    Answer mAnswer;
    std::map<std::string, std::string> mResumeNames;
    // Index in the list handed up -> index in the list as received; empty
    // while they are the same.
    std::vector<uint64_t> mReceivedIndex;
};

}  // namespace orin::xfer::host
