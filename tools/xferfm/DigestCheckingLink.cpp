#include "DigestCheckingLink.h"

namespace xferfm::cli {
namespace {

namespace host = orin::xfer::host;

// At most this many differing files are named; the count says the rest.
constexpr size_t kProblemsNamed = 5;

std::string failureText(const DigestCheck& check)
{
    std::string text = kVerifyFailedPrefix + std::to_string(check.problems.size()) + " of " +
                       std::to_string(check.filesCompared) + " files differ from their source: ";
    for (size_t index = 0; index < check.problems.size() && index < kProblemsNamed; ++index) {
        text += (index ? "; " : "") + check.problems[index];
    }
    if (check.problems.size() > kProblemsNamed) {
        text += "; ...";
    }
    return text;
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
    const DigestCheck check = mChecker(expected);
    if (check.problems.empty()) {
        const std::string text = kVerifiedPrefix + std::to_string(check.filesCompared) +
                                 " files: SHA-256 of every copy matches its source";
        mVerdict->set(RemoteVerdict::State::kVerified, text);
        return Inner().Send(host::Disconnect{true, text});
    }
    const std::string text = failureText(check);
    mVerdict->set(RemoteVerdict::State::kFailed, text);
    Inner().Send(host::TransferError{0, 0, text});
    return Inner().Send(host::Disconnect{false, text});
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
