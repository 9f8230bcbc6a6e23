// Creating the manager (directly and through NewInstance), its starting
// state, the two loopers it makes and the order in which it tears down.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "ManagerCoreSupport.h"
#include "TestSupport.h"

namespace orin::xfer::test {
namespace {

using ::testing::ElementsAre;
using ::testing::StartsWith;

std::string PointerText(const void* pointer)
{
    std::ostringstream out;
    out << pointer;
    return out.str();
}

TEST(NewInstance, LogsTheFactoryAddressThenTheTwoConstructionLines)
{
    ScopedCapturingLogger logger;
    RecordingListener listener;
    auto factory = std::make_unique<TestLooperFactory>();
    const void* factoryAddress = factory.get();

    auto manager = IFileTransferManager::NewInstance(&listener, std::move(factory), false, nullptr);
    ASSERT_NE(manager, nullptr);

    const std::vector<LogLine> lines = logger->Lines();
    ASSERT_EQ(lines.size(), 3u);
    for (const LogLine& line : lines) {
        EXPECT_EQ(line.level, 2);
    }
    const std::string address = PointerText(factoryAddress);
    EXPECT_THAT(address, StartsWith("0x"));
    EXPECT_THAT(MessagesOf(lines), ElementsAre("IFileTransferManager::NewInstance " + address,
                                               "Create OrinFileTransferManager",
                                               "Create OrinFileTransferManager done"));
}

TEST(NewInstance, ReturnsTheConcreteManagerWiredToItsArguments)
{
    ScopedCapturingLogger logger;
    RecordingListener listener;
    auto journal = std::make_shared<LooperJournal>();
    auto manager =
        IFileTransferManager::NewInstance(&listener, std::make_unique<TestLooperFactory>(journal), true, nullptr);
    auto* concrete = dynamic_cast<OrinFileTransferManager*>(manager.get());
    ASSERT_NE(concrete, nullptr);
    EXPECT_EQ(concrete->mListener, &listener);
    EXPECT_TRUE(concrete->mFlowControl);
    EXPECT_EQ(concrete->mRateLimiter, nullptr);
    EXPECT_THAT(journal->Entries(), ElementsAre("create:<main>", "create:xfer-downloader"));
}

TEST(NewInstance, WorksWithoutARateLimiter)
{
    ScopedCapturingLogger logger;
    RecordingListener listener;
    auto manager =
        IFileTransferManager::NewInstance(&listener, std::make_unique<TestLooperFactory>(), false, nullptr);
    ASSERT_NE(manager, nullptr);
    manager->SetBandwidth(5000);
    EXPECT_EQ(dynamic_cast<OrinFileTransferManager&>(*manager).mBandwidth, 5000u);
}

TEST(NewInstance, HandsTheRateLimiterFiftyMegabitsOnce)
{
    ScopedCapturingLogger logger;
    LimiterHandle limiter;
    auto manager = IFileTransferManager::NewInstance(nullptr, std::make_unique<TestLooperFactory>(), false,
                                                     std::move(limiter.owned));
    const std::vector<RateLimiterCall> calls = limiter.raw->Calls();
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].name, "SetBandwidth");
    EXPECT_EQ(calls[0].value, 50000000u);
}

TEST(NewInstance, WorksWithoutAListener)
{
    ScopedCapturingLogger logger;
    auto manager = IFileTransferManager::NewInstance(nullptr, std::make_unique<TestLooperFactory>(), false, nullptr);
    ASSERT_NE(manager, nullptr);
    manager->Cancel();
    manager->ProcessXferError(1, 3);
    manager->ProcessTansferDisconnect();
    EXPECT_EQ(logger->CountMessage("client clipboard paste cancel", 2), 1u);
}

// A factory that cannot make the writer looper.
class NoWriterFactory : public TestLooperFactory {
public:
    using TestLooperFactory::TestLooperFactory;
    std::unique_ptr<IFileTransferLooper> CreateLooper() override { return TestLooperFactory::CreateLooper(); }
    std::unique_ptr<IFileTransferLooper> CreateLooper(const std::string& name) override
    {
        throw std::runtime_error("no looper named " + name);
    }
};

