// A hand-written strict JSON reader for the one document the kit reads
// from a peer, over the lexical cursor of JsonCursor.h. Keys that are not a
// list entry's are skipped, with their values checked for syntax and depth.
#include "FileListReader.h"

#include <limits>

#include "FileTransferTypes.h"
#include "JsonCursor.h"
#include "StrictJson.h"

namespace orin::xfer::host::detail {
namespace {

constexpr uint32_t kPermissionBits = 07777;
constexpr long kNanosecondsPerSecond = 1000000000L;

// What a known key of an entry held.
struct Field {
    enum class Kind { kAbsent, kString, kNumber, kOther } kind = Kind::kAbsent;
    std::string text;
    JsonNumber number;
};

class Reader : private JsonCursor {
public:
    Reader(const std::string& json, const FileListLimits& limits) : JsonCursor(json), mLimits(limits) {}

    bool Read(const EntrySink& sink, std::string& error)
    {
        skipSpace();
        if (mAt >= mText.size()) {
            return syntax("the text holds no value", error);
        }
        if (mText[mAt] != '{') {
            if (!skipValue(1, error)) {
                return false;
            }
            if (!atEnd(error)) {
                return false;
            }
            error = "the file list is not a JSON object";
            return false;
        }
        if (!readRoot(sink, error)) {
            return false;
        }
        return atEnd(error);
    }

private:
    // A value for a known key: kept by its kind.
    bool readField(Field& field, std::string& error)
    {
        skipSpace();
        if (mAt < mText.size() && mText[mAt] == '"') {
            field.kind = Field::Kind::kString;
            return readString(field.text, error);
        }
        if (mAt < mText.size() && (mText[mAt] == '-' || (mText[mAt] >= '0' && mText[mAt] <= '9'))) {
            field.kind = Field::Kind::kNumber;
            return readNumber(field.number, error);
        }
        field.kind = Field::Kind::kOther;
        return skipValue(4, error);
    }

    // "mtime": [seconds, nanoseconds]; anything else is read and left out.
    bool readTime(ReadEntry& read, std::string& error)
    {
        read.hasTime = true;
        skipSpace();
        if (mAt >= mText.size() || mText[mAt] != '[') {
            return skipValue(4, error);
        }
        ++mAt;
        JsonNumber parts[2];
        size_t count = 0;
        bool numbers = true;
        if (!peek(']')) {
            while (true) {
                skipSpace();
                const bool number =
                    mAt < mText.size() && (mText[mAt] == '-' || (mText[mAt] >= '0' && mText[mAt] <= '9'));
                if (number && count < 2) {
                    if (!readNumber(parts[count], error)) {
                        return false;
                    }
                } else {
                    numbers = false;
                    if (!skipValue(5, error)) {
                        return false;
                    }
                }
                ++count;
                if (!peek(',')) {
                    break;
                }
                ++mAt;
            }
        }
        if (!take(']', error)) {
            return false;
        }
        int64_t seconds = 0;
        int64_t nanoseconds = 0;
        if (numbers && count == 2 && parts[0].AsSigned(seconds) && parts[1].AsSigned(nanoseconds) &&
            nanoseconds >= 0 && nanoseconds < kNanosecondsPerSecond) {
            read.entry.hasModified = true;
            read.entry.modified.tv_sec = static_cast<time_t>(seconds);
            read.entry.modified.tv_nsec = static_cast<long>(nanoseconds);
        }
        return true;
    }

    static bool isHexDigest(const std::string& text)
    {
        return text.size() == 64 && text.find_first_not_of("0123456789abcdef") == std::string::npos;
    }

    // At an entry's '{'.
    bool readEntry(ReadEntry& read, std::string& error)
    {
        static const char* const kKeys[] = {"filePath", "fileName", "attribute", "mode", "fileSize"};
        Field fields[5];
        Field digest;
        std::vector<std::string> keys;
        ++mAt;
        read.empty = peek('}');
        while (!read.empty) {
            std::string key;
            if (!readKey(key, error)) {
                return false;
            }
            size_t known = 0;
            while (known < 5 && key != kKeys[known]) {
                ++known;
            }
            const bool time = key == "mtime";
            const bool sha = key == "sha256";
            if (!uniqueKey(keys, std::move(key), error)) {
                return false;
            }
            bool ok = true;
            if (known < 5) {
                ok = readField(fields[known], error);
            } else if (time) {
                ok = readTime(read, error);
            } else if (sha) {
                read.hasDigest = true;
                ok = readField(digest, error);
            } else {
                ok = skipValue(4, error);
            }
            if (!ok) {
                return false;
            }
            if (!peek(',')) {
                break;
            }
            ++mAt;
        }
        skipSpace();
        read.closeAt = mAt;
        if (!take('}', error)) {
            return false;
        }
        read.problem = entryProblem(fields, read.entry);
        if (read.problem.empty() && digest.kind == Field::Kind::kString && isHexDigest(digest.text)) {
            read.entry.sha256 = std::move(digest.text);
        }
        return true;
    }

