#include "StressRun.h"

#include <atomic>
#include <chrono>
#include <memory>
#include <sstream>
#include <thread>

#include "CheckedObservers.h"
#include "HostTestSupport.h"
#include "RandomTree.h"
#include "TestSupport.h"
#include "TreeCompare.h"
#include "xferfm/host/InProcessTransport.h"
#include "xferfm/host/ReceiverEndpoint.h"
#include "xferfm/host/SenderEndpoint.h"

namespace orin::xfer::test {

using namespace orin::xfer::host;

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr uint64_t kChunk = 65536;
// A copy of a few hundred KiB takes milliseconds; these bounds only turn a
// hang into a reported problem before the watchdog's abort.
constexpr auto kFinishLimit = 30s;
constexpr auto kUnderwayLimit = 20s;

// Weights of the scenarios, in enum order: a quarter of the copies run
// clean, the rest spread over what can go wrong.
constexpr int kScenarioWeights[] = {25, 5, 5, 8, 8, 6, 6, 8, 12, 10, 4, 3};

template <typename T>
T pick(std::mt19937_64& rng, std::initializer_list<T> choices)
{
    const size_t index = std::uniform_int_distribution<size_t>(0, choices.size() - 1)(rng);
    return *(choices.begin() + index);
}

uint64_t chunksOf(uint64_t size)
{
    return size == 0 ? 1 : (size + kChunk - 1) / kChunk;
}

bool mustStartCleanly(Scenario scenario)
{
    return scenario != Scenario::kReceiverCancelBeforeStart && scenario != Scenario::kSenderCancelBeforeOffer;
}

}  // namespace

const char* ScenarioName(Scenario scenario)
{
    switch (scenario) {
    case Scenario::kClean: return "clean";
    case Scenario::kReceiverCancelBeforeStart: return "receiver-cancel-before-start";
    case Scenario::kSenderCancelBeforeOffer: return "sender-cancel-before-offer";
    case Scenario::kReceiverCancelMidFile: return "receiver-cancel-mid-file";
    case Scenario::kSenderCancelMidFile: return "sender-cancel-mid-file";
    case Scenario::kReceiverCancelAfterLastChunk: return "receiver-cancel-after-last-chunk";
    case Scenario::kSenderCancelAfterLastChunk: return "sender-cancel-after-last-chunk";
    case Scenario::kCancelFromAnotherThread: return "cancel-from-another-thread";
    case Scenario::kFaultAtReceiverEnd: return "fault-at-receiver-end";
    case Scenario::kFaultAtSenderEnd: return "fault-at-sender-end";
    case Scenario::kDestroyReceiverMidFile: return "destroy-receiver-mid-file";
    case Scenario::kDestroySenderMidFile: return "destroy-sender-mid-file";
    }
    return "?";
}

StressRun::StressRun(uint64_t seed, uint64_t index) : mRng(seed * 0x9E3779B97F4A7C15ull + index)
{
    std::discrete_distribution<int> scenarios(std::begin(kScenarioWeights), std::end(kScenarioWeights));
    mScenario = static_cast<Scenario>(scenarios(mRng));
    if (mScenario == Scenario::kFaultAtReceiverEnd || mScenario == Scenario::kFaultAtSenderEnd) {
        mFault = pick(mRng, {InjectedFault::kCutLink, InjectedFault::kErrorForOddId, InjectedFault::kErrorForEvenId,
                             InjectedFault::kErrorWithoutId});
    }
    mWindow = pick<uint32_t>(mRng, {1, 2, 3, 8, 50});
    mLinkBytes = pick<uint64_t>(mRng, {kChunk, 4 * kChunk, 8u << 20});
    std::ostringstream text;
    text << ScenarioName(mScenario);
    if (mFault != InjectedFault::kNone) {
        text << " (" << InjectedFaultName(mFault) << ")";
    }
    text << ", window " << mWindow << ", link " << mLinkBytes << " bytes";
    mDescription = text.str();
}

