#!/bin/sh
# Stands in for ssh in the tests of `xferfm copy HOST:PATH`: takes the
# arguments xferfm gives its remote shell (HOST, then the remote command
# line), drops the host and runs the command line with sh -c on this
# machine, with standard input, output and error passed straight through.
# Used as: xferfm copy -e "sh tests/ssh/rsh-standin.sh" ...
if [ $# -ne 2 ]; then
    echo "rsh-standin: expected HOST COMMAND, got $# arguments" >&2
    exit 255
fi
exec sh -c "$2"
