// The process's own standard input and output as the ends of a stream link
// (StreamTransport): what a receiver or sender started by its peer through
// a remote shell speaks over.
//
// Usage: call once, early, before anything is printed and before any thread
// that might print starts; hand the ends to StreamTransport,
// NetworkReceiver::RunOne or NetworkSender::Attach.
//
// What it does to the process, so that no stray print can ever corrupt the
// stream: standard input and output are duplicated for the link (close on
// exec), then descriptor 1 is pointed at standard error and descriptor 0 at
// /dev/null. From then on everything printed to standard output lands on
// standard error; standard error itself is untouched. The duplicate of the
// output is put in non-blocking mode by the transport (StreamTransport.h).
//
// THREADING CONTRACT: not thread-safe: it changes descriptors 0 and 1 of the
// whole process. Call it from the main thread while the process is still
// single-threaded, or at least while no other thread reads standard input
// or writes standard output.
#pragma once

#include <string>

#include "xferfm/host/StreamTransport.h"

namespace orin::xfer::host {

// The label the ends carry: it names the peer in every message.
constexpr const char* kStandardStreamsLabel = "standard input/output";

// False with `error` set, and the process's descriptors as they were, when
// standard input or output is a terminal (frames are for a program, and a
// terminal would garble them), a descriptor cannot be duplicated or
// /dev/null cannot be opened.
bool TakeStandardStreams(StreamEnds& ends, std::string& error);

}  // namespace orin::xfer::host
