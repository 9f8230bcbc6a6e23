// Bounded polling: how every test waits for an asynchronous effect, instead
// of sleeping a fixed time.
//
// Threading: call from any thread; `done` runs on the caller's thread.
#pragma once

#include <chrono>
#include <functional>

namespace orin::xfer::test {

// Polls `done` until it holds or `timeout` passes; true when it held.
bool waitUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout = std::chrono::seconds(10));

}  // namespace orin::xfer::test
