// A hand-written strict JSON reader for the one document the kit reads
// from a peer. Strings are decoded as JSON says (escapes, \u with surrogate
// pairs, a lone low surrogate kept as its three bytes for the name checks to
// refuse); raw bytes pass as they are. Numbers follow JSON's grammar; a
// number with a fraction or exponent counts as an integer only when its
// value is whole. Keys that are not a list entry's are skipped, with their
// values checked for syntax and depth.
#include "FileListReader.h"

#include <cmath>
#include <cstdlib>
#include <limits>

#include "FileTransferTypes.h"
#include "StrictJson.h"

namespace orin::xfer::host::detail {
namespace {

constexpr uint32_t kPermissionBits = 07777;
constexpr long kNanosecondsPerSecond = 1000000000L;

struct Number {
    bool integer = false;  // no fraction or exponent, and it fits 64 bits
    bool negative = false;
    uint64_t magnitude = 0;
    double value = 0;

    bool AsUnsigned(uint64_t max, uint64_t& out) const
    {
        if (integer) {
            if (negative && magnitude != 0) {
                return false;
            }
            out = magnitude;
            return out <= max;
        }
        // 2^64 is exact as a double; anything from there up does not fit.
        if (!(value >= 0 && value < 18446744073709551616.0) || std::floor(value) != value) {
            return false;
        }
        out = static_cast<uint64_t>(value);
        return out <= max;
    }

    bool AsSigned(int64_t& out) const
    {
        if (integer) {
            if (negative) {
                if (magnitude > uint64_t{1} << 63) {
                    return false;
                }
                out = magnitude == uint64_t{1} << 63 ? std::numeric_limits<int64_t>::min()
                                                      : -static_cast<int64_t>(magnitude);
                return true;
            }
            if (magnitude > static_cast<uint64_t>(std::numeric_limits<int64_t>::max())) {
                return false;
            }
            out = static_cast<int64_t>(magnitude);
            return true;
        }
        if (!(value >= -9223372036854775808.0 && value < 9223372036854775808.0) || std::floor(value) != value) {
            return false;
        }
        out = static_cast<int64_t>(value);
        return true;
    }
};

// What a known key of an entry held.
struct Field {
    enum class Kind { kAbsent, kString, kNumber, kOther } kind = Kind::kAbsent;
    std::string text;
    Number number;
};

class Reader {
public:
    Reader(const std::string& json, const FileListLimits& limits) : mText(json), mLimits(limits) {}

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
    bool syntax(const std::string& what, std::string& error) const
    {
        error = "the file list is not valid JSON: " + what + " at byte " + std::to_string(mAt);
        return false;
    }

    void skipSpace()
    {
        while (mAt < mText.size()) {
            const char c = mText[mAt];
            if (c != ' ' && c != '\t' && c != '\n' && c != '\r') {
                return;
            }
            ++mAt;
        }
    }

    bool atEnd(std::string& error)
    {
        skipSpace();
        return mAt == mText.size() || syntax("text after the end of the list", error);
    }

    bool take(char expected, std::string& error)
    {
        skipSpace();
        if (mAt < mText.size() && mText[mAt] == expected) {
            ++mAt;
            return true;
        }
        return syntax(std::string("'") + expected + "' expected", error);
    }

    bool peek(char expected)
    {
        skipSpace();
        return mAt < mText.size() && mText[mAt] == expected;
    }

    static int hexValue(char c)
    {
        if (c >= '0' && c <= '9') {
            return c - '0';
        }
        if (c >= 'a' && c <= 'f') {
            return c - 'a' + 10;
        }
        if (c >= 'A' && c <= 'F') {
            return c - 'A' + 10;
        }
        return -1;
    }

    bool readHex4(uint32_t& out)
    {
        if (mText.size() - mAt < 4) {
            return false;
        }
        out = 0;
        for (int i = 0; i < 4; ++i) {
            const int digit = hexValue(mText[mAt + static_cast<size_t>(i)]);
            if (digit < 0) {
                return false;
            }
            out = out * 16 + static_cast<uint32_t>(digit);
        }
        mAt += 4;
        return true;
    }

    static void appendUtf8(uint32_t point, std::string& out)
    {
        if (point < 0x80) {
            out += static_cast<char>(point);
        } else if (point < 0x800) {
            out += static_cast<char>(0xC0 | (point >> 6));
            out += static_cast<char>(0x80 | (point & 0x3F));
        } else if (point < 0x10000) {
            out += static_cast<char>(0xE0 | (point >> 12));
            out += static_cast<char>(0x80 | ((point >> 6) & 0x3F));
            out += static_cast<char>(0x80 | (point & 0x3F));
        } else {
            out += static_cast<char>(0xF0 | (point >> 18));
            out += static_cast<char>(0x80 | ((point >> 12) & 0x3F));
            out += static_cast<char>(0x80 | ((point >> 6) & 0x3F));
            out += static_cast<char>(0x80 | (point & 0x3F));
        }
    }

