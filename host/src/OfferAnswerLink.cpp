// The list is read twice: ParseFileList for the entries as the endpoint
// will see them, jsoncpp to write the list handed up (every key of an
// entry kept, digests and times included). Both run on the delivery
// thread before the endpoint hears the list, so the endpoint never sees a
// list whose answers are not yet sent.
#include "OfferAnswerLink.h"

#include <json/json.h>

#include <set>

#include "FileListTimes.h"
#include "HostLog.h"
#include "xferfm/host/FileList.h"
#include "xferfm/host/LandingNames.h"
#include "xferfm/host/RemoteNameGuard.h"
#include "xferfm/host/ResumeNote.h"

namespace orin::xfer::host {
namespace {

// `json` with only the entries of `keep` (indexes) in its "fileList", or
// with none when `keep` is empty. False when the list cannot be read (the
// endpoint then rejects it in its own words).
bool RewriteList(std::string& json, const std::vector<uint64_t>& keep)
{
    Json::Value document;
    Json::CharReaderBuilder reader;
    std::string errors;
    const std::unique_ptr<Json::CharReader> parser(reader.newCharReader());
    if (!parser->parse(json.data(), json.data() + json.size(), &document, &errors) || !document.isObject() ||
        !document["fileList"].isArray()) {
        return false;
    }
    Json::Value kept(Json::arrayValue);
    for (const uint64_t index : keep) {
        kept.append(document["fileList"][static_cast<Json::ArrayIndex>(index)]);
    }
    document["fileList"] = kept;
    Json::StreamWriterBuilder writer;
    writer["indentation"] = "";
    json = Json::writeString(writer, document);
    return true;
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
    ParsedFileList parsed;
    std::string error;
    if (!ParseFileList(list.json, parsed, error)) {
        return;  // the endpoint rejects it and says why
    }
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
        const detail::ModificationTimes times = detail::ReadModificationTimes(list.json);
        for (size_t index = 0; index < parsed.entries.size(); ++index) {
            const FileListEntry& entry = parsed.entries[index];
            const std::string name = entry.RequestName();
            const std::string there = entry.isDirectory ? "" : ResumedPath(mDestination, resumeNames, name);
            const auto time = times.find(name);
            if (!there.empty() && time != times.end() && IsCompleteCopy(there, entry.fileSize, time->second)) {
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
        RewriteList(list.json, {});  // nothing to ask for, nothing to write
    } else if (!complete.empty() && !RewriteList(list.json, keep)) {
        keep.clear();  // unreadable after all: the endpoint rejects it
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
