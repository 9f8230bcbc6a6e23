// A receiver with name rules: every name of the sender's list is fitted to
// the destination's platform before anything is asked for. Mapped names
// land under their mapped form and are reported; refused ones are left
// out (with everything inside them), the sender hears of each, and the
// rest of the list is copied; a map-back restores what a mapping made.
#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "HostTestSupport.h"
#include "TestSupport.h"
#include "xferfm/host/InProcessTransport.h"
#include "xferfm/host/ReceiverEndpoint.h"
#include "xferfm/host/SenderEndpoint.h"

namespace orin::xfer::host {
namespace {

using orin::xfer::test::PatternBytes;
using orin::xfer::test::ReadBytes;
using orin::xfer::test::TempDir;
using namespace std::chrono_literals;
using test::ListTree;
using test::MakeDirectory;
using test::WriteFile;

struct CopyResult {
    TransferSummary receiver;
    TransferSummary sender;
};

class RefusalRecorder final : public ReceiverObserver {
public:
    void OnNameRefused(size_t, const std::string& name, const std::string&) override { refused.push_back(name); }
    void OnNameMapped(const std::string& name, const std::string& mapped) override
    {
        mapped_.push_back(name + " -> " + mapped);
    }
    void OnFileStarted(const std::string&, uint64_t) override { fileStartedAfterNames = !refused.empty() || !mapped_.empty(); }
    std::vector<std::string> refused;
    std::vector<std::string> mapped_;
    bool fileStartedAfterNames = false;
};

CopyResult Copy(const std::vector<std::string>& paths, ReceiverOptions options)
{
    auto link = InProcessTransport::CreatePair();
    SenderEndpoint sender(std::move(link.first));
    ReceiverEndpoint receiver(std::move(link.second), options);
    std::string error;
    EXPECT_TRUE(sender.Offer(paths, error)) << error;
    EXPECT_TRUE(receiver.Start(error)) << error;
    EXPECT_TRUE(receiver.WaitFinished(20s));
    EXPECT_TRUE(sender.WaitFinished(5s));
    return {receiver.Summary(), sender.Summary()};
}

ReceiverNameRules Rules(NameTarget target, NameAction action, bool mapBack = false)
{
    ReceiverNameRules rules;
    rules.target = target;
    rules.action = action;
    rules.mapBack = mapBack;
    return rules;
}

class ReceiverNameRulesTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        root = scratch.Join("src/top");
        destination = scratch.Join("dest");
        MakeDirectory(scratch.Join("src"));
        MakeDirectory(root);
        WriteFile(root + "/a:b", PatternBytes(1000, 1));
        WriteFile(root + "/CON.txt", PatternBytes(10, 2));
        WriteFile(root + "/x.", PatternBytes(20, 3));
        WriteFile(root + "/plain", PatternBytes(30, 4));
        MakeDirectory(root + "/d?r");
        WriteFile(root + "/d?r/in", PatternBytes(40, 5));
        MakeDirectory(destination);
    }

    test::QuietEngineLog quiet;
    TempDir scratch;
    std::string root;
    std::string destination;
};

TEST_F(ReceiverNameRulesTest, WithoutRulesEveryNameLandsByteForByte)
{
    ReceiverOptions options;
    options.destinationDir = destination;

    const CopyResult result = Copy({root}, options);

    EXPECT_TRUE(result.receiver.completed);
    EXPECT_TRUE(result.receiver.namesMapped.empty());
    EXPECT_EQ(ListTree(destination + "/top"),
              (std::vector<std::string>{"CON.txt", "a:b", "d?r/", "d?r/in", "plain", "x."}));
}

