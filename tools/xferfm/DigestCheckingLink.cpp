#include "DigestCheckingLink.h"

namespace xferfm::cli {
namespace {

namespace host = orin::xfer::host;

// At most this many differing files are named; the count says the rest.
constexpr size_t kProblemsNamed = 5;

host::VerifyVerdict verdictOf(const DigestCheck& check)
{
    host::VerifyVerdict verdict;
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

DigestCheckingLink::DigestCheckingLink(std::unique_ptr<host::ITransport> inner, Checker checker,
                                       std::shared_ptr<RemoteVerdict> verdict)
    : ForwardingTransport(std::move(inner)), mChecker(std::move(checker)), mVerdict(std::move(verdict))
{
}

// The inner transport goes first: its deliveries use this object's members.
DigestCheckingLink::~DigestCheckingLink() { ReleaseInner(); }

bool DigestCheckingLink::Send(host::Message message)
{
    const auto* goodbye = std::get_if<host::Disconnect>(&message);
    if (goodbye == nullptr || !goodbye->completed) {
        return Inner().Send(std::move(message));
    }
    host::FileDigests expected;
    {
        std::lock_guard<std::mutex> lock(mMutex);
        expected = mExpected;
    }
    if (expected.empty()) {
        return Inner().Send(std::move(message));
    }
    const host::VerifyVerdict verdict = verdictOf(mChecker(expected));
    mVerdict->set(verdict.matched ? RemoteVerdict::State::kVerified : RemoteVerdict::State::kFailed, verdict.Text());
    if (!verdict.matched) {
        Inner().Send(host::VerdictError(verdict));
    }
    return Inner().Send(host::VerdictDisconnect(verdict));
}

void DigestCheckingLink::OnMessage(host::Message message)
{
    if (const auto* list = std::get_if<host::FileListMessage>(&message)) {
        host::FileDigests digests = host::FileDigestsOf(list->json);
        std::lock_guard<std::mutex> lock(mMutex);
        mExpected = std::move(digests);
    }
    Handler().OnMessage(std::move(message));
}

}  // namespace xferfm::cli
