// Start-up tuning of how the kernel schedules the tool's threads.
#pragma once

namespace xferfm::cli {

// Asks for short time slices (100 us) for this thread and every thread it
// starts later, on kernels that take a slice for normal tasks (EEVDF, Linux
// 6.12 and later; elsewhere nothing changes). A copy hands every file and
// chunk from thread to thread several times; on a core busy with other work
// each hand-off otherwise waits for the running task's whole slice (about
// 3 ms). The CPU share stays what fair scheduling gives; only that wait
// shrinks. Leaves a real-time or batch policy, and the nice value, as they
// are. Call before any other thread starts.
void preferShortSchedulingSlices();

}  // namespace xferfm::cli
