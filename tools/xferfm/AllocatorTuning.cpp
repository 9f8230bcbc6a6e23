#include "AllocatorTuning.h"

#include <malloc.h>

namespace xferfm::cli {

void tuneAllocatorForChunkTraffic()
{
    // A fixed mmap threshold above the chunk size keeps every 64 KiB buffer
    // on the heap (a dynamic threshold may move them to mmap and back).
    mallopt(M_MMAP_THRESHOLD, 1024 * 1024);
    // Free heap tops below 32 MiB stay mapped: the next file reuses them.
    mallopt(M_TRIM_THRESHOLD, 32 * 1024 * 1024);
    // Reader, hand-off and writer threads share two arenas; one arena per
    // short-lived upload thread would each keep its own trimmed-never heap.
    mallopt(M_ARENA_MAX, 2);
}

}  // namespace xferfm::cli
