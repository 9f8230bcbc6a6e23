#include "DigestCheckingLink.h"

namespace orin::xfer::host {
namespace {

// At most this many differing files are named; the count says the rest.
constexpr size_t kProblemsNamed = 5;

VerifyVerdict VerdictOfCheck(const DigestCheck& check)
{
    VerifyVerdict verdict;
    verdict.matched = check.problems.empty();
    verdict.filesCompared = check.filesCompared;
    verdict.filesDiffering = check.problems.size();
    for (size_t index = 0; index < check.problems.size() && index < kProblemsNamed; ++index) {
        verdict.details += (index ? "; " : "") + check.problems[index];
    }
    if (check.problems.size() > kProblemsNamed) {
        verdict.details += "; ...";
    }
    return verdict;
}

}  // namespace

DigestCheckingLink::DigestCheckingLink(std::unique_ptr<ITransport> inner, Checker checker,
                                       std::function<void(const VerifyVerdict&)> onVerdict)
    : ForwardingTransport(std::move(inner)), mChecker(std::move(checker)), mOnVerdict(std::move(onVerdict))
{
}

// The inner transport goes first: its deliveries use this object's members.
DigestCheckingLink::~DigestCheckingLink() { ReleaseInner(); }

bool DigestCheckingLink::Send(Message message)
{
    const auto* goodbye = std::get_if<Disconnect>(&message);
    if (goodbye == nullptr || !goodbye->completed) {
        return Inner().Send(std::move(message));
    }
    FileDigests expected;
    {
        std::lock_guard<std::mutex> lock(mMutex);
        expected = mExpected;
    }
    if (expected.empty()) {
        return Inner().Send(std::move(message));
    }
    const VerifyVerdict verdict = VerdictOfCheck(mChecker(expected));
    if (mOnVerdict) {
        mOnVerdict(verdict);
    }
    if (!verdict.matched) {
        Inner().Send(VerdictError(verdict));
    }
    return Inner().Send(VerdictDisconnect(verdict));
}

void DigestCheckingLink::OnMessage(Message message)
{
    if (const auto* list = std::get_if<FileListMessage>(&message)) {
        // The receiving link in front has read the list already (one reading per session).
        FileDigests digests = list->parsed ? FileDigestsOf(*list->parsed) : FileDigestsOf(list->json);
        std::lock_guard<std::mutex> lock(mMutex);
        mExpected = std::move(digests);
    }
    Handler().OnMessage(std::move(message));
}

}  // namespace orin::xfer::host