TEST(NewInstance, AFailedConstructionPassesTheErrorOnAndReleasesWhatItWasGiven)
{
    ScopedCapturingLogger logger;
    auto journal = std::make_shared<LooperJournal>();
    auto limiter = std::make_unique<JournalingRateLimiter>(journal);
    try {
        IFileTransferManager::NewInstance(nullptr, std::make_unique<NoWriterFactory>(journal), false,
                                          std::move(limiter));
        FAIL() << "construction should have failed";
    } catch (const std::runtime_error& error) {
        EXPECT_STREQ(error.what(), "no looper named xfer-downloader");
    }
    EXPECT_EQ(journal->Count("create:<main>"), 1u);
    EXPECT_EQ(journal->Count("destroy:<main>"), 1u);
    EXPECT_EQ(journal->Count("destroy-factory"), 1u);
    EXPECT_EQ(journal->Count("destroy-limiter"), 1u);
    EXPECT_EQ(logger->CountMessage("Create OrinFileTransferManager done", 2), 0u);
}

TEST(Construction, MembersStartAtTheirDocumentedValues)
{
    ScopedCapturingLogger logger;
    ManagerFixture fixture(false, true);
    const OrinFileTransferManager& m = *fixture.manager;
    EXPECT_FALSE(m.mDownloadComplete);
    EXPECT_EQ(m.mCacheDirPath, "");
    EXPECT_TRUE(m.mUploadFileList.empty());
    EXPECT_TRUE(m.mDownloadFileList.empty());
    EXPECT_TRUE(m.mDownloadFileRecordList.empty());
    EXPECT_FALSE(m.mFileRequested);
    EXPECT_TRUE(m.mFileTaskList.empty());
    EXPECT_FALSE(m.mRegisterOnlyRequest);
    EXPECT_EQ(m.mCurrentDownloadTransferId, 0u);
    EXPECT_TRUE(m.mUploadAcked);
    EXPECT_EQ(m.mUnackedChunkCount, 0u);
    EXPECT_FALSE(m.mUploading);
    EXPECT_FALSE(m.mQuitUpload);
    EXPECT_EQ(m.mProgressCountdown, 0);
    EXPECT_EQ(m.mUploadWindowSize, 0u);
    EXPECT_EQ(m.mBandwidth, 0u);
    EXPECT_EQ(m.mRateLimiter.get(), fixture.limiter);
    EXPECT_EQ(m.mSystemType, "");
    EXPECT_EQ(m.mListener, &fixture.listener);
    EXPECT_FALSE(m.mFlowControl);
    EXPECT_NE(m.mLooperFactory, nullptr);
    EXPECT_NE(m.mMainLooper, nullptr);
    EXPECT_NE(m.mWriterLooper, nullptr);
    EXPECT_EQ(m.mLastPercent, 0u);
    EXPECT_TRUE(fixture.listener.Events().empty());
}

TEST(Construction, FlowControlComesFromTheArgument)
{
    ScopedCapturingLogger logger;
    ManagerFixture on(true);
    ManagerFixture off(false);
    EXPECT_TRUE(on.manager->mFlowControl);
    EXPECT_FALSE(off.manager->mFlowControl);
}

TEST(Construction, LogsCreationAndCompletionAtLevelTwo)
{
    ScopedCapturingLogger logger;
    ManagerFixture fixture;
    EXPECT_THAT(MessagesOf(logger->Lines()),
                ElementsAre("Create OrinFileTransferManager", "Create OrinFileTransferManager done"));
    EXPECT_EQ(logger->CountMessage("Create OrinFileTransferManager", 2), 1u);
    EXPECT_EQ(logger->CountMessage("Create OrinFileTransferManager done", 2), 1u);
}

TEST(Construction, SetsTheLimiterBetweenTheFirstLineAndTheLoopers)
{
    auto journal = std::make_shared<LooperJournal>();
    ScopedJournalingLogger logger(journal);
    auto limiter = std::make_unique<JournalingRateLimiter>(journal);
    OrinFileTransferManager manager(nullptr, std::make_unique<TestLooperFactory>(journal), false,
                                    std::move(limiter));
    EXPECT_THAT(journal->Entries(),
                ElementsAre("log:Create OrinFileTransferManager", "limiter:SetBandwidth:50000000", "create:<main>",
                            "create:xfer-downloader", "log:Create OrinFileTransferManager done"));
}

