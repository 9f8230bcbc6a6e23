// The fixed texts of the goodbyes with a meaning are written and read here
// and nowhere else: the wire keeps carrying a Disconnect as a flag and a
// text (peers of this protocol version read them as text), and every
// other part of the kit and its hosts goes by DisconnectReason. A text is
// read as a kind only when it has the whole fixed form, numbers included;
// anything else is kFailed with its text.
#include "xferfm/host/TransportMessages.h"

#include <cctype>


namespace orin::xfer::host {

namespace {

// The reason a Disconnect carries when a user cancelled the copy.
constexpr const char* kCancelledReason = "cancelled";


struct NameOf {
    const char* operator()(const FileListRequest&) const { return "FileListRequest"; }
    const char* operator()(const FileListMessage&) const { return "FileList"; }
    const char* operator()(const NextFileRequest&) const { return "NextFileRequest"; }
    const char* operator()(const FileStart&) const { return "FileStart"; }
    const char* operator()(const FileAccept&) const { return "FileAccept"; }
    const char* operator()(const FileData&) const { return "FileData"; }
    const char* operator()(const DataAck&) const { return "DataAck"; }
    const char* operator()(const TransferError&) const { return "TransferError"; }
    const char* operator()(const EndOfList&) const { return "EndOfList"; }
    const char* operator()(const EntryRefused&) const { return "EntryRefused"; }
    const char* operator()(const OfferOptions&) const { return "OfferOptions"; }
    const char* operator()(const EntryLanding&) const { return "EntryLanding"; }
    const char* operator()(const EntryComplete&) const { return "EntryComplete"; }
    const char* operator()(const Disconnect&) const { return "Disconnect"; }
};

// "verified 3 files: SHA-256 of every copy matches its source"
constexpr const char* kVerifiedHead = "verified ";
constexpr const char* kVerifiedTail = " files: SHA-256 of every copy matches its source";
// "verify failed: 1 of 3 files differ from their source: DETAILS"
constexpr const char* kVerifyFailedHead = "verify failed: ";
constexpr const char* kVerifyFailedMiddle = " of ";
constexpr const char* kVerifyFailedTail = " files differ from their source: ";
// "xferfm serve is busy with another sender (session 4); try again when it is done"
constexpr const char* kBusyMiddle = " is busy with another sender (session ";
constexpr const char* kBusyTail = "); try again when it is done";

// Reads a text from left to right against its fixed form.
class TextCursor {
public:
    explicit TextCursor(const std::string& text) : mText(text) {}

    bool Literal(const std::string& expected)
    {
        if (mText.compare(mPos, expected.size(), expected) != 0) {
            return false;
        }
        mPos += expected.size();
        return true;
    }
    // Decimal digits, at least one, no sign, no overflow.
    bool Number(uint64_t& value)
    {
        const size_t start = mPos;
        value = 0;
        while (mPos < mText.size() && std::isdigit(static_cast<unsigned char>(mText[mPos])) != 0) {
            const uint64_t digit = static_cast<uint64_t>(mText[mPos] - '0');
            if (value > (UINT64_MAX - digit) / 10) {
                return false;
            }
            value = value * 10 + digit;
            ++mPos;
        }
        return mPos > start;
    }
    std::string Rest() const { return mText.substr(mPos); }
    bool AtEnd() const { return mPos == mText.size(); }

private:
    const std::string& mText;
    size_t mPos = 0;
};

std::optional<VerifyVerdict> VerdictIn(const std::string& text, bool completed)
{
    VerifyVerdict verdict;
    TextCursor verified(text);
    if (completed && verified.Literal(kVerifiedHead) && verified.Number(verdict.filesCompared) &&
        verified.Literal(kVerifiedTail) && verified.AtEnd()) {
        verdict.matched = true;
        return verdict;
    }
    TextCursor failed(text);
    if (!completed && failed.Literal(kVerifyFailedHead) && failed.Number(verdict.filesDiffering) &&
        failed.Literal(kVerifyFailedMiddle) && failed.Number(verdict.filesCompared) &&
        failed.Literal(kVerifyFailedTail)) {
        verdict.details = failed.Rest();
        return verdict;
    }
    return std::nullopt;
}

bool IsBusyText(const std::string& text)
{
    const size_t middle = text.find(kBusyMiddle);
    if (middle == std::string::npos || middle == 0) {
        return false;
    }
    TextCursor cursor(text);
    cursor.Literal(text.substr(0, middle));
    uint64_t session = 0;
    return cursor.Literal(kBusyMiddle) && cursor.Number(session) && cursor.Literal(kBusyTail) && cursor.AtEnd();
}

}  // namespace

const char* MessageName(const Message& message)
{
    return std::visit(NameOf{}, message);
}

const char* DisconnectReasonName(DisconnectReason reason)
{
    switch (reason) {
    case DisconnectReason::kCompleted: return "completed";
    case DisconnectReason::kVerified: return "verified";
    case DisconnectReason::kCancelled: return "cancelled";
    case DisconnectReason::kBusy: return "busy";
    case DisconnectReason::kVerifyFailed: return "verify-failed";
    case DisconnectReason::kFailed: return "failed";
    }
    return "?";
}

std::string VerifyVerdict::Text() const
{
    if (matched) {
        return kVerifiedHead + std::to_string(filesCompared) + kVerifiedTail;
    }
    return kVerifyFailedHead + std::to_string(filesDiffering) + kVerifyFailedMiddle + std::to_string(filesCompared) +
           kVerifyFailedTail + details;
}

DisconnectReason ReasonOf(const Disconnect& goodbye)
{
    if (const std::optional<VerifyVerdict> verdict = VerdictOf(goodbye)) {
        return verdict->matched ? DisconnectReason::kVerified : DisconnectReason::kVerifyFailed;
    }
    if (goodbye.completed) {
        return DisconnectReason::kCompleted;
    }
    if (goodbye.reason == kCancelledReason) {
        return DisconnectReason::kCancelled;
    }
    return IsBusyText(goodbye.reason) ? DisconnectReason::kBusy : DisconnectReason::kFailed;
}

std::optional<VerifyVerdict> VerdictOf(const Disconnect& goodbye)
{
    return VerdictIn(goodbye.reason, goodbye.completed);
}

std::optional<VerifyVerdict> VerdictOf(const TransferError& error)
{
    return VerdictIn(error.message, false);
}

Disconnect CancelledDisconnect()
{
    return Disconnect{false, kCancelledReason};
}

Disconnect BusyDisconnect(const std::string& server, unsigned session)
{
    return Disconnect{false, server + kBusyMiddle + std::to_string(session) + kBusyTail};
}

Disconnect VerdictDisconnect(const VerifyVerdict& verdict)
{
    return Disconnect{verdict.matched, verdict.Text()};
}

TransferError VerdictError(const VerifyVerdict& verdict)
{
    return TransferError{0, 0, verdict.Text()};
}

}  // namespace orin::xfer::host
