#include "StreamPairs.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace orin::xfer::test {

StreamPair SocketStreamPair()
{
    StreamPair pair;
    int fds[2] = {-1, -1};
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) == 0) {
        pair.first.readEnd.Reset(fds[0]);
        pair.second.readEnd.Reset(fds[1]);
    }
    pair.first.peer = "second";
    pair.second.peer = "first";
    return pair;
}

StreamPair PipeStreamPair()
{
    StreamPair pair;
    int toSecond[2] = {-1, -1};
    int toFirst[2] = {-1, -1};
    if (::pipe2(toSecond, O_CLOEXEC) == 0) {
        pair.second.readEnd.Reset(toSecond[0]);
        pair.first.writeEnd.Reset(toSecond[1]);
    }
    if (::pipe2(toFirst, O_CLOEXEC) == 0) {
        pair.first.readEnd.Reset(toFirst[0]);
        pair.second.writeEnd.Reset(toFirst[1]);
    }
    pair.first.peer = "second";
    pair.second.peer = "first";
    return pair;
}

}  // namespace orin::xfer::test
