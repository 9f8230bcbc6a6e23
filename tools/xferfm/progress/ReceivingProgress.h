// Feeds a ProgressTracker from what a receiving endpoint reports: which
// file is being written, and the bytes written so far. Shared by the local
// copy and the pull over a remote shell.
//
// Why not OnFileStarted alone: the receiver asks for files ahead of the
// one being written, so OnFileStarted runs ahead of the data; the file
// progress is reported for is the one the data is for. The endpoint's
// callbacks never overlap, so no lock is needed.
#pragma once

#include <cstdint>
#include <string>

#include "ProgressTracker.h"
#include "xferfm/host/TransferObserver.h"

namespace xferfm::cli {

class ReceivingProgress : public orin::xfer::host::ReceiverObserver {
public:
    explicit ReceivingProgress(ProgressTracker& tracker) : mTracker(tracker) {}

    void OnFileStarted(const std::string& name, uint64_t) override
    {
        if (mWriting.empty()) {
            Writing(name);
        }
    }
    void OnProgress(const std::string& name, uint64_t, uint64_t, uint64_t totalBytesDone, uint64_t) override
    {
        if (name != mWriting) {
            Writing(name);
        }
        mTracker.setBytesDone(totalBytesDone);
    }

protected:
    ProgressTracker& Tracker() { return mTracker; }

private:
    void Writing(const std::string& name)
    {
        mWriting = name;
        mTracker.fileStarted(name);
    }

    ProgressTracker& mTracker;
    std::string mWriting;  // the file the last progress was for
};

}  // namespace xferfm::cli
