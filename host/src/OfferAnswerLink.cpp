// Works on the list as the link below has read it (FileListMessage::
// parsed); in a process where nothing read it yet, it is read here, once.
// Everything runs on the delivery thread before the endpoint hears the
// list, so the endpoint never sees a list whose answers are not yet sent.
#include "OfferAnswerLink.h"

#include <memory>
#include <set>

#include "HostLog.h"
#include "xferfm/host/FileList.h"
#include "xferfm/host/LandingNames.h"
#include "xferfm/host/RemoteNameGuard.h"
#include "xferfm/host/ResumeNote.h"

namespace orin::xfer::host {
namespace {

// The entries of `keep` (indexes into `list`), with the totals counted
// again; none when `keep` is empty.
std::shared_ptr<const ParsedFileList> KeptEntries(const ParsedFileList& list, const std::vector<uint64_t>& keep)
{
    auto kept = std::make_shared<ParsedFileList>();
    kept->entries.reserve(keep.size());
    for (const uint64_t index : keep) {
        const FileListEntry& entry = list.entries[static_cast<size_t>(index)];
        if (entry.isDirectory) {
            ++kept->directoryCount;
        } else {
            kept->totalFileBytes += entry.fileSize;
            ++kept->fileCount;
        }
        kept->entries.push_back(entry);
    }
    return kept;
}

}  // namespace

OfferAnswerLink::OfferAnswerLink(std::unique_ptr<ITransport> inner, std::string destinationDir)
    : ForwardingTransport(std::move(inner)), mDestination(std::move(destinationDir))
{
}

// The inner transport goes first: its deliveries use this object's members.
OfferAnswerLink::~OfferAnswerLink() { ReleaseInner(); }

bool OfferAnswerLink::Send(Message message)
{
    if (auto* request = std::get_if<NextFileRequest>(&message)) {
        std::lock_guard<std::mutex> lock(mMutex);
        if (!mReceivedIndex.empty()) {
            const uint64_t handedUp = mReceivedIndex.size();
            request->index = request->index < handedUp
                                 ? mReceivedIndex[static_cast<size_t>(request->index)]
                                 : handedUp + mAnswer.entriesComplete + (request->index - handedUp);
        }
    }
    return ForwardingTransport::Send(std::move(message));
}

OfferAnswerLink::Answer OfferAnswerLink::Answered() const
{
    std::lock_guard<std::mutex> lock(mMutex);
    return mAnswer;
}

std::map<std::string, std::string> OfferAnswerLink::ResumeNames() const
{
    std::lock_guard<std::mutex> lock(mMutex);
    return mResumeNames;
}

void OfferAnswerLink::OnMessage(Message message)
{
    if (const auto* options = std::get_if<OfferOptions>(&message)) {
        std::lock_guard<std::mutex> lock(mMutex);
        mOptions = *options;
        mAnswer.options = *options;
        return;  // the endpoint has no say in it
    }
    if (auto* list = std::get_if<FileListMessage>(&message)) {
        AnswerList(*list);
    }
    Handler().OnMessage(std::move(message));
}

void OfferAnswerLink::AnswerList(FileListMessage& list)
{
    OfferOptions options;
    {
        std::lock_guard<std::mutex> lock(mMutex);
        options = mOptions;
    }
    if (!options.dryRun && !options.resume) {
        return;
    }
    if (!list.parsed) {
        auto read = std::make_shared<ParsedFileList>();
        std::string error;
        if (!ParseFileList(list.json, *read, error)) {
            return;  // the endpoint rejects it and says why
        }
        list.parsed = std::move(read);
        std::string().swap(list.json);
    }
    const ParsedFileList& parsed = *list.parsed;
    std::vector<TopLevelEntry> topLevel;
    for (const FileListEntry& entry : parsed.entries) {
        if (entry.filePath.empty()) {
            topLevel.push_back({entry.fileName, entry.isDirectory});
        }
    }
    std::map<std::string, std::string> resumeNames =
        options.resume ? ChooseResumeNames(mDestination, topLevel, true) : std::map<std::string, std::string>{};
    // The guard checked each name's parents where it would land fresh; a
    // resumed entry lands elsewhere, so its parents there are checked too
    // (no symbolic link among them), or it does not resume.
    for (const FileListEntry& entry : parsed.entries) {
        const std::string name = entry.RequestName();
        const auto top = resumeNames.find(name.substr(0, name.find('/')));
        if (top == resumeNames.end()) {
            continue;
        }
        const size_t slash = name.find('/');
        const std::string there = top->second + (slash == std::string::npos ? "" : name.substr(slash));
        std::string refusal;
        if (!CheckDestinationParents(mDestination, there, refusal)) {
            HOST_LOG_W << "not resuming '" << top->first << "': " << refusal;
            resumeNames.erase(top);
        }
    }

    std::vector<TopLevelEntry> fresh;
    for (const TopLevelEntry& entry : topLevel) {
        if (resumeNames.count(entry.name) == 0) {
            fresh.push_back(entry);
        }
    }
    const std::vector<std::string> freshNames = PredictLandingNames(mDestination, fresh);
    std::vector<EntryLanding> landings;
    size_t nextFresh = 0;
    for (const TopLevelEntry& entry : topLevel) {
        const auto resumed = resumeNames.find(entry.name);
        if (resumed != resumeNames.end()) {
            landings.push_back({entry.name, resumed->second, true});
        } else {
            landings.push_back({entry.name, freshNames[nextFresh++], false});
        }
    }

    std::vector<std::string> complete;
    std::vector<uint64_t> keep;
    if (options.resume) {
        for (size_t index = 0; index < parsed.entries.size(); ++index) {
            const FileListEntry& entry = parsed.entries[index];
            const std::string name = entry.RequestName();
            const std::string there = entry.isDirectory ? "" : ResumedPath(mDestination, resumeNames, name);
            if (!there.empty() && entry.hasModified && IsCompleteCopy(there, entry.fileSize, entry.modified)) {
                complete.push_back(name);
            } else {
                keep.push_back(index);
            }
        }
    }

    for (const EntryLanding& landing : landings) {
        Inner().Send(landing);
    }
    for (const std::string& name : complete) {
        Inner().Send(EntryComplete{name});
    }
    if (options.dryRun) {
        list.parsed = KeptEntries(parsed, {});  // nothing to ask for, nothing to write
    } else if (!complete.empty()) {
        list.parsed = KeptEntries(parsed, keep);
    }
    HOST_LOG_D << "answered the offer: " << landings.size() << " top-level entries, " << complete.size()
               << " complete already" << (options.dryRun ? ", dry run" : "");

    std::lock_guard<std::mutex> lock(mMutex);
    mAnswer.landings = std::move(landings);
    mResumeNames = resumeNames;
    mAnswer.entriesComplete = complete.size();
    if (!options.dryRun && !complete.empty()) {
        mReceivedIndex = std::move(keep);
    }
}

}  // namespace orin::xfer::host