    // At a '"'; leaves mAt after the closing quote.
    bool readString(std::string& out, std::string& error)
    {
        out.clear();
        ++mAt;
        while (true) {
            const size_t plain = mText.find_first_of("\"\\", mAt);
            if (plain == std::string::npos) {
                mAt = mText.size();
                return syntax("a string is not closed", error);
            }
            out.append(mText, mAt, plain - mAt);
            mAt = plain + 1;
            if (mText[plain] == '"') {
                return true;
            }
            if (mAt >= mText.size()) {
                return syntax("a string is not closed", error);
            }
            const char escape = mText[mAt++];
            switch (escape) {
            case '"': out += '"'; break;
            case '\\': out += '\\'; break;
            case '/': out += '/'; break;
            case 'b': out += '\b'; break;
            case 'f': out += '\f'; break;
            case 'n': out += '\n'; break;
            case 'r': out += '\r'; break;
            case 't': out += '\t'; break;
            case 'u': {
                uint32_t point = 0;
                if (!readHex4(point)) {
                    return syntax("a bad \\u escape", error);
                }
                if (point >= 0xD800 && point <= 0xDBFF) {
                    uint32_t low = 0;
                    if (mText.compare(mAt, 2, "\\u") != 0 || (mAt += 2, !readHex4(low)) || low < 0xDC00 ||
                        low > 0xDFFF) {
                        return syntax("a surrogate pair without its second half", error);
                    }
                    point = 0x10000 + ((point & 0x3FF) << 10) + (low & 0x3FF);
                }
                appendUtf8(point, out);
                break;
            }
            default:
                return syntax("a bad escape in a string", error);
            }
        }
    }

    bool skipString(std::string& error)
    {
        std::string ignored;
        return readString(ignored, error);
    }

    bool readNumber(Number& out, std::string& error)
    {
        const size_t start = mAt;
        if (mAt < mText.size() && mText[mAt] == '-') {
            out.negative = true;
            ++mAt;
        }
        const auto digits = [this] {
            const size_t from = mAt;
            while (mAt < mText.size() && mText[mAt] >= '0' && mText[mAt] <= '9') {
                ++mAt;
            }
            return mAt - from;
        };
        const size_t whole = digits();
        if (whole == 0) {
            return syntax("a bad number", error);
        }
        bool fraction = false;
        if (mAt < mText.size() && mText[mAt] == '.') {
            ++mAt;
            fraction = true;
            if (digits() == 0) {
                return syntax("a bad number", error);
            }
        }
        if (mAt < mText.size() && (mText[mAt] == 'e' || mText[mAt] == 'E')) {
            ++mAt;
            fraction = true;
            if (mAt < mText.size() && (mText[mAt] == '+' || mText[mAt] == '-')) {
                ++mAt;
            }
            if (digits() == 0) {
                return syntax("a bad number", error);
            }
        }
        const std::string text = mText.substr(start, mAt - start);
        out.integer = !fraction;
        if (out.integer) {
            const size_t first = out.negative ? 1 : 0;
            for (size_t i = first; i < text.size() && out.integer; ++i) {
                const uint64_t digit = static_cast<uint64_t>(text[i] - '0');
                if (out.magnitude > (std::numeric_limits<uint64_t>::max() - digit) / 10) {
                    out.integer = false;  // past 64 bits: kept as a double, like any large number
                } else {
                    out.magnitude = out.magnitude * 10 + digit;
                }
            }
        }
        out.value = std::strtod(text.c_str(), nullptr);
        return true;
    }

    bool readLiteral(const char* word, std::string& error)
    {
        const std::string literal(word);
        if (mText.compare(mAt, literal.size(), literal) != 0) {
            return syntax("an unexpected character", error);
        }
        mAt += literal.size();
        return true;
    }

    // Any value, checked and passed over.
    bool skipValue(int depth, std::string& error)
    {
        if (depth > kFileListDepthLimit) {
            error = "the file list cannot be read: nested deeper than " + std::to_string(kFileListDepthLimit) +
                    " levels";
            return false;
        }
        skipSpace();
        if (mAt >= mText.size()) {
            return syntax("a value is missing", error);
        }
        const char c = mText[mAt];
        if (c == '"') {
            return skipString(error);
        }
        if (c == '{' || c == '[') {
            const bool object = c == '{';
            const char close = object ? '}' : ']';
            ++mAt;
            std::vector<std::string> keys;
            if (peek(close)) {
                ++mAt;
                return true;
            }
            while (true) {
                if (object) {
                    skipSpace();
                    if (mAt >= mText.size() || mText[mAt] != '"') {
                        return syntax("a key expected", error);
                    }
                    std::string key;
                    if (!readString(key, error) || !uniqueKey(keys, std::move(key), error) || !take(':', error)) {
                        return false;
                    }
                }
                if (!skipValue(depth + 1, error)) {
                    return false;
                }
                if (peek(',')) {
                    ++mAt;
                    continue;
                }
                return take(close, error);
            }
        }
        if (c == '-' || (c >= '0' && c <= '9')) {
            Number ignored;
            return readNumber(ignored, error);
        }
        if (c == 't') {
            return readLiteral("true", error);
        }
        if (c == 'f') {
            return readLiteral("false", error);
        }
        if (c == 'n') {
            return readLiteral("null", error);
        }
        return syntax("an unexpected character", error);
    }

    bool uniqueKey(std::vector<std::string>& keys, std::string key, std::string& error)
    {
        for (const std::string& seen : keys) {
            if (seen == key) {
                mAt -= 1;
                return syntax("a duplicate key", error);
            }
        }
        keys.push_back(std::move(key));
        return true;
    }

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
        Number parts[2];
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
            skipSpace();
            if (mAt >= mText.size() || mText[mAt] != '"') {
                return syntax("a key expected", error);
            }
            std::string key;
            if (!readString(key, error) || !take(':', error)) {
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
            skipSpace();
            if (mAt >= mText.size() || mText[mAt] != '"') {
                return syntax("a key expected", error);
            }
            std::string key;
            if (!readString(key, error) || !take(':', error)) {
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

    const std::string& mText;
    const FileListLimits& mLimits;
    size_t mAt = 0;
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
