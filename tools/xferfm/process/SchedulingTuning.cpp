#include "SchedulingTuning.h"

#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdint>

namespace xferfm::cli {
namespace {

// struct sched_attr, first version (glibc has no wrapper of its own here).
struct SchedAttr {
    uint32_t size;
    uint32_t policy;
    uint64_t flags;
    int32_t nice;
    uint32_t priority;
    uint64_t runtime;  // for normal tasks: the requested slice, in ns
    uint64_t deadline;
    uint64_t period;
};

constexpr uint64_t kSliceNs = 100 * 1000;  // the shortest the kernel accepts

}  // namespace

void preferShortSchedulingSlices()
{
    SchedAttr attr{};
    if (syscall(SYS_sched_getattr, 0, &attr, sizeof attr, 0) != 0 || attr.policy != SCHED_OTHER) {
        return;
    }
    attr.size = sizeof attr;
    attr.runtime = kSliceNs;
    // Kernels without custom slices ignore the field or refuse it: either
    // way the copy runs as before.
    syscall(SYS_sched_setattr, 0, &attr, 0);
}

}  // namespace xferfm::cli
