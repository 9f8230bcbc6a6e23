// Dry runs and resumed copies through the host kit's network sessions,
// without the tool: a NetworkSender offering with OfferOptions to a
// NetworkReceiver on loopback. Each test is one promise of OfferOptions as
// NetworkSender.h, NetworkReceiver.h and docs/protocol.md give it.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>

#include "LinkTestSupport.h"
#include "ServingReceiver.h"
#include "TempDir.h"
#include "TestSupport.h"
#include "TreeCompare.h"
#include "Wait.h"
#include "xferfm/host/NetworkReceiver.h"
#include "xferfm/host/NetworkSender.h"
#include "xferfm/host/ResumeNote.h"
#include "xferfm/host/SourcePlan.h"

namespace orin::xfer::test {
namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;

// Plans `sources`, connects, offers with `offer` and waits (bounded) for the end.
// What the sender's observer hears about entries that do not go.
class EntryRecorder final : public SenderObserver {
public:
    void OnEntrySkipped(const std::string& sourcePath, const std::string&) override { skipped.push_back(sourcePath); }
    void OnEntryKept(const std::string& sourcePath) override { kept.push_back(sourcePath); }
    std::vector<std::string> skipped;  // the endpoint's calls are serialised and over once it has finished
    std::vector<std::string> kept;
};

SentSession OfferWith(const HostPort& address, const std::vector<std::string>& sources, OfferOptions offer,
                      SenderObserver* observer = nullptr)
{
    SourcePlan plan;
    SourceProblem problem;
    EXPECT_TRUE(PlanSources(sources, plan, problem)) << DescribeSourceProblem(problem);
    NetworkSenderOptions options;
    options.address = address;
    options.offer = offer;
    options.endpoint.observer = observer;
    NetworkSender sender(options);
    std::string error;
    EXPECT_TRUE(sender.Connect(error)) << error;
    EXPECT_EQ(sender.Offer(plan, error), NetworkSender::OfferResult::kOffered) << error;
    EXPECT_TRUE(waitUntil([&sender] { return sender.WaitFinished(10ms); }, 20s));
    return sender.Result();
}

TEST(OfferOptionsSessionTest, ADryRunSaysWhereEachTopLevelEntryWouldLandAndWritesNothing)
{
    TempDir scratch;
    WriteText(scratch / "src/report.pdf", "pdf");
    WriteBytes(scratch / "src/tree/b.bin", PatternBytes(100000, 2));
    WriteText(scratch / "dest/report.pdf", "taken");
    LoopbackReceiver receiver(scratch / "dest");
    const std::string before = TreeFingerprint(scratch / "dest", FingerprintTimes::kLeftOut);

    const SentSession sent =
        OfferWith(receiver.Address(), {scratch / "src/report.pdf", scratch / "src/tree"}, OfferOptions{true, false});

    EXPECT_EQ(sent.outcome, SentSession::Outcome::kPreviewed) << sent.failure << sent.summary.error;
    ASSERT_EQ(sent.landings.size(), 2u);
    EXPECT_EQ(sent.landings[0], (EntryLanding{"report.pdf", "report(1).pdf", false}));
    EXPECT_EQ(sent.landings[1], (EntryLanding{"tree", "tree", false}));
    EXPECT_TRUE(sent.summary.skipped.empty()) << "what a dry run passes over is previewed, not skipped";
    ASSERT_TRUE(receiver.WaitForSessions(1));
    const ReceivedSession session = receiver.Log().Sessions().front();
    EXPECT_EQ(session.outcome, ReceivedSession::Outcome::kOk) << session.failure;
    EXPECT_TRUE(session.offer.dryRun);
    EXPECT_EQ(session.summary.filesDone, 0u);
    EXPECT_EQ(TreeFingerprint(scratch / "dest", FingerprintTimes::kLeftOut), before);
}

TEST(OfferOptionsSessionTest, AResumedOfferContinuesUnderTheNotedNameAndKeepsCompleteFiles)
{
    TempDir scratch;
    WriteText(scratch / "src/tree/a.txt", "alpha");
    WriteBytes(scratch / "src/tree/b.bin", PatternBytes(100000, 3));
    // An interrupted copy landed "tree" as "tree(1)" with a.txt complete
    // and b.bin not at all.
    WriteText(scratch / "dest/tree/theirs.txt", "the receiver's own");
    fs::create_directories(scratch / "dest/tree(1)");
    fs::copy_file(scratch / "src/tree/a.txt", scratch / "dest/tree(1)/a.txt");
    const timespec times[2] = {{0, UTIME_OMIT}, {1600000000, 5}};
    ASSERT_EQ(::utimensat(AT_FDCWD, (scratch / "src/tree/a.txt").c_str(), times, 0), 0);
    ASSERT_EQ(::utimensat(AT_FDCWD, (scratch / "dest/tree(1)/a.txt").c_str(), times, 0), 0);
    WriteResumeNote(scratch / "dest", {{"tree", "tree(1)"}});
    LoopbackReceiver receiver(scratch / "dest");
    EntryRecorder recorder;

    const SentSession sent =
        OfferWith(receiver.Address(), {scratch / "src/tree"}, OfferOptions{false, true}, &recorder);

    EXPECT_EQ(sent.outcome, SentSession::Outcome::kCompleted) << sent.failure << sent.summary.error;
    EXPECT_EQ(sent.alreadyComplete, std::vector<std::string>{"tree/a.txt"});
    EXPECT_EQ(recorder.kept, std::vector<std::string>{scratch / "src/tree/a.txt"});
    EXPECT_TRUE(recorder.skipped.empty());
    ASSERT_EQ(sent.landings.size(), 1u);
    EXPECT_EQ(sent.landings[0], (EntryLanding{"tree", "tree(1)", true}));
    EXPECT_EQ(sent.summary.filesDone, 1u) << "only b.bin goes";
    ASSERT_TRUE(receiver.WaitForSessions(1));
    const ReceivedSession session = receiver.Log().Sessions().front();
    EXPECT_EQ(session.outcome, ReceivedSession::Outcome::kOk) << session.failure;
    EXPECT_EQ(session.entriesComplete, 1u);
    EXPECT_TRUE(session.renamed.empty()) << "a resumed entry is not a rename";
    EXPECT_EQ(TreeDifference(scratch / "src/tree", scratch / "dest/tree(1)", TreeCompare::kBytes), "");
    EXPECT_EQ(NamesIn(scratch / "dest"), (std::vector<std::string>{"tree", "tree(1)"})) << "the note is gone";
}

TEST(OfferOptionsSessionTest, AResumeWithoutTheReceiversNoteAdoptsNoExistingDirectory)
{
    TempDir scratch;
    WriteText(scratch / "src/tree/a.txt", "alpha");
    WriteText(scratch / "dest/tree/a.txt", "the receiver's own, not to be replaced");
    LoopbackReceiver receiver(scratch / "dest");

    const SentSession sent = OfferWith(receiver.Address(), {scratch / "src/tree"}, OfferOptions{false, true});

    EXPECT_EQ(sent.outcome, SentSession::Outcome::kCompleted) << sent.failure << sent.summary.error;
    ASSERT_EQ(sent.landings.size(), 1u);
    EXPECT_EQ(sent.landings[0], (EntryLanding{"tree", "tree(1)", false}));
    const std::string own = "the receiver's own, not to be replaced";
    EXPECT_EQ(ReadBytes(scratch / "dest/tree/a.txt"), std::vector<uint8_t>(own.begin(), own.end()));
    EXPECT_EQ(TreeDifference(scratch / "src/tree", scratch / "dest/tree(1)", TreeCompare::kBytes), "");
}

}  // namespace
}  // namespace orin::xfer::test
