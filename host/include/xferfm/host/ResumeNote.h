// Continuing an interrupted copy into the same destination directory, the
// part a local copy and a network receiver share.
//
// An interrupted copy leaves a note in the destination (".xferfm-resume",
// JSON: {"landed": {"top-level name": "name it got there"}}) next to the
// complete files it kept. A resumed copy continues each top-level entry
// under the name the note gives (or, without a note, under its own name
// when that exists as the same kind), keeps every file already there with
// the source's size and modification time, and copies the rest. The note
// goes once a copy into the destination completes.
//
// THREADING CONTRACT: free functions; they read (and the note's writers
// write) the destination as it is at the time of the call. A note that
// cannot be written only costs the renamed names on resume.
#pragma once

#include <cstdint>
#include <ctime>
#include <map>
#include <string>
#include <vector>

#include "xferfm/host/LandingNames.h"

namespace orin::xfer::host {

inline constexpr const char* kResumeNoteName = ".xferfm-resume";

// Top-level name -> name in the destination, from the note ({} when there
// is none or it cannot be read).
std::map<std::string, std::string> ReadResumeNote(const std::string& destinationDir);
void WriteResumeNote(const std::string& destinationDir, const std::map<std::string, std::string>& landed);
void RemoveResumeNote(const std::string& destinationDir);

// Which of `entries` continue under which existing name. Without a note,
// an entry continues under its own name when that exists as the same kind,
// unless `noteOnly`: a receiver that serves the network continues only what
// its own note names, so a sender cannot adopt (and replace files in) a
// directory it never landed.
std::map<std::string, std::string> ChooseResumeNames(const std::string& destinationDir,
                                                     const std::vector<TopLevelEntry>& entries,
                                                     bool noteOnly = false);

// Where the entry at `relativePath` ("top/sub/name") is in the destination
// when it continues; "" when its top-level entry does not continue.
std::string ResumedPath(const std::string& destinationDir, const std::map<std::string, std::string>& resumeNames,
                        const std::string& relativePath);

// True when `path` is a regular file of `size` bytes modified at `modified`.
bool IsCompleteCopy(const std::string& path, uint64_t size, const timespec& modified);

}  // namespace orin::xfer::host
