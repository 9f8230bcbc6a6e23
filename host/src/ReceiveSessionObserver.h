// What the receiving endpoint reports during one network session, kept
// for the session's outcome (ReceiveSession.cpp) and passed on to the host.
#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "xferfm/host/ReceiverEndpoint.h"
#include "xferfm/host/RemoteNameGuardTransport.h"
#include "xferfm/host/TransferObserver.h"

namespace orin::xfer::host::detail {

// What the receiving endpoint reports during one session.
// Progress is what the endpoint reports about files: a request, written
// bytes, a completion. Frames that move nothing (keepalives, repeated
// acknowledgements, empty data) never count, so a peer cannot hold the
// receiver by chattering.
// Everything it hears is passed on to the host's own endpoint observer,
// when it gave one (progress for a command line, say).
class SessionObserver final : public ReceiverObserver {
public:
    using Clock = std::chrono::steady_clock;

    // `host` (may be null) hears everything; `onFileLanded` each file under
    // its final path, on the endpoint's thread.
    SessionObserver(ReceiverObserver* host, std::function<void(const std::string&, const std::string&)> onFileLanded)
        : mHost(host), mOnFileLanded(std::move(onFileLanded))
    {
    }

    void OnListReceived(size_t entryCount, uint64_t totalBytes) override
    {
        {
            std::lock_guard<std::mutex> lock(mMutex);
            mListReceived = true;
            mLastProgress = Clock::now();
        }
        if (mHost != nullptr) {
            mHost->OnListReceived(entryCount, totalBytes);
        }
    }
    void OnFileStarted(const std::string& name, uint64_t fileSize) override
    {
        NoteProgress();
        if (mHost != nullptr) {
            mHost->OnFileStarted(name, fileSize);
        }
    }
    void OnProgress(const std::string& name, uint64_t fileBytesDone, uint64_t fileSize, uint64_t totalBytesDone,
                    uint64_t totalBytes) override
    {
        NoteProgress();
        if (mHost != nullptr) {
            mHost->OnProgress(name, fileBytesDone, fileSize, totalBytesDone, totalBytes);
        }
    }
    void OnFileCompleted(const std::string& name, const std::string& finalPath) override
    {
        Record(name, finalPath);
        mOnFileLanded(name, finalPath);
        if (mHost != nullptr) {
            mHost->OnFileCompleted(name, finalPath);
        }
    }
    void OnDirectoryCreated(const std::string& name, const std::string& finalPath) override
    {
        Record(name, finalPath);
        if (mHost != nullptr) {
            mHost->OnDirectoryCreated(name, finalPath);
        }
    }
    void OnFailure(const std::string& path, const std::string& message) override
    {
        {
            std::lock_guard<std::mutex> lock(mMutex);
            if (mFailure.empty()) {
                mFailure = message;
            }
        }
        if (mHost != nullptr) {
            mHost->OnFailure(path, message);
        }
    }
    void OnFinished(const TransferSummary& summary) override
    {
        if (mHost != nullptr) {
            mHost->OnFinished(summary);
        }
    }
    // The endpoint's own name rules: before any file is asked for.
    void OnNameRefused(size_t index, const std::string& name, const std::string& reason) override
    {
        {
            std::lock_guard<std::mutex> lock(mMutex);
            mRefusedNames.insert(name);
        }
        if (mOnRefused) {
            mOnRefused(RefusedEntry{index, name, reason});
        }
        if (mHost != nullptr) {
            mHost->OnNameRefused(index, name, reason);
        }
    }
    void OnNameMapped(const std::string& name, const std::string& mapped) override
    {
        {
            std::lock_guard<std::mutex> lock(mMutex);
            mMappedNames[name] = mapped;
        }
        if (mHost != nullptr) {
            mHost->OnNameMapped(name, mapped);
        }
    }
    void SetOnRefused(std::function<void(const RefusedEntry&)> onRefused) { mOnRefused = std::move(onRefused); }

    // An entry the name rules refused, or one inside it (not expected to arrive).
    bool RefusedByName(const std::string& name) const
    {
        std::lock_guard<std::mutex> lock(mMutex);
        for (size_t end = name.find('/');; end = name.find('/', end + 1)) {
            if (mRefusedNames.count(name.substr(0, end)) != 0) {
                return true;
            }
            if (end == std::string::npos) {
                return false;
            }
        }
    }

    bool ListReceived() const
    {
        std::lock_guard<std::mutex> lock(mMutex);
        return mListReceived;
    }
    Clock::time_point LastProgress() const
    {
        std::lock_guard<std::mutex> lock(mMutex);
        return mLastProgress;
    }
    std::string Failure() const
    {
        std::lock_guard<std::mutex> lock(mMutex);
        return mFailure;
    }
    std::optional<std::string> FinalPathOf(const std::string& name) const
    {
        std::lock_guard<std::mutex> lock(mMutex);
        const auto found = mFinalPaths.find(name);
        return found == mFinalPaths.end() ? std::nullopt : std::optional<std::string>(found->second);
    }
    // Each top-level entry that landed, by name -> its final path.
    std::map<std::string, std::string> TopLevelLanded() const
    {
        std::lock_guard<std::mutex> lock(mMutex);
        std::map<std::string, std::string> landed;
        for (const auto& [name, finalPath] : mFinalPaths) {
            if (name.find('/') == std::string::npos) {
                landed[name] = finalPath;
            }
        }
        return landed;
    }
    // Each top-level name that was taken in the destination, by name.
    std::vector<std::pair<std::string, std::string>> Renamed() const
    {
        std::lock_guard<std::mutex> lock(mMutex);
        std::vector<std::pair<std::string, std::string>> renamed;
        for (const auto& [name, finalPath] : mFinalPaths) {
            const std::string landed = finalPath.substr(finalPath.find_last_of('/') + 1);
            const auto mapped = mMappedNames.find(name);  // a mapped name is not a clash
            const std::string& wanted = mapped != mMappedNames.end() ? mapped->second : name;
            if (name.find('/') == std::string::npos && landed != wanted) {
                renamed.emplace_back(name, landed);
            }
        }
        return renamed;
    }

private:
    void Record(const std::string& name, const std::string& finalPath)
    {
        std::lock_guard<std::mutex> lock(mMutex);
        mFinalPaths[name] = finalPath;
        mLastProgress = Clock::now();
    }
    void NoteProgress()
    {
        std::lock_guard<std::mutex> lock(mMutex);
        mLastProgress = Clock::now();
    }

    ReceiverObserver* const mHost;
    const std::function<void(const std::string&, const std::string&)> mOnFileLanded;
    mutable std::mutex mMutex;
    bool mListReceived = false;
    Clock::time_point mLastProgress = Clock::now();
    std::string mFailure;
    std::map<std::string, std::string> mFinalPaths;
    std::set<std::string> mRefusedNames;               // by the endpoint's name rules
    std::map<std::string, std::string> mMappedNames;  // request name -> mapped request name
    std::function<void(const RefusedEntry&)> mOnRefused;  // set before the endpoint starts
};

}  // namespace orin::xfer::host::detail
