// Entry point of the two halves of a copy between machines, `xferfm serve`
// and `xferfm send`: parses their arguments, sets up what every command
// runs with (signals, the stderr console, engine log routing) and maps
// failures to exit codes the way the rest of the tool does.
//
// Threading: call from main before any other thread starts.
#pragma once

namespace xferfm::cli {

// True when argv names `serve` or `send`; then runNetworkCommand handles
// the whole command line.
bool isNetworkCommand(int argc, char** argv);

// Returns the process exit code.
int runNetworkCommand(int argc, char** argv);

}  // namespace xferfm::cli
