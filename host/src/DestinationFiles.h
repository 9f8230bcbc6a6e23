// Filesystem steps of the receiving side: a private cache directory, and
// putting entries under their final names without ever replacing one.
//
// THREADING CONTRACT: plain functions; callers serialise work on the same
// paths themselves.
#pragma once

#include <sys/types.h>

#include <functional>
#include <string>

namespace orin::xfer::host::detail {

// Makes a fresh directory `parent`/`prefix`XXXXXX (mode 0700).
bool MakePrivateDirectory(const std::string& parent, const std::string& prefix, std::string& path,
                          std::string& error);

// Renames `from` to `to` unless `to` exists (then EEXIST). 0 or an errno.
int MoveNoReplace(const std::string& from, const std::string& to);

// mkdir that reports EEXIST instead of reusing. 0 or an errno.
int MakeDirectory(const std::string& path, mode_t mode);

// The name to try for `name` under `parent` (the engine's duplicate rule).
using NameProposer = std::function<std::string(const std::string& parent, const std::string& name, bool isDirectory)>;
// Creates `path`: 0, EEXIST (someone took it: try another name) or an errno.
using Creator = std::function<int(const std::string& path)>;

// Creates the entry under its own name or, when that is taken, under the
// first free name the proposer gives; 0 and the final path, or the errno
// of the failure. A name is taken whatever holds it, a dangling symbolic
// link included: when the proposer offers a name already tried or one that
// exists (its own test follows links), the number in it is counted up,
// "a(1).txt" -> "a(2).txt", "ok.txt" -> "ok(1).txt", until one is free.
int ClaimName(const std::string& parent, const std::string& name, bool isDirectory, const NameProposer& propose,
              const Creator& create, std::string& finalPath);

}  // namespace orin::xfer::host::detail
