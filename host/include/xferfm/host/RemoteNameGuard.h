// The receiving side's check of every path name that came over the
// network, before any of it reaches an engine or the file system. A name
// is relative, "/"-separated, and each refusal names the offending name
// (with unprintable bytes escaped) and the rule it broke:
// - not absolute, no backslash, no empty component (leading, trailing or
//   doubled "/"), no "." or ".." component;
// - no NUL or other control character (below 0x20, and 0x7F);
// - valid UTF-8 (no overlong forms, surrogates or code points past U+10FFFF);
// - components of at most 255 bytes, the whole name at most 4096 bytes.
// The file system check then refuses a name whose destination would be
// reached through a symbolic link among its parent directories.
//
// THREADING CONTRACT: free functions, safe from any thread. The file system
// check reads the file system as it is at the time of the call.
#pragma once

#include <cstddef>
#include <string>

namespace orin::xfer::host {

constexpr size_t kMaxRemoteNameBytes = 4096;
constexpr size_t kMaxRemoteComponentBytes = 255;

// True when `name` may be used as a path relative to a destination
// directory; false with `error` set otherwise.
bool CheckRemoteName(const std::string& name, std::string& error);

// True when `text` is well-formed UTF-8.
bool IsValidUtf8(const std::string& text);

// `name` quoted for a message: printable ASCII and valid UTF-8 as they
// are, quotes and backslashes escaped, anything else as \xNN.
std::string QuoteRemoteName(const std::string& name);

// Free text from the network (an error message, a reason) made safe to
// print: control characters and bytes that are not valid UTF-8 become
// \xNN, so a peer cannot drive the terminal that shows them.
std::string PrintableText(const std::string& text);

// For a name that passed CheckRemoteName: lstat()s each parent component
// of destinationRoot/name that exists and refuses the name if one is a
// symbolic link. A parent that does not exist yet is fine (it will be
// created as a directory); destinationRoot itself is trusted.
bool CheckDestinationParents(const std::string& destinationRoot, const std::string& name, std::string& error);

}  // namespace orin::xfer::host
