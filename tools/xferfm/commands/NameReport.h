// The receiving side's --names and --name-action: the kit's name rules they
// stand for, and the lines that tell the user which names were mapped or
// refused (`copy` and `serve` print them the same way).
//
// Why map-back is its own choice and not what `posix` does by default: a
// POSIX destination takes every name, so the default copy stays byte for
// byte; turning full-width characters back is a decision about names that
// may have been made that way on purpose, so the user asks for it.
//
// Threading: plain functions; the printers write to stdout and the console
// from the calling thread.
#pragma once

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "CommandOptions.h"
#include "StderrConsole.h"
#include "xferfm/host/ReceiverEndpoint.h"
#include "xferfm/host/TransferObserver.h"

namespace xferfm::cli {

// Unset for the default (posix, map): names land exactly as sent.
std::optional<orin::xfer::host::ReceiverNameRules> receiverNameRules(const NameOptions& options);

// The same two options as arguments for another xferfm that receives (the
// far side of a copy over a remote shell); none for the default.
std::vector<std::string> nameOptionArguments(const NameOptions& options);

// "" when the two options go together; otherwise what is wrong.
std::string nameOptionsProblem(const NameOptions& options);

// "landed 'a:b' as 'a：b'" on stdout for each mapped name, the first 20,
// then one line counting the rest. `prefix` starts each line; a preview
// says "would land" for `landed`.
void printMappedNames(const std::vector<std::pair<std::string, std::string>>& mapped, const std::string& prefix,
                      const std::string& landed = "landed");

// "xferfm: not copied: REASON" on stderr for each refused name, the first
// 20, then one line counting the rest; a preview says "would not be
// copied" for `notCopied`.
void printRefusedNames(const std::vector<orin::xfer::host::SkippedEntry>& refused, StderrConsole& console,
                       const std::string& notCopied = "not copied");

}  // namespace xferfm::cli
