// The command line that starts the far side of a copy over a remote shell:
// the local argv (the `--rsh` words, the login, one string for the remote
// shell) and that string itself, every path in it quoted so that the remote
// shell hands each to xferfm as one word, whatever it holds.
//
// `--rsh` is split into words the way a POSIX shell splits a simple
// command, without running one: blanks separate words; 'single quotes'
// keep everything; "double quotes" keep everything but \" \\ \$ \` , which
// lose their backslash; a backslash outside quotes keeps the next
// character. Nothing is expanded ($VAR, ~, globs stay as written).
//
// Plain functions of their arguments: no state, any thread.
#pragma once

#include <string>
#include <vector>

#include "RemoteOperand.h"

namespace xferfm::cli {

// The words of `command`. Throws ToolError(kUsage) for an unclosed quote,
// a trailing backslash or no word at all.
std::vector<std::string> splitShellWords(const std::string& command);

// `word` as one word for a POSIX shell: unchanged when it holds only
// characters no shell treats specially, otherwise in single quotes (a
// single quote inside as '\'').
std::string shellQuote(const std::string& word);

// What the far side runs.
enum class RemoteRole {
    kReceive,  // push: `xferfm serve --stdio DEST_DIR`
    kSend,     // pull: `xferfm send --stdio SOURCE...`
};

struct RemoteInvocation {
    std::vector<std::string> rshWords;  // --rsh, split (default: ssh)
    std::string xferfmPath;             // --xferfm-path: the program's name or path on the far side
    RemoteTarget target;
    RemoteRole role = RemoteRole::kReceive;
    std::vector<std::string> options;  // extra options for the far side (before the paths)
    std::vector<std::string> paths;    // kReceive: DEST_DIR; kSend: the SOURCEs
};

// The one string the remote shell runs: the program and every argument
// quoted, the paths after "--" so that none is read as an option. A path
// that starts with "~/" keeps that prefix bare: the remote shell expands
// it to the login directory, as users of scp expect; the rest is quoted.
std::string remoteCommandLine(const RemoteInvocation& invocation);

// The local argv: the rsh words, the login (USER@HOST) and the remote
// command line as the last argument.
std::vector<std::string> remoteShellArgv(const RemoteInvocation& invocation);

}  // namespace xferfm::cli
