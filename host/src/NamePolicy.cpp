// Checks and maps names one component at a time. Mapping runs three steps
// in a fixed order (characters, reserved base name, trailing run) and
// MapBack runs their inverses in the opposite order, each looking only at
// the place its forward step writes to, so the two compose to the identity
// on every name that did not already hold a substitute at such a place.
#include "xferfm/host/NamePolicy.h"

#include <cstdint>
#include <unordered_map>

#include "xferfm/host/RemoteNameGuard.h"

namespace orin::xfer::host {

namespace {

constexpr char kWindowsForbidden[] = "<>:\"|?*\\";
constexpr uint32_t kFullWidthOffset = 0xFF00 - 0x20;  // '!'..'~' -> U+FF01..U+FF5E
constexpr uint32_t kControlPictures = 0x2400;         // 1..31 -> U+2401..U+241F
constexpr uint32_t kFullWidthStop = 0xFF0E;           // a trailing '.'
constexpr uint32_t kIdeographicSpace = 0x3000;        // a trailing ' '

bool IsWindowsForbidden(char c)
{
    for (const char* p = kWindowsForbidden; *p != '\0'; ++p) {
        if (*p == c) {
            return true;
        }
    }
    return false;
}

bool IsControl(char c)
{
    const auto byte = static_cast<unsigned char>(c);
    return byte >= 1 && byte < 0x20;
}

void AppendUtf8(std::string& out, uint32_t code)
{
    if (code < 0x80) {
        out += static_cast<char>(code);
    } else if (code < 0x800) {
        out += static_cast<char>(0xC0 | (code >> 6));
        out += static_cast<char>(0x80 | (code & 0x3F));
    } else {
        out += static_cast<char>(0xE0 | (code >> 12));
        out += static_cast<char>(0x80 | ((code >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (code & 0x3F));
    }
}

// One character of a component: its code point and its bytes. A byte that
// does not start a well-formed sequence stands for itself (code 0xFFFFFFFF).
struct Char {
    uint32_t code = 0;
    std::string bytes;
};

std::vector<Char> Decode(const std::string& text)
{
    std::vector<Char> out;
    size_t i = 0;
    while (i < text.size()) {
        const auto lead = static_cast<unsigned char>(text[i]);
        size_t length = lead < 0x80 ? 1 : (lead >> 5) == 0x6 ? 2 : (lead >> 4) == 0xE ? 3 : (lead >> 3) == 0x1E ? 4 : 0;
        if (length > 1 && i + length <= text.size() && IsValidUtf8(text.substr(i, length))) {
            uint32_t code = lead & (0xFF >> (length + 1));
            for (size_t k = 1; k < length; ++k) {
                code = (code << 6) | (static_cast<unsigned char>(text[i + k]) & 0x3F);
            }
            out.push_back({code, text.substr(i, length)});
        } else {
            length = 1;
            out.push_back({lead < 0x80 ? lead : 0xFFFFFFFFu, text.substr(i, 1)});
        }
        i += length;
    }
    return out;
}

std::string Encode(const std::vector<Char>& chars)
{
    std::string out;
    for (const Char& c : chars) {
        out += c.bytes;
    }
    return out;
}

Char FromCode(uint32_t code)
{
    Char c;
    c.code = code;
    AppendUtf8(c.bytes, code);
    return c;
}

// The UTF-16 length Windows would count (an undecodable byte as one unit).
size_t Utf16Length(const std::string& text)
{
    size_t units = 0;
    for (const Char& c : Decode(text)) {
        units += (c.code != 0xFFFFFFFFu && c.code >= 0x10000) ? 2 : 1;
    }
    return units;
}

char AsciiLower(char c)
{
    return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c;
}

bool IsReservedBase(const std::string& base)
{
    std::string lower;
    for (char c : base) {
        lower += AsciiLower(c);
    }
    if (lower == "con" || lower == "prn" || lower == "aux" || lower == "nul") {
        return true;
    }
    return lower.size() == 4 && (lower.compare(0, 3, "com") == 0 || lower.compare(0, 3, "lpt") == 0) &&
           lower[3] >= '1' && lower[3] <= '9';
}

// Index of the last character of the base name (before the first '.',
// spaces before it left out), or npos when it is empty.
size_t LastOfBase(const std::vector<Char>& chars)
{
    size_t end = 0;
    while (end < chars.size() && chars[end].code != '.') {
        ++end;
    }
    while (end > 0 && chars[end - 1].code == ' ') {
        --end;
    }
    return end == 0 ? std::string::npos : end - 1;
}

std::string BaseText(const std::vector<Char>& chars, size_t last)
{
    std::vector<Char> base(chars.begin(), chars.begin() + static_cast<std::ptrdiff_t>(last + 1));
    return Encode(base);
}

struct ComponentResult {
    NameProblem problem = NameProblem::kNone;
    std::string mapped;
};

ComponentResult CheckComponent(const std::string& component, bool windowsRules)
{
    ComponentResult result;
    auto note = [&result](NameProblem problem) {
        if (result.problem == NameProblem::kNone) {
            result.problem = problem;
        }
    };
    if (component.empty() || component == "." || component == "..") {
        note(NameProblem::kEmpty);
        return result;
    }
    if (component.find('\0') != std::string::npos) {
        note(NameProblem::kNulCharacter);
        return result;
    }
    if (!windowsRules) {
        result.mapped = component;
        return result;
    }
    std::vector<Char> chars = Decode(component);
    for (Char& c : chars) {
        if (c.code < 0x80 && IsControl(static_cast<char>(c.code))) {
            note(NameProblem::kControlCharacter);
            c = FromCode(kControlPictures + c.code);
        } else if (c.code < 0x80 && IsWindowsForbidden(static_cast<char>(c.code))) {
            note(NameProblem::kForbiddenCharacter);
            c = FromCode(kFullWidthOffset + c.code);
        }
    }
    const size_t last = LastOfBase(chars);
    if (last != std::string::npos && IsReservedBase(BaseText(chars, last))) {
        note(NameProblem::kReservedName);
        chars[last] = FromCode(kFullWidthOffset + chars[last].code);
    }
    for (size_t i = chars.size(); i > 0 && (chars[i - 1].code == '.' || chars[i - 1].code == ' '); --i) {
        note(NameProblem::kTrailingDotOrSpace);
        chars[i - 1] = FromCode(chars[i - 1].code == '.' ? kFullWidthStop : kIdeographicSpace);
    }
    result.mapped = Encode(chars);
    return result;
}

std::string MapBackComponent(const std::string& component)
{
    std::vector<Char> chars = Decode(component);
    for (size_t i = chars.size(); i > 0 && (chars[i - 1].code == kFullWidthStop || chars[i - 1].code == kIdeographicSpace);
         --i) {
        chars[i - 1] = FromCode(chars[i - 1].code == kFullWidthStop ? '.' : ' ');
    }
    const size_t last = LastOfBase(chars);
    if (last != std::string::npos && chars[last].code > kFullWidthOffset + 0x20 && chars[last].code <= 0xFF5E) {
        std::vector<Char> candidate = chars;
        candidate[last] = FromCode(chars[last].code - kFullWidthOffset);
        if (IsReservedBase(BaseText(candidate, last))) {
            chars = std::move(candidate);
        }
    }
    for (Char& c : chars) {
        if (c.code > kControlPictures && c.code < kControlPictures + 0x20) {
            c = FromCode(c.code - kControlPictures);
        } else if (c.code > kFullWidthOffset + 0x20 && c.code <= 0xFF5E &&
                   IsWindowsForbidden(static_cast<char>(c.code - kFullWidthOffset))) {
            c = FromCode(c.code - kFullWidthOffset);
        }
    }
    return Encode(chars);
}

std::vector<std::string> SplitPath(const std::string& path)
{
    std::vector<std::string> parts;
    size_t start = 0;
    while (true) {
        const size_t slash = path.find('/', start);
        parts.push_back(path.substr(start, slash == std::string::npos ? std::string::npos : slash - start));
        if (slash == std::string::npos) {
            return parts;
        }
        start = slash + 1;
    }
}

const char* RuleText(NameProblem problem)
{
    switch (problem) {
    case NameProblem::kNone: return "";
    case NameProblem::kEmpty: return "is empty, \".\" or \"..\"";
    case NameProblem::kNulCharacter: return "holds a NUL character";
    case NameProblem::kForbiddenCharacter: return "holds a character Windows forbids (< > : \" | ? * \\)";
    case NameProblem::kControlCharacter: return "holds a control character Windows forbids";
    case NameProblem::kReservedName: return "is a device name Windows reserves";
    case NameProblem::kTrailingDotOrSpace: return "ends in a dot or a space, which Windows drops";
    case NameProblem::kTooLong: return "is longer than a Windows path may be";
    case NameProblem::kCaseClash: return "differs from another name only in case";
    }
    return "";
}

}  // namespace

const char* NameProblemName(NameProblem problem)
{
    switch (problem) {
    case NameProblem::kNone: return "none";
    case NameProblem::kEmpty: return "empty component";
    case NameProblem::kNulCharacter: return "NUL character";
    case NameProblem::kForbiddenCharacter: return "forbidden character";
    case NameProblem::kControlCharacter: return "control character";
    case NameProblem::kReservedName: return "reserved name";
    case NameProblem::kTrailingDotOrSpace: return "trailing dot or space";
    case NameProblem::kTooLong: return "path too long";
    case NameProblem::kCaseClash: return "case clash";
    }
    return "unknown";
}

NamePolicy::NamePolicy(NamePolicyOptions options) : mOptions(options) {}

NamePolicy::NamePolicy(NameTarget target, NameAction action) : mOptions()
{
    mOptions.target = target;
    mOptions.action = action;
}

NameCheck NamePolicy::Check(const std::string& relativePath) const
{
    const bool windowsRules = mOptions.target != NameTarget::kPosix;
    NameCheck check;
    auto fail = [&check, &relativePath](NameProblem problem, const std::string& component) {
        check.ok = false;
        check.mapped.clear();
        check.reason = problem;
        check.message = QuoteRemoteName(relativePath) + ": " +
                        (component == relativePath ? std::string("the name ")
                                                   : "component " + QuoteRemoteName(component) + " ") +
                        RuleText(problem);
        return check;
    };
    std::string mapped;
    for (const std::string& component : SplitPath(relativePath)) {
        ComponentResult result = CheckComponent(component, windowsRules);
        if (result.problem != NameProblem::kNone && check.reason == NameProblem::kNone) {
            const bool mappable = result.problem != NameProblem::kEmpty && result.problem != NameProblem::kNulCharacter;
            if (!mappable || mOptions.action == NameAction::kRefuse) {
                return fail(result.problem, component);
            }
            check.reason = result.problem;
            check.message = QuoteRemoteName(relativePath) + ": component " + QuoteRemoteName(component) + " " +
                            RuleText(result.problem) + "; mapped to " + QuoteRemoteName(result.mapped);
        } else if (result.problem == NameProblem::kEmpty || result.problem == NameProblem::kNulCharacter) {
            return fail(result.problem, component);
        }
        mapped += (mapped.empty() ? "" : "/") + result.mapped;
    }
    if (windowsRules &&
        mOptions.destinationPrefixLength + Utf16Length(mapped) + 1 > mOptions.maxPathLength) {
        return fail(NameProblem::kTooLong, relativePath);
    }
    check.ok = true;
    check.mapped = std::move(mapped);
    return check;
}

std::string NamePolicy::MapBack(const std::string& mappedPath) const
{
    std::string out;
    bool first = true;
    for (const std::string& component : SplitPath(mappedPath)) {
        out += (first ? "" : "/") + MapBackComponent(component);
        first = false;
    }
    return out;
}

std::vector<NameClash> NamePolicy::FindClashes(const std::vector<std::string>& relativePaths) const
{
    const bool foldCase = mOptions.target != NameTarget::kPosix;
    std::vector<NameClash> clashes;
    std::unordered_map<std::string, size_t> firstOf;
    for (size_t i = 0; i < relativePaths.size(); ++i) {
        const NameCheck check = Check(relativePaths[i]);
        if (!check.ok) {
            continue;
        }
        std::string key = check.mapped;
        if (foldCase) {
            for (char& c : key) {
                c = AsciiLower(c);
            }
        }
        const auto [it, inserted] = firstOf.emplace(key, i);
        if (!inserted) {
            clashes.push_back({it->second, i, check.mapped});
        }
    }
    return clashes;
}

}  // namespace orin::xfer::host
