// SHA-256 of a whole file, through OpenSSL's EVP interface: the digests
// that `send --verify` offers and the receiver checks, and that a local
// copy's verification compares.
//
// THREADING CONTRACT: safe from any thread; blocks while it reads the file.
#pragma once

#include <optional>
#include <string>

namespace orin::xfer::host {

// Lower-case hex digest of the file's bytes; empty optional (and `error`
// set to the system's reason) when the file cannot be read.
std::optional<std::string> Sha256OfFile(const std::string& path, std::string& error);

}  // namespace orin::xfer::host