std::vector<std::string> StressRun::Execute()
{
    const auto started = Clock::now();
    std::vector<std::string> problems;
    auto problem = [&problems](const std::string& text) { problems.push_back(text); };

    orin::xfer::test::TempDir scratch;
    MakeDirectory(scratch.Join("src"));
    MakeDirectory(scratch.Join("dest"));
    const std::string destination = scratch.Join("dest");
    const bool needsChunks = mScenario == Scenario::kReceiverCancelMidFile ||
                             mScenario == Scenario::kSenderCancelMidFile ||
                             mScenario == Scenario::kDestroyReceiverMidFile ||
                             mScenario == Scenario::kDestroySenderMidFile;
    const RandomTree tree = MakeRandomTree(scratch.Join("src"), mRng, needsChunks);
    std::vector<std::string> paths;
    for (const auto& top : tree.topEntries) {
        paths.push_back(tree.parent + "/" + top);
    }

    CheckedSenderObserver senderObserver;
    CheckedReceiverObserver receiverObserver;
    std::atomic<bool> cancelled{false};
    std::atomic<bool> underway{false};

    InProcessTransportOptions linkOptions;
    linkOptions.maxQueuedDataBytes = mLinkBytes;
    auto [senderEnd, receiverEnd] = InProcessTransport::CreatePair(linkOptions);
    std::unique_ptr<ITransport> senderLink = std::move(senderEnd);
    std::unique_ptr<ITransport> receiverLink = std::move(receiverEnd);
    FaultInjectingTransport* injector = nullptr;
    uint64_t dataChunks = 0;
    uint64_t fileCount = tree.files.size();
    for (const auto& file : tree.files) {
        dataChunks += chunksOf(orin::xfer::test::ReadBytes(tree.parent + "/" + file).size());
    }
    const uint64_t entries = tree.files.size() + tree.directories.size();
    if (mScenario == Scenario::kFaultAtReceiverEnd) {
        // From the sender: the list, an announcement per entry, the data.
        const uint64_t expected = 1 + entries + dataChunks;
        const uint64_t at = std::uniform_int_distribution<uint64_t>(1, expected)(mRng);
        auto wrapped = std::make_unique<FaultInjectingTransport>(std::move(receiverLink), FaultPlan{mFault, at});
        injector = wrapped.get();
        receiverLink = std::move(wrapped);
    } else if (mScenario == Scenario::kFaultAtSenderEnd) {
        // From the receiver: the hello, a request per entry, an accept per
        // file, the acknowledgements, the goodbye.
        const uint64_t expected = 2 + entries + fileCount + dataChunks / mWindow;
        const uint64_t at = std::uniform_int_distribution<uint64_t>(1, expected)(mRng);
        auto wrapped = std::make_unique<FaultInjectingTransport>(std::move(senderLink), FaultPlan{mFault, at});
        injector = wrapped.get();
        senderLink = std::move(wrapped);
    }

    SenderOptions senderOptions;
    senderOptions.ackWindow = mWindow;
    senderOptions.observer = &senderObserver;
    ReceiverOptions receiverOptions;
    receiverOptions.destinationDir = destination;
    receiverOptions.stallTimeout = 10s;
    receiverOptions.observer = &receiverObserver;
    auto sender = std::make_unique<SenderEndpoint>(std::move(senderLink), senderOptions);
    auto receiver = std::make_unique<ReceiverEndpoint>(std::move(receiverLink), receiverOptions);
    SenderEndpoint* senderRaw = sender.get();
    ReceiverEndpoint* receiverRaw = receiver.get();

    const uint64_t bytes = tree.fileBytes;
    const uint64_t cutAt = bytes > 1 ? std::uniform_int_distribution<uint64_t>(1, bytes - 1)(mRng) : 1;
    switch (mScenario) {
    case Scenario::kReceiverCancelMidFile:
        receiverObserver.onProgress = [&](const std::string&, uint64_t done, uint64_t size, uint64_t, uint64_t) {
            if (done > 0 && done < size && !cancelled.exchange(true)) {
                receiverRaw->Cancel();
            }
        };
        break;
    case Scenario::kSenderCancelMidFile:
        senderObserver.onBytesSent = [&](uint64_t total) {
            if (total >= cutAt && total < bytes && !cancelled.exchange(true)) {
                senderRaw->Cancel();
            }
        };
        break;
    case Scenario::kReceiverCancelAfterLastChunk:
        receiverObserver.onProgress = [&](const std::string&, uint64_t, uint64_t, uint64_t done, uint64_t total) {
            if (total > 0 && done == total && !cancelled.exchange(true)) {
                receiverRaw->Cancel();
            }
        };
        break;
    case Scenario::kSenderCancelAfterLastChunk:
        senderObserver.onBytesSent = [&](uint64_t total) {
            if (total == bytes && !cancelled.exchange(true)) {
                senderRaw->Cancel();
            }
        };
        break;
    case Scenario::kDestroyReceiverMidFile:
    case Scenario::kDestroySenderMidFile:
        receiverObserver.onProgress = [&](const std::string&, uint64_t done, uint64_t size, uint64_t, uint64_t) {
            if (done > 0 && done < size) {
                underway = true;
            }
        };
        break;
    default:
        break;
    }

    std::string error;
    bool receiverStarted = false;
    if (mScenario == Scenario::kReceiverCancelBeforeStart) {
        receiver->Cancel();
        mCancelFired = true;
        if (!sender->Offer(paths, error)) {
            problem("the sender refused a plain offer: " + error);
        }
        if (receiver->Start(error)) {
            problem("a cancelled receiver started");
        }
        sender->Cancel();  // the receiver never asked: nothing else ends the sender
    } else if (mScenario == Scenario::kSenderCancelBeforeOffer) {
        sender->Cancel();
        mCancelFired = true;
        if (sender->Offer(paths, error)) {
            problem("a cancelled sender accepted an offer");
        }
        // The sender's goodbye may reach the receiver before Start, which
        // then refuses to start: both are fine, as long as the copy ends.
        receiverStarted = receiver->Start(error);
    } else {
        if (!sender->Offer(paths, error)) {
            problem("the sender refused a plain offer: " + error);
        }
        receiverStarted = receiver->Start(error);
        if (!receiverStarted) {
            problem("the receiver did not start: " + error);
        }
    }

    std::thread canceller;
    if (mScenario == Scenario::kCancelFromAnotherThread) {
        const bool receiverSide = std::uniform_int_distribution<int>(0, 1)(mRng) == 1;
        const auto delay = std::chrono::microseconds(std::uniform_int_distribution<int>(0, 20000)(mRng));
        canceller = std::thread([&, receiverSide, delay] {
            // A random moment of the copy, not a wait for something to happen.
            std::this_thread::sleep_for(delay);
            cancelled = true;
            if (receiverSide) {
                receiverRaw->Cancel();
            } else {
                senderRaw->Cancel();
            }
        });
    }
    if (mScenario == Scenario::kDestroyReceiverMidFile || mScenario == Scenario::kDestroySenderMidFile) {
        orin::xfer::test::waitUntil([&] { return underway.load() || receiver->Finished(); }, kUnderwayLimit);
        mCancelFired = underway.load();
        if (mScenario == Scenario::kDestroyReceiverMidFile) {
            receiver.reset();
            receiverObserver.MarkEndpointGone();
        } else {
            sender.reset();
            senderObserver.MarkEndpointGone();
        }
    }

    if (receiver && !receiver->WaitFinished(kFinishLimit)) {
        problem("the receiver did not finish");
    }
    if (sender && !sender->WaitFinished(kFinishLimit)) {
        problem("the sender did not finish");
    }
    if (canceller.joinable()) {
        canceller.join();
    }
    mCancelFired = mCancelFired || cancelled.load();
    mFaultFired = injector != nullptr && injector->Fired();

    TransferSummary received;
    TransferSummary sent;
    if (receiver) {
        received = receiver->Summary();
    }
    if (sender) {
        sent = sender->Summary();
    }
    // Either side may go first.
    const bool receiverFirst = std::uniform_int_distribution<int>(0, 1)(mRng) == 1;
    for (int step = 0; step < 2; ++step) {
        if ((step == 0) == receiverFirst) {
            receiver.reset();
            receiverObserver.MarkEndpointGone();
        } else {
            sender.reset();
            senderObserver.MarkEndpointGone();
        }
    }

    for (const auto& text : senderObserver.Violations()) {
        problem("sender observer: " + text);
    }
    for (const auto& text : receiverObserver.Violations()) {
        problem("receiver observer: " + text);
    }
    if (senderObserver.FinishedCount() != 1) {
        problem("the sender observer heard OnFinished " + std::to_string(senderObserver.FinishedCount()) + " times");
    }
    if (receiverStarted && receiverObserver.FinishedCount() != 1) {
        problem("the receiver observer heard OnFinished " + std::to_string(receiverObserver.FinishedCount()) +
                " times");
    }
    const std::string leftovers = CheckOnlyWholeCopies(tree, destination);
    if (!leftovers.empty()) {
        problem(leftovers);
    }
    for (const auto& [name, finalPath] : receiverObserver.CompletedFiles()) {
        if (orin::xfer::test::ReadBytes(finalPath) != orin::xfer::test::ReadBytes(tree.parent + "/" + name)) {
            problem("reported complete but not whole: " + finalPath);
        }
    }

    if (received.completed) {
        mResult = RunResult::kCompleted;
        const std::string difference = orin::xfer::test::TreeDifference(tree.parent, destination);
        if (!difference.empty()) {
            problem("completed (" + std::to_string(received.entriesTotal) + " entries, " +
                    std::to_string(received.filesDone) + " files, " + std::to_string(received.directoriesDone) +
                    " directories), but the copy differs: " + difference);
        }
        if (receiverObserver.CompletedCount() != fileCount) {
            problem("completed with " + std::to_string(receiverObserver.CompletedCount()) + " of " +
                    std::to_string(fileCount) + " files reported");
        }
    } else if (received.cancelled || (!receiverStarted && sent.cancelled)) {
        mResult = RunResult::kCancelled;
    } else {
        mResult = RunResult::kFailed;
        if (receiverStarted && received.error.empty() && mScenario != Scenario::kDestroyReceiverMidFile) {
            problem("the receiver failed without saying why");
        }
    }
    if (mScenario == Scenario::kClean && (!received.completed || !sent.completed)) {
        problem("a clean copy did not complete: receiver \"" + received.error + "\", sender \"" + sent.error + "\"");
    }
    if (mustStartCleanly(mScenario) && mScenario != Scenario::kDestroySenderMidFile && !received.completed &&
        !received.cancelled && received.error.empty() && receiverStarted &&
        mScenario != Scenario::kDestroyReceiverMidFile) {
        problem("the copy neither completed nor was cancelled, and no error was given");
    }

    mHadProblems = !problems.empty();
    mSeconds = std::chrono::duration<double>(Clock::now() - started).count();
    return problems;
}

