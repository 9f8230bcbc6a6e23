// Whether an offered name can exist on the destination's platform, and how
// to make it fit there without losing it.
//
// Usage: build a NamePolicy for the destination (NameTarget) and the host's
// choice (NameAction), then Check each relative path of the list ("a/b/c",
// '/' separated, UTF-8) and FindClashes over the whole list. A receiving
// host on a POSIX system turns mapped names back with MapBack.
//
// Rules per target, checked on every path component:
// - kPosix: a component may hold any byte but NUL ('/' separates them).
//   Nothing else is checked here; the kit's own checks on received names
//   (RemoteNameGuard) stay where they are.
// - kWindows: no characters < > : " | ? * or '\' (a separator there), no
//   control characters (1..31); not a reserved device name (CON, PRN, AUX,
//   NUL, COM1..COM9, LPT1..LPT9, any case, also with an extension or with
//   spaces before it: "con.txt", "Com1 .log"); no trailing dot or space;
//   the whole path at most `maxPathLength` UTF-16 code units together with
//   `destinationPrefixLength` and the terminating NUL (260 by default, as
//   Windows counts); and no two names of a list that differ only in case
//   (FindClashes, ASCII letters).
// - kPortable: names that fit every destination: the union of both lists,
//   which today is the Windows list.
// On every target an empty path, an empty component and the components
// "." and ".." are refused (they name no entry of their own).
//
// The reversible mapping (NameAction::kMap), one character at a time:
//   < > : " | ? * \   ->  U+FF1C U+FF1E U+FF1A U+FF02 U+FF5C U+FF1F U+FF0A U+FF3C
//                         (their full-width forms: U+FF00 + code - 0x20)
//   control 1..31     ->  U+2401..U+241F (the control pictures)
//   a trailing '.'    ->  U+FF0E, a trailing ' ' -> U+3000 (each one of a
//                         trailing run of dots and spaces)
//   a reserved name   ->  the last character of its base name (before the
//                         first dot, spaces before the dot left alone) by
//                         its full-width form: "CON" -> "COＮ",
//                         "lpt1.txt" -> "lpt１.txt"
// MapBack undoes exactly these substitutions, at exactly these places, and
// nothing else, so Check then MapBack gives back the original name. The
// one name it cannot tell apart is a name that already held one of the
// substitutes at such a place (a "？" made on Windows): MapBack turns it
// into the ASCII form. The length rule and the refusals above are never
// mapped: with kMap such a name is still refused.
//
// THREADING CONTRACT: a NamePolicy is immutable after construction; every
// function is pure and safe from any thread at once.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace orin::xfer::host {

enum class NameTarget { kPosix, kWindows, kPortable };
enum class NameAction { kMap, kRefuse };

// The first rule a name broke.
enum class NameProblem {
    kNone,
    kEmpty,                // an empty path or component, "." or ".."
    kNulCharacter,         // NUL inside a name (never mapped)
    kForbiddenCharacter,   // < > : " | ? * or '\' on Windows
    kControlCharacter,     // 1..31 on Windows
    kReservedName,         // CON, PRN, AUX, NUL, COM1-9, LPT1-9 on Windows
    kTrailingDotOrSpace,   // on Windows
    kTooLong,              // the Windows path length (never mapped)
    kCaseClash,            // reported by FindClashes only
};

// A short fixed name of the problem ("reserved name"), for messages.
const char* NameProblemName(NameProblem problem);

struct NameCheck {
    // The name can be used: as it is, or as `mapped` (kMap).
    bool ok = false;
    // The name to create at the destination; the input when nothing had to
    // change; empty when !ok.
    std::string mapped;
    // The first rule the name broke (kNone when it broke none). With kMap a
    // mappable rule leaves `ok` true.
    NameProblem reason = NameProblem::kNone;
    // Names the component and the rule; empty when reason is kNone.
    std::string message;
};

// Two entries of a list that would land on the same name.
struct NameClash {
    size_t first = 0;   // index in the list checked
    size_t second = 0;  // a later index landing on the same name
    std::string name;   // the name they share, as mapped (of `second`)
};

struct NamePolicyOptions {
    NameTarget target = NameTarget::kPosix;
    NameAction action = NameAction::kRefuse;
    size_t maxPathLength = 260;         // UTF-16 code units, NUL included
    size_t destinationPrefixLength = 0; // the destination root and its separator
};

class NamePolicy {
public:
    explicit NamePolicy(NamePolicyOptions options);
    NamePolicy(NameTarget target, NameAction action);

    const NamePolicyOptions& Options() const { return mOptions; }

    // Checks (and with kMap maps) every component of a relative path.
    NameCheck Check(const std::string& relativePath) const;

    // Undoes the mapping of a path made by a kMap policy (any target).
    std::string MapBack(const std::string& mappedPath) const;

    // The pairs of the list that would land on the same name after mapping:
    // equal names, or, on kWindows and kPortable, names equal but for the
    // case of ASCII letters. Names Check refuses are left out. Each later
    // duplicate is paired with the first entry of its name, in list order.
    std::vector<NameClash> FindClashes(const std::vector<std::string>& relativePaths) const;

private:
    NamePolicyOptions mOptions;
};

}  // namespace orin::xfer::host
