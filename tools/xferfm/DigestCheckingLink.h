// The receiving side of `send --verify`: a transport wrapper that keeps the
// digests a sender put in its file list and, when the receiver endpoint
// announces a completed copy, has every landed file checked against them
// before the sender hears the outcome:
//   all match   -> Disconnect{completed, "verified N files: ..."}
//   any differ  -> TransferError and Disconnect{not completed,
//                  "verify failed: ..."}
// A list without digests leaves every message as it is.
//
// Threading: as ITransport (host/include/xferfm/host/Transport.h). The
// checker runs inside Send, on the endpoint's session thread, after every
// file has landed; deliveries pass through on the inner transport's
// delivery thread.
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "RemoteVerdict.h"
#include "xferfm/host/FileListDigests.h"
#include "xferfm/host/ForwardingTransport.h"

namespace xferfm::cli {

struct DigestCheck {
    size_t filesCompared = 0;
    std::vector<std::string> problems;  // one per file that differs or is missing
};

class DigestCheckingLink final : public orin::xfer::host::ForwardingTransport {
public:
    using Checker = std::function<DigestCheck(const orin::xfer::host::FileDigests& expected)>;

    DigestCheckingLink(std::unique_ptr<orin::xfer::host::ITransport> inner, Checker checker,
                       std::shared_ptr<RemoteVerdict> verdict);
    ~DigestCheckingLink() override;
    DigestCheckingLink(const DigestCheckingLink&) = delete;
    DigestCheckingLink& operator=(const DigestCheckingLink&) = delete;

    bool Send(orin::xfer::host::Message message) override;

private:
    void OnMessage(orin::xfer::host::Message message) override;

    const Checker mChecker;
    const std::shared_ptr<RemoteVerdict> mVerdict;
    std::mutex mMutex;
    orin::xfer::host::FileDigests mExpected;
};

}  // namespace xferfm::cli