TEST_F(ReceiverNameRulesTest, AWindowsMapLandsEveryNameUnderItsMappedFormAndReportsIt)
{
    RefusalRecorder recorder;
    ReceiverOptions options;
    options.destinationDir = destination;
    options.names = Rules(NameTarget::kWindows, NameAction::kMap);
    options.observer = &recorder;

    const CopyResult result = Copy({root}, options);

    ASSERT_TRUE(result.receiver.completed) << result.receiver.error;
    EXPECT_TRUE(result.sender.completed) << result.sender.error;
    EXPECT_EQ(ListTree(destination + "/top"),
              (std::vector<std::string>{"CO\xEF\xBC\xAE.txt", "a\xEF\xBC\x9A" "b", "d\xEF\xBC\x9Fr/",
                                        "d\xEF\xBC\x9Fr/in", "plain", "x\xEF\xBC\x8E"}));
    EXPECT_EQ(ReadBytes(destination + "/top/d\xEF\xBC\x9Fr/in"), PatternBytes(40, 5));
    EXPECT_EQ(result.receiver.namesMapped.size(), 4u);
    EXPECT_TRUE(result.receiver.namesRefused.empty());
    EXPECT_EQ(recorder.mapped_.size(), 4u);
    EXPECT_TRUE(recorder.fileStartedAfterNames);
}

TEST_F(ReceiverNameRulesTest, ARefusingPolicyLeavesOutEachBadNameAndWhatIsInsideItAndCopiesTheRest)
{
    RefusalRecorder recorder;
    ReceiverOptions options;
    options.destinationDir = destination;
    options.names = Rules(NameTarget::kWindows, NameAction::kRefuse);
    options.observer = &recorder;

    const CopyResult result = Copy({root}, options);

    EXPECT_TRUE(result.receiver.completed) << result.receiver.error;
    EXPECT_EQ(ListTree(destination + "/top"), (std::vector<std::string>{"plain"}));
    EXPECT_EQ(recorder.refused,
              (std::vector<std::string>{"top/CON.txt", "top/a:b", "top/d?r", "top/d?r/in", "top/x."}));
    ASSERT_EQ(result.receiver.namesRefused.size(), 5u);
    EXPECT_NE(result.receiver.namesRefused[0].reason.find("device name"), std::string::npos)
        << result.receiver.namesRefused[0].reason;
    // The sender heard each refusal for the entry it offered.
    EXPECT_TRUE(result.sender.partial);
    ASSERT_EQ(result.sender.skipped.size(), 5u);
    EXPECT_EQ(result.sender.skipped[0].path, root + "/CON.txt");
}

TEST_F(ReceiverNameRulesTest, NamesThatDifferOnlyInCaseKeepTheFirstAndRefuseTheLater)
{
    WriteFile(root + "/Aa", PatternBytes(5, 6));
    WriteFile(root + "/aA", PatternBytes(6, 7));
    ReceiverOptions options;
    options.destinationDir = destination;
    options.names = Rules(NameTarget::kPortable, NameAction::kMap);

    const CopyResult result = Copy({root}, options);

    EXPECT_TRUE(result.receiver.completed) << result.receiver.error;
    EXPECT_EQ(ReadBytes(destination + "/top/Aa"), PatternBytes(5, 6));
    ASSERT_EQ(result.receiver.namesRefused.size(), 1u);
    EXPECT_EQ(result.receiver.namesRefused[0].path, "top/aA");
    EXPECT_NE(result.receiver.namesRefused[0].reason.find("top/Aa"), std::string::npos);
}

TEST_F(ReceiverNameRulesTest, AMapBackRestoresTheNamesAMappingMadeByteForByte)
{
    const std::string mappedDestination = scratch.Join("mapped");
    const std::string restored = scratch.Join("restored");
    MakeDirectory(mappedDestination);
    MakeDirectory(restored);
    ReceiverOptions there;
    there.destinationDir = mappedDestination;
    there.names = Rules(NameTarget::kWindows, NameAction::kMap);
    ASSERT_TRUE(Copy({root}, there).receiver.completed);
    ReceiverOptions back;
    back.destinationDir = restored;
    back.names = Rules(NameTarget::kPosix, NameAction::kMap, true);

    const CopyResult result = Copy({mappedDestination + "/top"}, back);

    ASSERT_TRUE(result.receiver.completed) << result.receiver.error;
    EXPECT_EQ(ListTree(restored + "/top"), ListTree(root));
    EXPECT_EQ(ReadBytes(restored + "/top/a:b"), PatternBytes(1000, 1));
    EXPECT_EQ(result.receiver.namesMapped.size(), 4u);
}

}  // namespace
}  // namespace orin::xfer::host