    // The first thing wrong with an entry's keys and types, in a fixed order.
    static std::string entryProblem(Field (&fields)[5], FileListEntry& entry)
    {
        static const char* const kKeys[] = {"filePath", "fileName", "attribute", "mode", "fileSize"};
        for (size_t i = 0; i < 5; ++i) {
            if (fields[i].kind == Field::Kind::kAbsent) {
                return std::string("lacks \"") + kKeys[i] + "\"";
            }
        }
        if (fields[0].kind != Field::Kind::kString || fields[1].kind != Field::Kind::kString) {
            return "has a \"filePath\" or \"fileName\" that is not a string";
        }
        uint64_t attribute = 0;
        uint64_t mode = 0;
        if (fields[2].kind != Field::Kind::kNumber ||
            !fields[2].number.AsUnsigned(std::numeric_limits<uint32_t>::max(), attribute)) {
            return "has an \"attribute\" that is not a 32-bit unsigned integer";
        }
        if (fields[3].kind != Field::Kind::kNumber ||
            !fields[3].number.AsUnsigned(std::numeric_limits<uint32_t>::max(), mode)) {
            return "has a \"mode\" that is not a 32-bit unsigned integer";
        }
        if (fields[4].kind != Field::Kind::kNumber ||
            !fields[4].number.AsUnsigned(std::numeric_limits<uint64_t>::max(), entry.fileSize)) {
            return "has a \"fileSize\" that is not an unsigned integer";
        }
        entry.filePath = std::move(fields[0].text);
        entry.fileName = std::move(fields[1].text);
        entry.isDirectory = (attribute & kAttributeDirectory) != 0;
        entry.mode = static_cast<uint32_t>(mode) & kPermissionBits;
        return {};
    }

    bool readList(const EntrySink& sink, std::string& error)
    {
        skipSpace();
        if (mAt >= mText.size() || mText[mAt] != '[') {
            if (!skipValue(2, error)) {
                return false;
            }
            error = "the file list's \"fileList\" is not an array";
            return false;
        }
        ++mAt;
        if (peek(']')) {
            ++mAt;
            return true;
        }
        for (size_t index = 0;; ++index) {
            if (index >= mLimits.maxEntries) {
                error = "the file list has more than " + std::to_string(mLimits.maxEntries) + " entries";
                return false;
            }
            skipSpace();
            ReadEntry read;
            read.index = index;
            read.openAt = mAt;
            if (mAt < mText.size() && mText[mAt] == '{') {
                if (!readEntry(read, error)) {
                    return false;
                }
            } else {
                if (!skipValue(3, error)) {
                    return false;
                }
                read.problem = "is not an object";
            }
            if (!sink(read, error)) {
                return false;
            }
            if (!peek(',')) {
                break;
            }
            ++mAt;
        }
        return take(']', error);
    }

    bool readRoot(const EntrySink& sink, std::string& error)
    {
        ++mAt;
        std::vector<std::string> keys;
        if (peek('}')) {
            ++mAt;
            return true;
        }
        while (true) {
            std::string key;
            if (!readKey(key, error)) {
                return false;
            }
            const bool list = key == "fileList";
            const bool root = key == "root";
            if (!uniqueKey(keys, std::move(key), error)) {
                return false;
            }
            if (list) {
                if (!readList(sink, error)) {
                    return false;
                }
            } else if (root) {
                skipSpace();
                if (mAt >= mText.size() || mText[mAt] != '"') {
                    if (skipValue(2, error)) {
                        error = "the file list's \"root\" is not a string";
                    }
                    return false;
                }
                if (!skipString(error)) {
                    return false;
                }
            } else if (!skipValue(2, error)) {
                return false;
            }
            if (!peek(',')) {
                break;
            }
            ++mAt;
        }
        return take('}', error);
    }

    const FileListLimits& mLimits;
};

}  // namespace

bool ReadFileListText(const std::string& json, const FileListLimits& limits, const EntrySink& sink,
                      std::string& error, size_t* entriesHint)
{
    error.clear();
    if (json.size() > limits.maxJsonBytes) {
        error = "the file list is larger than " + std::to_string(limits.maxJsonBytes) + " bytes";
        return false;
    }
    if (const size_t slash = SlashOutsideStrings(json); slash != std::string::npos) {
        error = "the file list is not valid JSON: a comment at byte " + std::to_string(slash) +
                " (the list is strict JSON)";
        return false;
    }
    if (std::string shape = ListShapeProblem(json, entriesHint); !shape.empty()) {
        error = "the file list is not valid JSON: " + shape;
        return false;
    }
    try {
        return Reader(json, limits).Read(sink, error);
    } catch (const std::exception& failure) {
        error = std::string("the file list cannot be read: ") + failure.what();  // out of memory, among others
        return false;
    }
}

bool AddKeyToEntries(std::string& json, const KeyForEntry& keyFor, std::string& error)
{
    // Where each addition goes, found first: the text is copied once.
    std::vector<std::pair<size_t, std::string>> additions;
    size_t extra = 0;
    const EntrySink sink = [&](ReadEntry& read, std::string&) {
        std::string key = keyFor(read);
        if (!key.empty()) {
            if (!read.empty) {
                key.insert(key.begin(), ',');
            }
            extra += key.size();
            additions.emplace_back(read.closeAt, std::move(key));
        }
        return true;
    };
    FileListLimits unlimited;  // the sender's own list: the receiver applies the limits
    unlimited.maxJsonBytes = std::numeric_limits<size_t>::max();
    unlimited.maxEntries = std::numeric_limits<size_t>::max();
    if (!ReadFileListText(json, unlimited, sink, error)) {
        return false;
    }
    if (additions.empty()) {
        return true;
    }
    std::string out;
    out.reserve(json.size() + extra);
    size_t copied = 0;
    for (const auto& [at, key] : additions) {
        out.append(json, copied, at - copied);
        out += key;
        copied = at;
    }
    out.append(json, copied, std::string::npos);
    json = std::move(out);
    return true;
}

}  // namespace orin::xfer::host::detail
