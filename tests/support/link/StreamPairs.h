// Two connected StreamEnds for tests of links over descriptors: over one
// socketpair (each end one socket both ways) or over two pipes (each end
// reads one pipe and writes the other, as a child started over a remote
// shell does with its standard input and output).
#pragma once

#include "xferfm/host/StreamTransport.h"

namespace orin::xfer::test {

using namespace orin::xfer::host;

struct StreamPair {
    StreamEnds first;
    StreamEnds second;
};

// Ends labelled "first" and "second"; invalid descriptors if the system refuses.
StreamPair SocketStreamPair();
StreamPair PipeStreamPair();

}  // namespace orin::xfer::test
