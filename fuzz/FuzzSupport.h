// Shared pieces of the fuzz harnesses: a silenced engine log, an engine
// that needs no threads, a scratch directory that lives for the process,
// and the rule that only names the receiver's guard accepts reach the
// engine (the engine's path helpers assume names the host has checked).
//
// THREADING CONTRACT: libFuzzer calls a harness on one thread; everything
// here is created on first use from that thread.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

#include "OrinFileTransferManager.h"

namespace xferfm::fuzz {

// Stops the harness with a message: libFuzzer keeps the input that did it.
[[noreturn]] inline void Violation(const char* what, const std::string& detail)
{
    std::fprintf(stderr, "invariant broken: %s: %s\n", what, detail.c_str());
    std::abort();
}

// Installs a logger that drops every engine line (once per process).
void SilenceEngineLog();

// An engine whose loopers drop their jobs: the path helpers post nothing.
std::unique_ptr<orin::xfer::OrinFileTransferManager> MakeQuietEngine();

// A directory created on first use and removed when the process exits,
// holding a few files, directories and a symbolic link that points out
// of it, so that lookups in it meet every kind of entry.
const std::string& ScratchDirectory();

// True when `name` passes the receiver's remote-name guard.
bool GuardAccepts(const std::string& name);

}  // namespace xferfm::fuzz
