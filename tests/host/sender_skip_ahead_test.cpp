// A sender whose receiver refuses some entries of the list: a request that
// passes over entries is served (the engine is handed a fresh slice from
// the requested entry), the passed-over entries are reported as skipped,
// not as failures, and the session ends partial. A receiver that asks for
// an earlier entry, one it refused, or one beyond the list ends the
// session cleanly.
#include <gtest/gtest.h>

#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "HostTestSupport.h"
#include "TestSupport.h"
#include "xferfm/host/FileList.h"
#include "xferfm/host/InProcessTransport.h"
#include "xferfm/host/SenderEndpoint.h"

namespace orin::xfer::host {
namespace {

using orin::xfer::test::PatternBytes;
using orin::xfer::test::TempDir;
using orin::xfer::test::waitUntil;
using namespace std::chrono_literals;

// A receiver played by hand: takes the list, accepts every announced file,
// keeps the bytes of each transfer, and sends what the test tells it to.
class ScriptedReceiver final : public ITransportHandler {
    template <typename Read>
    auto locked(Read read) const
    {
        std::lock_guard<std::mutex> lock(mMutex);
        return read();
    }

public:
    explicit ScriptedReceiver(ITransport& link) : mLink(link) {}

    void OnMessage(Message message) override
    {
        std::lock_guard<std::mutex> lock(mMutex);
        if (const auto* list = std::get_if<FileListMessage>(&message)) {
            ParsedFileList parsed;
            std::string error;
            EXPECT_TRUE(ParseFileList(list->json, parsed, error)) << error;
            for (const FileListEntry& entry : parsed.entries) {
                mNames.push_back(entry.RequestName());
            }
            mListReceived = true;
        } else if (const auto* start = std::get_if<FileStart>(&message)) {
            mAnnounced.push_back(start->name);
            mNameByTransfer[start->transferId] = start->name;
            if (!start->isDirectory) {
                mLink.Send(FileAccept{start->transferId});
            }
        } else if (const auto* data = std::get_if<FileData>(&message)) {
            auto& bytes = mBytes[mNameByTransfer[data->transferId]];
            bytes.insert(bytes.end(), data->bytes.begin(), data->bytes.end());
        } else if (const auto* error = std::get_if<TransferError>(&message)) {
            mErrors.push_back(error->message);
        } else if (std::holds_alternative<EndOfList>(message)) {
            mEndOfList = true;
        } else if (std::holds_alternative<Disconnect>(message)) {
            mGoodbye = true;
        }
    }
    void OnTransportClosed(const std::string&) override {}

    // Asks for entry `index` under the name the list gives it.
    void Request(uint64_t index)
    {
        std::string name;
        {
            std::lock_guard<std::mutex> lock(mMutex);
            name = index < mNames.size() ? mNames[static_cast<size_t>(index)] : "beyond";
        }
        mLink.Send(NextFileRequest{static_cast<uint32_t>(index + 1), index, name, 0});
    }

