// Process exit codes of the xferfm tool, one per kind of failure, so that
// scripts can tell a bad source from a bad destination without parsing text.
#pragma once

namespace xferfm::cli {

enum class ExitCode : int {
    kOk = 0,
    kTransferFailed = 1,        // the engine reported a failed transfer
    kUsage = 2,                 // bad command line
    kSourceMissing = 3,         // a SOURCE does not exist
    kSourceUnreadable = 4,      // a source entry cannot be read (or vanished mid-copy)
    kDestinationUnusable = 5,   // DEST_DIR missing, not a directory or not writable
    kVerifyMismatch = 6,        // --verify found a destination that differs from its source
    kNamesRefused = 7,          // serve/send: the receiver refused some names; every other entry arrived
    kReceiverStalled = 8,       // send: the receiver moved nothing on for the progress time-out
    kInterrupted = 130,         // SIGINT or SIGTERM
};

inline int toInt(ExitCode code) { return static_cast<int>(code); }

// The table printed at the end of --help.
inline const char* exitCodeHelp()
{
    return "Exit codes:\n"
           "  0    every file arrived intact\n"
           "  1    a transfer failed inside the engine\n"
           "  2    bad command line\n"
           "  3    a SOURCE does not exist\n"
           "  4    a source file or directory cannot be read, or vanished during the copy\n"
           "  5    DEST_DIR is missing, not a directory or not writable\n"
           "  6    --verify found a file whose copy differs from its source\n"
           "  7    serve/send: the receiver refused some names (named on stderr); every other entry arrived\n"
           "  8    send: the receiver moved nothing on for --progress-timeout\n"
           "  130  interrupted (Ctrl-C or SIGTERM); nothing partial is left in DEST_DIR\n";
}

}  // namespace xferfm::cli
