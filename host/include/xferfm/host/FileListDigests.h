// Content digests carried inside a file list, so that a receiver on
// another machine can prove each file it landed against its source: the
// sender adds "sha256" (64 lower-case hex digits) to each file entry it
// wants checked, and the receiver reads them back. Lists without the key
// are unchanged in meaning; the list parser ignores keys it does not know.
//
// THREADING CONTRACT: pure functions, safe from any thread (DigestSourceFiles
// reads every file of the plan on the calling thread).
#pragma once

#include <map>
#include <optional>
#include <string>

#include "xferfm/host/FileList.h"
#include "xferfm/host/SourcePlan.h"

namespace orin::xfer::host {

// Request name ("dir/sub/name") -> lower-case hex SHA-256.
using FileDigests = std::map<std::string, std::string>;

// Adds the digest of every file entry of `json` named in `digests` and
// writes the list back to `json` (compact). False with `error` set when
// the list cannot be read; `json` is then unchanged.
bool AddFileDigests(std::string& json, const FileDigests& digests, std::string& error);

// The digests a list carries; empty when it carries none or cannot be read.
// Values that are not 64 hex digits are left out.
FileDigests FileDigestsOf(const std::string& json);

// The SHA-256 of every file of `plan`, by the request name the receiver
// knows it by (its relativePath): what a sender asking for verification
// puts in its list. Nothing, with `error` naming the file, when one cannot
// be read.
std::optional<FileDigests> DigestSourceFiles(const SourcePlan& plan, std::string& error);

// The digests of a list read already (ParseFileList, or the receiving
// link's one reading of it): the same as FileDigestsOf on its text.
FileDigests FileDigestsOf(const ParsedFileList& list);

}  // namespace orin::xfer::host
