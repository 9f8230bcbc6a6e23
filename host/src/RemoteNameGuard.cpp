#include "xferfm/host/RemoteNameGuard.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>

#include "xferfm/host/SystemErrorText.h"

namespace orin::xfer::host {
namespace {

// Length of the well-formed UTF-8 sequence starting at `at`, 0 if there is none.
size_t Utf8SequenceLength(const std::string& text, size_t at)
{
    const auto byte = [&](size_t index) { return static_cast<uint8_t>(text[index]); };
    const uint8_t lead = byte(at);
    if (lead < 0x80) {
        return 1;
    }
    size_t length = 0;
    uint32_t codePoint = 0;
    uint32_t smallest = 0;
    if ((lead & 0xE0) == 0xC0) {
        length = 2, codePoint = lead & 0x1F, smallest = 0x80;
    } else if ((lead & 0xF0) == 0xE0) {
        length = 3, codePoint = lead & 0x0F, smallest = 0x800;
    } else if ((lead & 0xF8) == 0xF0) {
        length = 4, codePoint = lead & 0x07, smallest = 0x10000;
    } else {
        return 0;
    }
    if (text.size() - at < length) {
        return 0;
    }
    for (size_t index = 1; index < length; ++index) {
        if ((byte(at + index) & 0xC0) != 0x80) {
            return 0;
        }
        codePoint = codePoint << 6 | (byte(at + index) & 0x3F);
    }
    const bool overlong = codePoint < smallest;
    const bool surrogate = codePoint >= 0xD800 && codePoint <= 0xDFFF;
    if (overlong || surrogate || codePoint > 0x10FFFF) {
        return 0;
    }
    return length;
}

std::string Refusal(const std::string& name, const std::string& why)
{
    return "refused remote name " + QuoteRemoteName(name) + ": " + why;
}

bool CheckComponent(const std::string& name, const std::string& component, std::string& error)
{
    if (component.empty()) {
        error = Refusal(name, "it has an empty component (a leading, trailing or doubled \"/\")");
        return false;
    }
    if (component == "." || component == "..") {
        error = Refusal(name, "it has a \"" + component + "\" component");
        return false;
    }
    if (component.size() > kMaxRemoteComponentBytes) {
        error = Refusal(name, "a component is " + std::to_string(component.size()) + " bytes long, more than " +
                                  std::to_string(kMaxRemoteComponentBytes));
        return false;
    }
    return true;
}

}  // namespace

bool IsValidUtf8(const std::string& text)
{
    for (size_t at = 0; at < text.size();) {
        const size_t length = Utf8SequenceLength(text, at);
        if (length == 0) {
            return false;
        }
        at += length;
    }
    return true;
}

namespace {

// A terminal acts on more than the C0 controls: the C1 controls
// (U+0080..U+009F; U+009B opens an escape sequence on some terminals), and
// the line separators and direction overrides reorder or break what is
// shown. Each is written byte by byte as \xNN.
bool NotPrintable(const std::string& text, size_t at, size_t length)
{
    const auto byte = [&](size_t offset) { return static_cast<uint8_t>(text[at + offset]); };
    if (length == 2) {
        return byte(0) == 0xC2 && byte(1) <= 0x9F;
    }
    if (length == 3 && byte(0) == 0xE2 && byte(1) == 0x80) {
        return byte(2) == 0x8E || byte(2) == 0x8F || (byte(2) >= 0xA8 && byte(2) <= 0xAE);  // U+200E/F, U+2028..202E
    }
    if (length == 3 && byte(0) == 0xE2 && byte(1) == 0x81) {
        return byte(2) >= 0xA6 && byte(2) <= 0xA9;  // U+2066..2069
    }
    return false;
}

// Copies `text` with every control character, every other character a
// terminal would act on, and every byte outside a valid UTF-8 sequence
// written as \xNN; `escapeQuoting` also escapes '"' and '\\' for a quoted
// name.
std::string Escaped(const std::string& text, bool escapeQuoting)
{
    std::string out;
    for (size_t at = 0; at < text.size();) {
        const auto byte = static_cast<uint8_t>(text[at]);
        const size_t length = Utf8SequenceLength(text, at);
        if (escapeQuoting && (byte == '"' || byte == '\\')) {
            out += '\\';
            out += static_cast<char>(byte);
            ++at;
        } else if (length > 1 && NotPrintable(text, at, length)) {
            for (size_t offset = 0; offset < length; ++offset) {
                char escaped[8];
                std::snprintf(escaped, sizeof escaped, "\\x%02X", static_cast<uint8_t>(text[at + offset]));
                out += escaped;
            }
            at += length;
        } else if (length > 1 || (length == 1 && byte >= 0x20 && byte != 0x7F)) {
            out.append(text, at, length);
            at += length;
        } else {
            char escaped[8];
            std::snprintf(escaped, sizeof escaped, "\\x%02X", byte);
            out += escaped;
            ++at;
        }
    }
    return out;
}

}  // namespace

std::string QuoteRemoteName(const std::string& name) { return "\"" + Escaped(name, true) + "\""; }

std::string PrintableText(const std::string& text) { return Escaped(text, false); }

bool CheckRemoteName(const std::string& name, std::string& error)
{
    if (name.empty()) {
        error = Refusal(name, "it is empty");
        return false;
    }
    if (name.size() > kMaxRemoteNameBytes) {
        error = "refused remote name " + QuoteRemoteName(name.substr(0, 64)) + "...: it is " +
                std::to_string(name.size()) + " bytes long, more than " + std::to_string(kMaxRemoteNameBytes);
        return false;
    }
    if (name.front() == '/') {
        error = Refusal(name, "it is an absolute path");
        return false;
    }
    for (const char c : name) {
        const auto byte = static_cast<uint8_t>(c);
        if (byte == 0) {
            error = Refusal(name, "it contains a NUL byte");
            return false;
        }
        if (byte < 0x20 || byte == 0x7F) {
            error = Refusal(name, "it contains a control character");
            return false;
        }
        if (byte == '\\') {
            error = Refusal(name, "it contains a backslash");
            return false;
        }
    }
    if (!IsValidUtf8(name)) {
        error = Refusal(name, "it is not valid UTF-8");
        return false;
    }
    // In valid UTF-8, 0xC2 followed by 0x80..0x9F is always a C1 control.
    for (size_t at = 0; at + 1 < name.size(); ++at) {
        if (static_cast<uint8_t>(name[at]) == 0xC2 && static_cast<uint8_t>(name[at + 1]) <= 0x9F) {
            error = Refusal(name, "it contains a control character");
            return false;
        }
    }
    size_t start = 0;
    for (;;) {
        const size_t slash = name.find('/', start);
        const std::string component = name.substr(start, slash == std::string::npos ? std::string::npos : slash - start);
        if (!CheckComponent(name, component, error)) {
            return false;
        }
        if (slash == std::string::npos) {
            return true;
        }
        start = slash + 1;
    }
}

bool CheckDestinationParents(const std::string& destinationRoot, const std::string& name, std::string& error)
{
    std::string path = destinationRoot;
    size_t start = 0;
    for (size_t slash = name.find('/'); slash != std::string::npos; slash = name.find('/', start)) {
        path += "/" + name.substr(start, slash - start);
        start = slash + 1;
        struct stat info {};
        if (::lstat(path.c_str(), &info) != 0) {
            if (errno == ENOENT) {
                return true;  // this and everything below it will be created as directories
            }
            error = Refusal(name, "cannot check " + path + ": " + SystemErrorText(errno));
            return false;
        }
        if (S_ISLNK(info.st_mode)) {
            error = Refusal(name, path + " is a symbolic link");
            return false;
        }
        if (!S_ISDIR(info.st_mode)) {
            return true;  // nothing can be reached below a plain file
        }
    }
    return true;
}

}  // namespace orin::xfer::host
