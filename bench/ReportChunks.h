// Reports a chunk benchmark the same way everywhere: chunks/s, ns/chunk
// (wall clock, since the work spans engine threads) and bytes/s.
#pragma once

#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdint>

namespace xferfm::bench {

inline void reportChunks(benchmark::State& state, uint64_t chunks, uint64_t bytes,
                         std::chrono::steady_clock::duration elapsed)
{
    const double seconds = std::chrono::duration<double>(elapsed).count();
    state.SetBytesProcessed(static_cast<int64_t>(bytes));
    state.SetItemsProcessed(static_cast<int64_t>(chunks));
    state.counters["chunks/s"] = benchmark::Counter(static_cast<double>(chunks), benchmark::Counter::kIsRate);
    state.counters["ns/chunk"] = chunks == 0 ? 0.0 : seconds * 1e9 / static_cast<double>(chunks);
}

}  // namespace xferfm::bench
