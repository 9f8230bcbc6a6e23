// The receiving side of a verified copy: a transport wrapper that keeps the
// digests a sender put in its file list and, when the receiver endpoint
// announces a completed copy, has every landed file checked against them
// before the sender hears the verdict (TransportMessages.h):
//   all match   -> VerdictDisconnect (reason kVerified)
//   any differ  -> VerdictError, then VerdictDisconnect (kVerifyFailed)
// A list without digests leaves every message as it is.
//
// THREADING CONTRACT: as ForwardingTransport. The checker and `onVerdict`
// run inside Send, on the endpoint's session thread, after every file has
// landed; deliveries pass through on the inner transport's delivery thread.
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "xferfm/host/FileListDigests.h"
#include "xferfm/host/ForwardingTransport.h"

namespace orin::xfer::host {

struct DigestCheck {
    size_t filesCompared = 0;
    std::vector<std::string> problems;  // one per file that differs or is missing
};

class DigestCheckingLink final : public ForwardingTransport {
public:
    using Checker = std::function<DigestCheck(const FileDigests& expected)>;

    DigestCheckingLink(std::unique_ptr<ITransport> inner, Checker checker,
                       std::function<void(const VerifyVerdict&)> onVerdict);
    ~DigestCheckingLink() override;

    bool Send(Message message) override;

private:
    void OnMessage(Message message) override;

    const Checker mChecker;
    const std::function<void(const VerifyVerdict&)> mOnVerdict;
    std::mutex mMutex;
    FileDigests mExpected;
};

}  // namespace orin::xfer::host