void StressTally::Add(const StressRun& run)
{
    ++copies;
    failedCopies += run.hadProblems() ? 1 : 0;
    ++results[run.result()];
    ++scenarios[ScenarioName(run.scenario())];
    if (run.faultFired()) {
        ++faultsFired[InjectedFaultName(run.fault())];
    }
    cancelsFired += run.cancelFired() ? 1 : 0;
    slowestCopy = std::max(slowestCopy, run.seconds());
}

std::string StressTally::Report(double seconds) const
{
    uint64_t faults = 0;
    for (const auto& [name, count] : faultsFired) {
        faults += count;
    }
    auto resultCount = [this](RunResult result) {
        auto found = results.find(result);
        return found == results.end() ? uint64_t{0} : found->second;
    };
    std::ostringstream text;
    text << "stress summary: copies=" << copies << " completed=" << resultCount(RunResult::kCompleted)
         << " cancelled=" << resultCount(RunResult::kCancelled) << " failed=" << resultCount(RunResult::kFailed)
         << " cancels_fired=" << cancelsFired << " faults_fired=" << faults << " copies_with_problems=" << failedCopies
         << " seconds=" << static_cast<int>(seconds + 0.5) << " slowest_copy_ms=" << static_cast<int>(slowestCopy * 1000)
         << "\n";
    text << "stress scenarios:";
    for (const auto& [name, count] : scenarios) {
        text << " " << name << "=" << count;
    }
    text << "\nstress faults fired:";
    for (const auto& [name, count] : faultsFired) {
        text << " " << name << "=" << count;
    }
    text << "\n";
    return text.str();
}

}  // namespace orin::xfer::test
