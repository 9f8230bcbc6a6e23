// The lexical half of the kit's strict JSON reading (FileListReader): a
// cursor over the text that reads strings (escapes, \u with surrogate
// pairs, a lone low surrogate kept as its three bytes for the name checks
// to refuse; raw bytes pass as they are), numbers (JSON's grammar; one
// with a fraction or exponent counts as an integer only when its value is
// whole) and literals, and passes over whole values, checking their syntax,
// their depth and that no object repeats a key. Errors say what and at
// which byte.
//
// THREADING CONTRACT: one cursor belongs to one reading, on one thread.
#pragma once

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <string>
#include <vector>

#include "StrictJson.h"

namespace orin::xfer::host::detail {

struct JsonNumber {
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

class JsonCursor {
public:
    explicit JsonCursor(const std::string& text) : mText(text) {}

protected:
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

    // An object's key and the ':' after it.
    bool readKey(std::string& key, std::string& error)
    {
        skipSpace();
        if (mAt >= mText.size() || mText[mAt] != '"') {
            return syntax("a key expected", error);
        }
        return readString(key, error) && take(':', error);
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

    bool readNumber(JsonNumber& out, std::string& error)
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
            JsonNumber ignored;
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

    const std::string& mText;
    size_t mAt = 0;
};

}  // namespace orin::xfer::host::detail
