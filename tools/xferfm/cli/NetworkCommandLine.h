// The options of `xferfm serve` and `xferfm send` (ServeOptions,
// SendOptions). They are declared with every other command's in
// CommandOptions.h and parsed by the tool's one command line
// (CommandLine.h); this header remains for the files that name it.
#pragma once

#include "CommandOptions.h"