TEST(Construction, MakesTheUnnamedMainLooperThenTheWriterLooper)
{
    ScopedCapturingLogger logger;
    ManagerFixture fixture;
    EXPECT_THAT(fixture.journal->Entries(), ElementsAre("create:<main>", "create:xfer-downloader"));
}

TEST(Construction, EachLooperRunsItsJobsOnItsOwnThread)
{
    ScopedCapturingLogger logger;
    ManagerFixture fixture;
    std::atomic<bool> mainRan{false};
    std::atomic<bool> writerRan{false};
    std::thread::id mainThread;
    std::thread::id writerThread;
    fixture.manager->mMainLooper->Post([&] {
        mainThread = std::this_thread::get_id();
        mainRan = true;
    });
    fixture.manager->mWriterLooper->Post([&] {
        writerThread = std::this_thread::get_id();
        writerRan = true;
    });
    ASSERT_TRUE(waitUntil([&] { return mainRan && writerRan; }));
    EXPECT_TRUE(fixture.journal->IsThreadOf("<main>", mainThread));
    EXPECT_TRUE(fixture.journal->IsThreadOf("xfer-downloader", writerThread));
    EXPECT_NE(mainThread, writerThread);
}

// Teardown: ClearTask replaces the writer looper first (destroy, then a fresh
// one), then the members go: writer looper, main looper, factory, and later
// the rate limiter.
TEST(Teardown, DestroysWriterThenMainLooperThenFactoryThenLimiter)
{
    ScopedCapturingLogger logger;
    auto journal = std::make_shared<LooperJournal>();
    {
        auto limiter = std::make_unique<JournalingRateLimiter>(journal);
        OrinFileTransferManager manager(nullptr, std::make_unique<TestLooperFactory>(journal), false,
                                        std::move(limiter));
    }
    EXPECT_THAT(journal->Entries(),
                ElementsAre("limiter:SetBandwidth:50000000", "create:<main>", "create:xfer-downloader",
                            // ClearTask stops the writer and makes a fresh one
                            "destroy:xfer-downloader", "create:xfer-downloader",
                            // then the members, in reverse declaration order
                            "destroy:xfer-downloader", "destroy:<main>", "destroy-factory", "destroy-limiter"));
}

TEST(Teardown, ClearsTasksQuitsUploadAndNeverCallsTheListener)
{
    ScopedCapturingLogger logger;
    auto journal = std::make_shared<LooperJournal>();
    RecordingListener listener;
    std::shared_ptr<FileTransferTask> heldUpload = MakeTask(1, 3);
    std::shared_ptr<FileTransferTask> heldDownload = MakeTask(1, 4);
    {
        OrinFileTransferManager manager(&listener, std::make_unique<TestLooperFactory>(journal), false, nullptr);
        manager.mFileTaskList = {heldUpload, heldDownload};
        manager.mUploadFileList = {DescriptionNamed("up")};
        manager.mDownloadFileList = {DescriptionNamed("down")};
        logger->Clear();
    }
    // The manager's references are gone; the test's own keep the tasks.
    EXPECT_EQ(heldUpload.use_count(), 1);
    EXPECT_EQ(heldDownload.use_count(), 1);
    EXPECT_TRUE(listener.Events().empty());
    EXPECT_EQ(logger->CountMessage("quitUploadThread", 1), 1u);
}

TEST(Teardown, ThroughTheInterfacePointerToo)
{
    ScopedCapturingLogger logger;
    auto journal = std::make_shared<LooperJournal>();
    {
        std::unique_ptr<IFileTransferManager> manager =
            IFileTransferManager::NewInstance(nullptr, std::make_unique<TestLooperFactory>(journal), false, nullptr);
    }
    EXPECT_THAT(journal->Entries(),
                ElementsAre("create:<main>", "create:xfer-downloader", "destroy:xfer-downloader",
                            "create:xfer-downloader", "destroy:xfer-downloader", "destroy:<main>",
                            "destroy-factory"));
}

}  // namespace
}  // namespace orin::xfer::test
