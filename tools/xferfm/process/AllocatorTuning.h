// Start-up tuning of glibc malloc for a process that churns through 64 KiB
// chunk buffers on several threads.
#pragma once

namespace xferfm::cli {

// Keeps freed chunk buffers in the heap for reuse instead of trimming them
// back to the system and faulting them in again, and keeps one arena so
// that per-thread heaps cannot multiply the resident size. Call before any
// other thread starts.
void tuneAllocatorForChunkTraffic();

}  // namespace xferfm::cli
