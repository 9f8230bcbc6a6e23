// Process exit codes of the xferfm tool, one per kind of failure, so that
// scripts can tell a bad source from a bad destination, a lost link from a
// busy peer, without parsing text.
#pragma once

namespace xferfm::cli {

enum class ExitCode : int {
    kOk = 0,
    kTransferFailed = 1,        // the engine failed for none of the reasons below
    kUsage = 2,                 // bad command line
    kSourceMissing = 3,         // a SOURCE does not exist
    kSourceUnreadable = 4,      // a source entry cannot be read (or vanished mid-copy)
    kDestinationUnusable = 5,   // DEST_DIR missing, not a directory, not writable, or a write into it failed
    kVerifyMismatch = 6,        // --verify found a destination that differs from its source
    kNamesRefused = 7,          // the receiver refused some names (serve/send, --names); every other entry arrived
    kLinkFailed = 8,            // send: the connection could not be made or was lost; serve --once/--stdio:
                                // the sender's end of the link ended or broke before the session was over;
                                // copy over a remote shell: the far side's link was lost mid-copy
    kPeerBusy = 9,              // send: the receiver is serving another sender
    kCancelledByPeer = 10,      // send: the receiver cancelled the copy; serve --once/--stdio: the sender did
    kEntriesSkipped = 11,       // some source entries cannot be copied and were skipped; the rest arrived
    kReceiverStalled = 12,      // send: the receiver moved nothing on for the progress time-out
    kRemoteUnavailable = 13,    // copy over a remote shell: the far side could not be started
    kInterrupted = 130,         // SIGINT or SIGTERM
};

inline int toInt(ExitCode code) { return static_cast<int>(code); }

// The table printed at the end of --help (and in the README and man page).
inline const char* exitCodeHelp()
{
    return "Exit codes:\n"
           "  0    every file arrived intact\n"
           "  1    a transfer failed inside the engine (for none of the reasons below)\n"
           "  2    bad command line\n"
           "  3    a SOURCE does not exist\n"
           "  4    a source file or directory cannot be read, or vanished during the copy\n"
           "  5    DEST_DIR is missing, not a directory or not writable, or writing into it failed\n"
           "       (the system's reason is named, e.g. \"No space left on device\")\n"
           "  6    --verify found a file whose copy differs from its source\n"
           "  7    the receiver refused some names (named on stderr; serve/send, or --name-action refuse);\n"
           "       every other entry arrived\n"
           "  8    send: the connection could not be made, or was lost; serve --once/--stdio:\n"
           "       the sender's end of the link ended or broke before the session was over;\n"
           "       copy to or from HOST:PATH: the link to the far side was lost mid-copy\n"
           "  9    send: the receiver is busy with another sender\n"
           "  10   send: the receiver cancelled the copy; serve --once/--stdio: the sender cancelled it\n"
           "  11   some source entries cannot be copied (named on stderr with the reason) and were\n"
           "       skipped; every other entry arrived\n"
           "  12   send: the receiver moved nothing on for --progress-timeout\n"
           "  13   copy to or from HOST:PATH: the far side could not be started (the remote shell could\n"
           "       not connect or log in, or xferfm is missing there or not executable)\n"
           "  130  interrupted (Ctrl-C or SIGTERM); files already complete stay in DEST_DIR,\n"
           "       the file in flight is removed\n";
}

}  // namespace xferfm::cli
