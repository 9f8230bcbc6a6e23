// SHA-256 of a whole file, through OpenSSL's EVP interface.
#pragma once

#include <optional>
#include <string>

namespace xferfm::cli {

// Lower-case hex digest of the file's bytes; empty optional (and `error`
// set to the system's reason) when the file cannot be read.
std::optional<std::string> sha256OfFile(const std::string& path, std::string& error);

}  // namespace xferfm::cli
