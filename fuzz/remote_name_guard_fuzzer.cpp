// The receiver's remote-name guard on arbitrary bytes. A name it accepts
// must be safe to join under a destination: relative, "/"-separated, no
// empty, "." or ".." component, no backslash, no control byte, valid
// UTF-8, within the length limits. Quoting must never let a control byte
// through, and the parent check must refuse a name under a planted link.
#include <cstddef>
#include <cstdint>
#include <string>

#include "FuzzSupport.h"
#include "xferfm/host/RemoteNameGuard.h"

namespace {

using namespace orin::xfer::host;
using xferfm::fuzz::Violation;

void checkAccepted(const std::string& name)
{
    if (name.empty() || name.size() > kMaxRemoteNameBytes || name.front() == '/' || name.back() == '/') {
        Violation("accepted an empty, absolute, over-long or directory-like name", QuoteRemoteName(name));
    }
    if (!IsValidUtf8(name)) {
        Violation("accepted invalid UTF-8", QuoteRemoteName(name));
    }
    for (const char c : name) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte < 0x20 || byte == 0x7f || c == '\\') {
            Violation("accepted a control byte or a backslash", QuoteRemoteName(name));
        }
    }
    size_t start = 0;
    while (true) {
        const size_t slash = name.find('/', start);
        const std::string component = name.substr(start, slash == std::string::npos ? std::string::npos : slash - start);
        if (component.empty() || component == "." || component == ".." ||
            component.size() > kMaxRemoteComponentBytes) {
            Violation("accepted a bad component", QuoteRemoteName(name));
        }
        if (slash == std::string::npos) {
            break;
        }
        start = slash + 1;
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::string name(reinterpret_cast<const char*>(data), size);
    std::string error;
    const bool accepted = CheckRemoteName(name, error);
    if (accepted) {
        checkAccepted(name);
    } else if (error.empty()) {
        Violation("refused without a message", QuoteRemoteName(name));
    }
    for (const char c : QuoteRemoteName(name)) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte < 0x20 || byte == 0x7f) {
            Violation("quoting let a control byte through", error);
        }
    }
    if (!accepted) {
        return 0;
    }
    // The scratch directory holds "outside", a link that leaves it.
    const std::string& root = xferfm::fuzz::ScratchDirectory();
    const bool parentsOk = CheckDestinationParents(root, name, error);
    if (parentsOk && name.rfind("outside/", 0) == 0) {
        Violation("a name under a symbolic link passed the parent check", QuoteRemoteName(name));
    }
    if (parentsOk && CheckDestinationParents(root, "outside/" + name, error)) {
        Violation("a name under a symbolic link passed the parent check", QuoteRemoteName("outside/" + name));
    }
    return 0;
}
