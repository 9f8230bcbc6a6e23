#include "xferfm/host/FileList.h"

#include <algorithm>
#include <exception>
#include <functional>
#include <limits>
#include <memory>
#include <sstream>
#include <unordered_set>

#include "FileTransferTypes.h"
#include "FileListReader.h"
#include "StrictJson.h"
#include "xferfm/host/RemoteNameGuard.h"

namespace orin::xfer::host {

namespace {

constexpr uint32_t kPermissionBits = 07777;

// Names in error messages, with control bytes made visible-safe.
std::string printable(const std::string& text)
{
    std::string out;
    out.reserve(text.size());
    for (const char c : text) {
        out += (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) ? '?' : c;
    }
    return out;
}

std::string describe(size_t index, const std::string& name)
{
    std::ostringstream text;
    text << "file list entry " << index;
    if (!name.empty()) {
        text << " (\"" << printable(name) << "\")";
    }
    return text.str();
}

// Empty when the component is acceptable, else the reason.
std::string componentProblem(const std::string& component, const FileListLimits& limits)
{
    if (component.empty()) {
        return "has an empty path component";
    }
    if (component == "." || component == "..") {
        return "has a \".\" or \"..\" path component";
    }
    if (component.size() > limits.maxNameBytes) {
        return "has a path component longer than " + std::to_string(limits.maxNameBytes) + " bytes";
    }
    if (component.find('\0') != std::string::npos) {
        return "has a NUL byte in its name";
    }
    return {};
}

std::string pathProblem(const std::string& filePath, const FileListLimits& limits, size_t& depth)
{
    depth = 0;
    if (filePath.empty()) {
        return {};
    }
    size_t start = 0;
    while (true) {
        const size_t slash = filePath.find('/', start);
        const std::string component =
            filePath.substr(start, slash == std::string::npos ? std::string::npos : slash - start);
        std::string problem = componentProblem(component, limits);
        if (!problem.empty()) {
            return problem;
        }
        ++depth;
        if (slash == std::string::npos) {
            return {};
        }
        start = slash + 1;
    }
}

// True when `entry`'s request name is `name`, without building it.
bool NameIs(const FileListEntry& entry, const std::string& name)
{
    if (entry.filePath.empty()) {
        return entry.fileName == name;
    }
    const size_t path = entry.filePath.size();
    return name.size() == path + 1 + entry.fileName.size() && name.compare(0, path, entry.filePath) == 0 &&
           name[path] == '/' && name.compare(path + 1, std::string::npos, entry.fileName) == 0;
}

const char* KindOf(const FileListEntry& entry) { return entry.isDirectory ? "a directory" : "a file"; }

// What becomes of an entry the rules do not accept.
enum class Verdict {
    kAccepted,
    kConflict,  // its name clashes with an entry before it: refused alone when screening
    kMalformed, // the list is wrong as a whole
};

// The rules about names and order, entry by entry, over the entries kept
// so far. Names are found through an open-addressing table of indices into
// the kept entries (4 bytes a slot, at most half full), so the check costs
// no copy of any name.
class ListChecker {
public:
    ListChecker(const FileListLimits& limits, ParsedFileList& out) : mLimits(limits), mOut(out) { grow(0); }

    // Room for `expected` entries at once, so neither the entries nor the
    // table are copied while they grow.
    void Reserve(size_t expected)
    {
        mOut.entries.reserve(expected);
        grow(expected);
    }

    Verdict Add(FileListEntry& entry, const std::string& name, std::string& problem)
    {
        size_t depth = 0;
        problem = entry.fileName.find('/') != std::string::npos ? "has a \"/\" in its file name"
                                                                 : componentProblem(entry.fileName, mLimits);
        if (problem.empty()) {
            problem = pathProblem(entry.filePath, mLimits, depth);
        }
        if (problem.empty() && name.size() > mLimits.maxPathBytes) {
            problem = "has a path longer than " + std::to_string(mLimits.maxPathBytes) + " bytes";
        }
        if (problem.empty() && depth + 1 > mLimits.maxDepth) {
            problem = "is nested deeper than " + std::to_string(mLimits.maxDepth) + " levels";
        }
        if (!problem.empty()) {
            return Verdict::kMalformed;
        }
        if (!entry.filePath.empty()) {
            const size_t parent = find(entry.filePath);
            if (parent == kNone) {
                problem = "is not under a directory listed before it";
                return Verdict::kMalformed;
            }
            if (!mOut.entries[parent].isDirectory) {
                problem = "is inside \"" + printable(entry.filePath) + "\", which the list announces as a file";
                return Verdict::kConflict;
            }
        }
        if (const size_t before = find(name); before != kNone) {
            const FileListEntry& first = mOut.entries[before];
            problem = "repeats a name listed before: the list announces \"" + printable(name) + "\" first as " +
                      KindOf(first) + ", then again as " + KindOf(entry);
            return Verdict::kConflict;
        }
        if (!entry.isDirectory && entry.fileSize > std::numeric_limits<uint64_t>::max() - mOut.totalFileBytes) {
            problem = "makes the total size overflow";
            return Verdict::kMalformed;
        }
        if (entry.isDirectory) {
            ++mOut.directoryCount;
        } else {
            mOut.totalFileBytes += entry.fileSize;
            ++mOut.fileCount;
        }
        mOut.entries.push_back(std::move(entry));
        if (mOut.entries.size() * 2 > mSlots.size()) {
            grow(mOut.entries.size());
        } else {
            insert(mOut.entries.size() - 1, name);
        }
        return Verdict::kAccepted;
    }

private:
    static constexpr size_t kNone = static_cast<size_t>(-1);