    bool ListReceived() const { return locked([this] { return mListReceived; }); }
    std::vector<std::string> Names() const { return locked([this] { return mNames; }); }
    std::vector<std::string> Announced() const { return locked([this] { return mAnnounced; }); }
    std::vector<uint8_t> BytesOf(const std::string& name) const
    {
        return locked([&] {
            const auto found = mBytes.find(name);
            return found == mBytes.end() ? std::vector<uint8_t>() : found->second;
        });
    }
    std::vector<std::string> Errors() const { return locked([this] { return mErrors; }); }
    bool EndOfListHeard() const { return locked([this] { return mEndOfList; }); }
    bool GoodbyeHeard() const { return locked([this] { return mGoodbye; }); }

private:
    ITransport& mLink;
    mutable std::mutex mMutex;
    bool mListReceived = false;
    std::vector<std::string> mNames;
    std::vector<std::string> mAnnounced;
    std::map<uint32_t, std::string> mNameByTransfer;
    std::map<std::string, std::vector<uint8_t>> mBytes;
    std::vector<std::string> mErrors;
    bool mEndOfList = false;
    bool mGoodbye = false;
};

class SkipRecorder final : public SenderObserver {
public:
    void OnEntrySkipped(const std::string& sourcePath, const std::string& reason) override
    {
        std::lock_guard<std::mutex> lock(mMutex);
        mSkipped.push_back(sourcePath + " | " + reason);
    }
    void OnFailure(const std::string&, const std::string& message) override
    {
        std::lock_guard<std::mutex> lock(mMutex);
        mFailures.push_back(message);
    }
    std::vector<std::string> Skipped() const
    {
        std::lock_guard<std::mutex> lock(mMutex);
        return mSkipped;
    }
    std::vector<std::string> Failures() const
    {
        std::lock_guard<std::mutex> lock(mMutex);
        return mFailures;
    }

private:
    mutable std::mutex mMutex;
    std::vector<std::string> mSkipped;
    std::vector<std::string> mFailures;
};

class SenderSkipAhead : public ::testing::Test {
protected:
    // `count` files f00, f01, ... offered in that order.
    void Offer(size_t count)
    {
        std::vector<std::string> paths;
        for (size_t index = 0; index < count; ++index) {
            char name[24];
            std::snprintf(name, sizeof name, "f%02zu", index);
            const std::string path = scratch.Join(name);
            contents[name] = PatternBytes(100 + index, static_cast<uint32_t>(index + 1));
            test::WriteFile(path, contents[name]);
            paths.push_back(path);
        }
        auto ends = InProcessTransport::CreatePair();
        receiverEnd = std::move(ends.second);
        receiver = std::make_unique<ScriptedReceiver>(*receiverEnd);
        SenderOptions options;
        options.observer = &observer;
        sender = std::make_unique<SenderEndpoint>(std::move(ends.first), options);
        std::string error;
        ASSERT_TRUE(sender->Offer(paths, error)) << error;
        receiverEnd->Start(*receiver);
        receiverEnd->Send(FileListRequest{});
        ASSERT_TRUE(waitUntil([&] { return receiver->ListReceived(); }));
        ASSERT_EQ(receiver->Names().size(), count);
    }

    // Requests `index` and waits until its bytes have all arrived.
    void Fetch(uint64_t index)
    {
        const std::string name = receiver->Names()[static_cast<size_t>(index)];
        receiver->Request(index);
        ASSERT_TRUE(waitUntil([&] { return receiver->BytesOf(name).size() == contents[name].size(); }))
            << name << ": " << receiver->BytesOf(name).size() << " bytes";
        EXPECT_EQ(receiver->BytesOf(name), contents[name]) << name;
    }

    void Refuse(uint64_t index, const std::string& reason) { receiverEnd->Send(EntryRefused{index, reason}); }

    void ExpectSessionEndsWith(const std::string& problem)
    {
        ASSERT_TRUE(sender->WaitFinished(10s));
        const TransferSummary summary = sender->Summary();
        EXPECT_FALSE(summary.completed);
        EXPECT_FALSE(summary.partial);
        EXPECT_NE(summary.error.find(problem), std::string::npos) << summary.error;
        ASSERT_TRUE(waitUntil([&] { return receiver->GoodbyeHeard() && !receiver->Errors().empty(); }));
        EXPECT_NE(receiver->Errors().front().find(problem), std::string::npos) << receiver->Errors().front();
    }

