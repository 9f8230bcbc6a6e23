// One copy of the stress test: a random tree, a random scenario (what goes
// wrong and when), the run itself through real endpoints, and the checks
// of what every copy must leave behind. StressTally adds the runs up.
//
// THREADING CONTRACT: a StressRun is executed by one test thread; the
// endpoints' threads only touch it through its observers and hooks.
#pragma once

#include <cstdint>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "FaultInjectingTransport.h"

namespace orin::xfer::test {

using namespace orin::xfer::host;

enum class Scenario {
    kClean,
    kReceiverCancelBeforeStart,
    kSenderCancelBeforeOffer,
    kReceiverCancelMidFile,
    kSenderCancelMidFile,
    kReceiverCancelAfterLastChunk,
    kSenderCancelAfterLastChunk,
    kCancelFromAnotherThread,
    kFaultAtReceiverEnd,
    kFaultAtSenderEnd,
    kDestroyReceiverMidFile,
    kDestroySenderMidFile,
};

const char* ScenarioName(Scenario scenario);

enum class RunResult { kCompleted, kCancelled, kFailed };

class StressRun {
public:
    StressRun(uint64_t seed, uint64_t index);

    const std::string& Description() const { return mDescription; }
    // Runs the copy; the problems found (empty: all promises kept).
    std::vector<std::string> Execute();

    Scenario scenario() const { return mScenario; }
    InjectedFault fault() const { return mFault; }
    bool faultFired() const { return mFaultFired; }
    bool cancelFired() const { return mCancelFired; }
    RunResult result() const { return mResult; }
    bool hadProblems() const { return mHadProblems; }
    double seconds() const { return mSeconds; }

private:
    std::mt19937_64 mRng;
    Scenario mScenario;
    InjectedFault mFault = InjectedFault::kNone;
    uint32_t mWindow;
    uint64_t mLinkBytes;
    std::string mDescription;
    bool mFaultFired = false;
    bool mCancelFired = false;
    RunResult mResult = RunResult::kFailed;
    bool mHadProblems = false;
    double mSeconds = 0;
};

struct StressTally {
    uint64_t copies = 0;
    uint64_t failedCopies = 0;  // copies with broken promises
    std::map<RunResult, uint64_t> results;
    std::map<std::string, uint64_t> scenarios;
    std::map<std::string, uint64_t> faultsFired;
    uint64_t cancelsFired = 0;
    double slowestCopy = 0;

    void Add(const StressRun& run);
    // A few lines, the first "stress summary: ..." with every count.
    std::string Report(double seconds) const;
};

}  // namespace orin::xfer::test