    size_t find(const std::string& name) const
    {
        const size_t mask = mSlots.size() - 1;
        for (size_t at = std::hash<std::string>{}(name) & mask;; at = (at + 1) & mask) {
            const uint32_t slot = mSlots[at];
            if (slot == 0) {
                return kNone;
            }
            if (NameIs(mOut.entries[slot - 1], name)) {
                return slot - 1;
            }
        }
    }

    void insert(size_t index, const std::string& name)
    {
        const size_t mask = mSlots.size() - 1;
        size_t at = std::hash<std::string>{}(name) & mask;
        while (mSlots[at] != 0) {
            at = (at + 1) & mask;
        }
        mSlots[at] = static_cast<uint32_t>(index + 1);
    }

    // Room for twice `count` entries, at least; every kept entry re-placed.
    void grow(size_t count)
    {
        size_t size = 64;
        while (size < count * 4) {
            size *= 2;
        }
        if (size <= mSlots.size()) {
            return;
        }
        mSlots.assign(size, 0);
        for (size_t index = 0; index < mOut.entries.size(); ++index) {
            insert(index, mOut.entries[index].RequestName());
        }
    }

    const FileListLimits& mLimits;
    ParsedFileList& mOut;
    std::vector<uint32_t> mSlots;
};

bool parseEntries(const std::string& json, const FileListLimits& limits, const detail::EntryRefusal& refuse,
                  ParsedFileList& out, std::vector<RefusedEntry>& refused, std::vector<uint64_t>& keptIndices,
                  std::string& error)
{
    size_t expected = 0;  // set by the reader before the first entry
    ListChecker checker(limits, out);
    std::unordered_set<std::string> refusedDirectories;
    std::vector<uint64_t> kept;
    const bool screening = static_cast<bool>(refuse);
    const auto sink = [&](detail::ReadEntry& read, std::string& failure) {
        if (read.index == 0) {
            checker.Reserve(std::min(expected, limits.maxEntries));
        }
        if (!read.problem.empty()) {
            failure = describe(read.index, "") + " " + read.problem;
            return false;
        }
        FileListEntry& entry = read.entry;
        const std::string name = entry.RequestName();
        std::string refusal;
        if (screening) {
            if (!entry.filePath.empty() && refusedDirectories.count(entry.filePath) != 0) {
                refusal = "refused remote name " + QuoteRemoteName(name) + ": it lies inside the refused directory " +
                          QuoteRemoteName(entry.filePath);
            } else {
                refusal = refuse(read.index, entry);
            }
        }
        if (refusal.empty()) {
            std::string problem;
            switch (checker.Add(entry, name, problem)) {
            case Verdict::kAccepted:
                if (screening) {
                    kept.push_back(read.index);
                }
                return true;
            case Verdict::kConflict:
                if (screening) {
                    refusal = "refused remote name " + QuoteRemoteName(name) + ": it " + problem;
                    break;
                }
                [[fallthrough]];
            case Verdict::kMalformed:
                failure = describe(read.index, name) + " " + problem;
                return false;
            }
        }
        if (entry.isDirectory) {
            refusedDirectories.insert(name);
        }
        refused.push_back(RefusedEntry{read.index, name, std::move(refusal)});
        return true;
    };
    if (!detail::ReadFileListText(json, limits, sink, error, &expected)) {
        return false;
    }
    if (!refused.empty()) {
        keptIndices = std::move(kept);
    }
    out.entries.shrink_to_fit();
    return true;
}

}  // namespace

std::string FileListEntry::RequestName() const
{
    return filePath.empty() ? fileName : filePath + "/" + fileName;
}

bool ParseFileList(const std::string& json, ParsedFileList& out, std::string& error, const FileListLimits& limits)
{
    std::vector<RefusedEntry> refused;
    std::vector<uint64_t> keptIndices;
    return detail::ParseScreenedFileList(json, limits, {}, out, refused, keptIndices, error);
}

namespace detail {

bool ParseScreenedFileList(const std::string& json, const FileListLimits& limits, const EntryRefusal& refuse,
                           ParsedFileList& out, std::vector<RefusedEntry>& refused,
                           std::vector<uint64_t>& keptIndices, std::string& error)
{
    out = ParsedFileList{};
    refused.clear();
    keptIndices.clear();
    error.clear();
    bool accepted = false;
    try {
        accepted = parseEntries(json, limits, refuse, out, refused, keptIndices, error);
    } catch (const std::exception& failure) {
        error = std::string("the file list cannot be read: ") + printable(failure.what());
        accepted = false;
    }
    if (!accepted) {
        out = ParsedFileList{};
        refused.clear();
        keptIndices.clear();
        if (error.empty()) {
            error = "the file list is malformed";
        }
    }
    return accepted;
}

}  // namespace detail

}  // namespace orin::xfer::host
