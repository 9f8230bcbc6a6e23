// Stands in for the far side of a pull as a hostile machine would play it:
// whatever command line it is given, it speaks the frames over its standard
// input and output and offers a list in which one name climbs out of the
// destination ("../escaped.txt") next to a plain one. Run through
// rsh-standin.sh as the --xferfm-path of `xferfm copy HOST:SRC DEST`.
#include <unistd.h>

#include <chrono>
#include <thread>

#include "HostileSender.h"
#include "xferfm/host/StreamTransport.h"

int main()
{
    using namespace orin::xfer;
    host::StreamEnds ends;
    ends.readEnd = host::OwnedFd(::dup(STDIN_FILENO));
    ends.writeEnd = host::OwnedFd(::dup(STDOUT_FILENO));
    ends.peer = "standard input/output";
    host::StreamTransport link(std::move(ends));
    test::HostileSender sender({test::CraftedEntry{"", "../escaped.txt", false}, test::CraftedEntry{"", "plain.txt", false}},
                               "");
    sender.Attach(link);
    link.Start(sender);
    // Until the receiver ends the session, at most a minute.
    for (int waited = 0; waited < 600 && !sender.Closed(); ++waited) {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    return 0;
}