    test::QuietEngineLog quiet;
    TempDir scratch;
    std::map<std::string, std::vector<uint8_t>> contents;
    SkipRecorder observer;
    std::unique_ptr<InProcessTransport> receiverEnd;
    std::unique_ptr<ScriptedReceiver> receiver;
    std::unique_ptr<SenderEndpoint> sender;  // destroyed first: it closes the link
};

TEST_F(SenderSkipAhead, ARequestPastRefusedEntriesIsServedAndTheySkipped)
{
    // More than one slice of the engine's upload list, so the skip lands
    // beyond the slice the engine holds.
    Offer(70);
    for (uint64_t index = 1; index <= 5; ++index) {
        Refuse(index, "refused remote name \"f0" + std::to_string(index) + "\": a test rule");
    }
    Fetch(0);
    Fetch(67);  // 6..66 are passed over without a refusal
    Fetch(68);
    Fetch(69);
    receiverEnd->Send(Disconnect{true, ""});
    ASSERT_TRUE(sender->WaitFinished(10s));

    EXPECT_EQ(receiver->Announced(), (std::vector<std::string>{"f00", "f67", "f68", "f69"}));
    const TransferSummary summary = sender->Summary();
    EXPECT_FALSE(summary.completed);
    EXPECT_TRUE(summary.partial);
    EXPECT_FALSE(summary.cancelled);
    EXPECT_EQ(summary.filesDone, 4u);
    ASSERT_EQ(summary.skipped.size(), 66u);
    EXPECT_EQ(summary.skipped[0].path, scratch.Join("f01"));
    EXPECT_EQ(summary.skipped[0].reason, "refused remote name \"f01\": a test rule");
    EXPECT_EQ(summary.skipped[5].path, scratch.Join("f06"));
    EXPECT_EQ(summary.skipped[5].reason, "the receiver did not ask for it");
    EXPECT_EQ(summary.skipped[65].path, scratch.Join("f66"));
    EXPECT_NE(summary.error.find("the receiver refused 66 entries of 70, the rest was copied: " +
                                 scratch.Join("f01") + ": refused remote name \"f01\": a test rule"),
              std::string::npos)
        << summary.error;

    const auto skipped = observer.Skipped();
    ASSERT_EQ(skipped.size(), 66u);
    EXPECT_EQ(skipped[0], scratch.Join("f01") + " | refused remote name \"f01\": a test rule");
    EXPECT_TRUE(observer.Failures().empty()) << "a skipped entry is not a failure of the sender";
    EXPECT_TRUE(receiver->Errors().empty());
}

TEST_F(SenderSkipAhead, RefusedEntriesAtTheEndAreSkippedWhenTheReceiverIsDone)
{
    Offer(3);
    Refuse(2, "no");
    Fetch(0);
    Fetch(1);
    receiverEnd->Send(Disconnect{true, ""});
    ASSERT_TRUE(sender->WaitFinished(10s));
    const TransferSummary summary = sender->Summary();
    EXPECT_TRUE(summary.partial);
    ASSERT_EQ(summary.skipped.size(), 1u);
    EXPECT_EQ(summary.skipped[0].path, scratch.Join("f02"));
    EXPECT_EQ(summary.skipped[0].reason, "no");
}

TEST_F(SenderSkipAhead, ARefusalOfAnEntryNotAheadIsIgnored)
{
    Offer(2);
    Fetch(0);
    Refuse(0, "too late");       // already announced
    Refuse(2, "not in the list");
    Refuse(~0ull, "far beyond");
    Fetch(1);
    receiverEnd->Send(Disconnect{true, ""});
    ASSERT_TRUE(sender->WaitFinished(10s));
    const TransferSummary summary = sender->Summary();
    EXPECT_TRUE(summary.completed) << summary.error;
    EXPECT_FALSE(summary.partial);
    EXPECT_TRUE(summary.skipped.empty());
    EXPECT_TRUE(observer.Skipped().empty());
}

TEST_F(SenderSkipAhead, AnEarlierIndexEndsTheSessionCleanly)
{
    Offer(3);
    Fetch(0);
    Fetch(2);
    receiver->Request(1);  // passed over: may not come back
    ExpectSessionEndsWith("the receiver asked for entry 1 out of order");
    EXPECT_EQ(receiver->Announced(), (std::vector<std::string>{"f00", "f02"}));
}

TEST_F(SenderSkipAhead, TheSameIndexTwiceEndsTheSessionCleanly)
{
    Offer(2);
    Fetch(0);
    receiver->Request(0);
    ExpectSessionEndsWith("the receiver asked for entry 0 out of order");
    EXPECT_EQ(receiver->Announced(), std::vector<std::string>{"f00"});
}

TEST_F(SenderSkipAhead, AnIndexBeyondTheListEndsTheSessionCleanly)
{
    Offer(2);
    receiver->Request(~0ull);
    ExpectSessionEndsWith("the receiver asked for entry 18446744073709551615 of a list of 2 entries");
    EXPECT_TRUE(receiver->EndOfListHeard());
    EXPECT_TRUE(receiver->Announced().empty());
}

TEST_F(SenderSkipAhead, ARequestForARefusedEntryEndsTheSession)
{
    Offer(2);
    Refuse(1, "no");
    Fetch(0);
    receiver->Request(1);
    ExpectSessionEndsWith("the receiver asked for entry 1, which it had refused");
    EXPECT_EQ(receiver->Announced(), std::vector<std::string>{"f00"});
}

}  // namespace
}  // namespace orin::xfer::host
