// `copy --resume`: continuing an interrupted copy into the same DEST_DIR.
//
// An interrupted copy leaves a note in DEST_DIR (".xferfm-resume", JSON:
// {"landed": {"top-level name": "name it got in DEST_DIR"}}) next to the
// complete files it kept. A rerun with --resume continues each top-level
// entry under the name the note gives (or, without a note, under its own
// name when that exists as the same kind), leaves out every file already
// there with the source's size and modification time, and sends the rest.
// The note goes once a copy into DEST_DIR completes.
//
// The note and its rules are the host kit's (xferfm/host/ResumeNote.h);
// these apply them to the tool's SourcePlan.
//
// Threading: plain functions for the command's thread.
#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "SourcePlan.h"
#include "xferfm/host/ResumeNote.h"

namespace xferfm::cli {

using orin::xfer::host::kResumeNoteName;

// Top-level name -> name in DEST_DIR, from the note ({} when there is none).
std::map<std::string, std::string> readResumeNote(const std::string& destinationDir);
// Best effort: a note that cannot be written only costs the rename on resume.
void writeResumeNote(const std::string& destinationDir, const std::map<std::string, std::string>& landed);
void removeResumeNote(const std::string& destinationDir);

// Which top-level entries of `plan` continue under which existing name.
std::map<std::string, std::string> chooseResumeNames(const SourcePlan& plan, const std::string& destinationDir);

// Leaves out of `plan` (both views) every file already complete under its
// resumed name. Returns how many were left out.
uint64_t leaveOutCompleteFiles(SourcePlan& plan, const std::string& destinationDir,
                               const std::map<std::string, std::string>& resumeNames);

}  // namespace xferfm::cli
