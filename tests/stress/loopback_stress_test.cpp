// A thousand copies through real sender and receiver endpoints joined by an
// in-process transport, in one process, each with a random small tree and
// most with something going wrong at a random point: a cancel on either
// side (before the start, mid-file, after the last chunk), an error report
// from either side carrying the sender's odd id, the receiver's even id or
// none, the link cut, an endpoint destroyed mid-file.
//
// Checked for every copy: it ends (a watchdog aborts with the seed and the
// copy's description otherwise), the observers hear every completion at
// most once, one OnFinished and nothing after it or after the endpoint is
// gone, at most one failure and it says what failed, and the destination
// holds only whole copies and no cache. Checked once at the end: no thread
// and no file descriptor is left over.
//
// XFERFM_STRESS_TRANSFERS (default 1000) sets the number of copies (the
// sanitizer runs use fewer), XFERFM_STRESS_SEED replays a run, and
// XFERFM_STRESS_WATCHDOG_SECONDS (default 60) bounds one copy;
// XFERFM_STRESS_ONLY=N runs copy N of the seed alone.
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "SilentEngineLog.h"
#include "StressRun.h"
#include "Watchdog.h"
#include "HostTestSupport.h"
#include "TestSupport.h"

namespace orin::xfer::test {

using namespace orin::xfer::host;
namespace {

using namespace std::chrono_literals;

uint64_t environmentNumber(const char* name, uint64_t fallback)
{
    const char* text = std::getenv(name);
    if (text == nullptr || *text == '\0') {
        return fallback;
    }
    return std::strtoull(text, nullptr, 10);
}

// Polls until the process holds at most `count` descriptors.
bool waitForDescriptorCount(size_t count)
{
    return orin::xfer::test::waitUntil([&] { return OpenDescriptorCount() <= count; }, 10s);
}

TEST(LoopbackStress, CopiesSurviveCancelsErrorsAndCutLinksWithoutLeaks)
{
    const uint64_t transfers = environmentNumber("XFERFM_STRESS_TRANSFERS", 1000);
    const uint64_t seed = environmentNumber("XFERFM_STRESS_SEED", std::random_device{}());
    const auto bound = std::chrono::seconds(environmentNumber("XFERFM_STRESS_WATCHDOG_SECONDS", 60));
    std::printf("stress seed: %llu (XFERFM_STRESS_SEED=%llu replays this run), %llu copies\n",
                static_cast<unsigned long long>(seed), static_cast<unsigned long long>(seed),
                static_cast<unsigned long long>(transfers));
    std::fflush(stdout);

    // XFERFM_STRESS_LOG=1 keeps the engine's warnings, for a replayed copy.
    std::unique_ptr<SilentEngineLog> silent;
    std::unique_ptr<QuietEngineLog> quiet;
    if (environmentNumber("XFERFM_STRESS_LOG", 0) != 0) {
        quiet = std::make_unique<QuietEngineLog>();
    } else {
        silent = std::make_unique<SilentEngineLog>();
    }
    Watchdog watchdog(bound);
    const size_t threadsBefore = ThreadCount();
    const size_t descriptorsBefore = OpenDescriptorCount();

    StressTally tally;
    const auto started = std::chrono::steady_clock::now();
    const uint64_t only = environmentNumber("XFERFM_STRESS_ONLY", UINT64_MAX);
    for (uint64_t index = 0; index < transfers; ++index) {
        if (only != UINT64_MAX && index != only) {
            continue;
        }
        StressRun run(seed, index);
        watchdog.Begin("copy " + std::to_string(index) + " of seed " + std::to_string(seed) + ": " +
                       run.Description());
        const std::vector<std::string> problems = run.Execute();
        watchdog.End();
        tally.Add(run);
        for (const auto& problem : problems) {
            ADD_FAILURE() << "copy " << index << " (seed " << seed << ", " << run.Description() << "): " << problem;
        }
        if (problems.size() > 0 && tally.failedCopies >= 5) {
            FAIL() << "stopping after 5 copies with problems";
        }
        if ((index + 1) % 100 == 0) {
            EXPECT_TRUE(WaitForThreadCount(threadsBefore))
                << "after copy " << index << ": " << ThreadCount() << " threads, " << threadsBefore << " before";
        }
    }
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();

    EXPECT_TRUE(WaitForThreadCount(threadsBefore)) << ThreadCount() << " threads, " << threadsBefore << " before";
    EXPECT_TRUE(waitForDescriptorCount(descriptorsBefore))
        << OpenDescriptorCount() << " descriptors, " << descriptorsBefore << " before";
    std::printf("%s", tally.Report(seconds).c_str());
    std::fflush(stdout);
}

}  // namespace
}  // namespace orin::xfer::test
