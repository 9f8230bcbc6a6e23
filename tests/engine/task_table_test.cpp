// The task table: deleting one task, dropping everything, the user's cancel,
// the two error entries the host reports and the failure notification.
// Tasks are pushed into the list directly; odd transfer ids are uploads,
// even ones downloads.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <fstream>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "ManagerCoreSupport.h"
#include "TestSupport.h"

namespace orin::xfer::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr uint32_t kNoTransferId = 0xFFFFFFFF;

// Journal entries added after construction finished (its last log line).
std::vector<std::string> EntriesAfterConstruction(const LooperJournal& journal)
{
    std::vector<std::string> entries = journal.Entries();
    const auto done = std::find(entries.begin(), entries.end(), "log:Create OrinFileTransferManager done");
    EXPECT_NE(done, entries.end());
    return std::vector<std::string>(done == entries.end() ? entries.begin() : done + 1, entries.end());
}

// Puts tasks of both parities and entries in all three description lists.
void FillManager(OrinFileTransferManager& manager)
{
    manager.mFileTaskList = {MakeTask(1, 2), MakeTask(1, 3), MakeTask(1, 4), MakeTask(1, 5), MakeTask(1, 6)};
    manager.mUploadFileList = {DescriptionNamed("up-1"), DescriptionNamed("up-2")};
    manager.mDownloadFileList = {DescriptionNamed("down-1")};
    manager.mDownloadFileRecordList = {DescriptionNamed("down-1"), DescriptionNamed("down-2")};
}

// A listener that also notes its clipboard releases in a looper journal, so
// that the release shows up on the same timeline as log lines and loopers.
class JournalingListener : public RecordingListener {
public:
    explicit JournalingListener(std::shared_ptr<LooperJournal> journal) : mJournal(std::move(journal)) {}
    void onClipboardRelease() override
    {
        RecordingListener::onClipboardRelease();
        mJournal->Add("listener:onClipboardRelease");
        if (onRelease) {
            onRelease();
        }
    }
    std::function<void()> onRelease;

private:
    std::shared_ptr<LooperJournal> mJournal;
};

// ---------------------------------------------------------------------------
// deleteTask

TEST(DeleteTask, ClosesTheStreamWhileAnotherHolderKeepsTheTask)
{
    ScopedCapturingLogger logger;
    TempDir dir;
    ManagerFixture fixture;
    auto held = MakeTask(1, 4, "a.bin");
    held->stream = std::make_shared<std::fstream>(dir.Join("a.bin"), std::ios::out | std::ios::binary);
    ASSERT_TRUE(held->stream->is_open());
    *held->stream << "pending bytes";
    fixture.manager->mFileTaskList = {held};
    logger->Clear();

    fixture.manager->deleteTask(4);

    EXPECT_TRUE(fixture.manager->getFileTaskList().empty());
    EXPECT_EQ(held.use_count(), 1);
    EXPECT_FALSE(held->stream->is_open());
    EXPECT_FALSE(held->stream->fail());
    // Closing flushed what was buffered.
    const std::vector<uint8_t> written = ReadBytes(dir.Join("a.bin"));
    EXPECT_EQ(std::string(written.begin(), written.end()), "pending bytes");
    const std::vector<LogLine> lines = logger->Lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].level, 2);
    EXPECT_EQ(MessageOf(lines[0].text), "delete task id = 4");
}

TEST(DeleteTask, KeepsTheOrderOfTheOtherTasks)
{
    ScopedCapturingLogger logger;
    ManagerFixture fixture;
    auto& tasks = fixture.manager->getFileTaskList();
    tasks = {MakeTask(1, 2), MakeTask(1, 3), MakeTask(1, 4), MakeTask(1, 5), MakeTask(1, 6)};

    fixture.manager->deleteTask(4);
    EXPECT_THAT(TransferIdsOf(tasks), ElementsAre(2u, 3u, 5u, 6u));
    fixture.manager->deleteTask(2);
    EXPECT_THAT(TransferIdsOf(tasks), ElementsAre(3u, 5u, 6u));
    fixture.manager->deleteTask(6);
    EXPECT_THAT(TransferIdsOf(tasks), ElementsAre(3u, 5u));
    EXPECT_THAT(MessagesOf(logger->WithMessagePrefix("delete task id = ")),
                ElementsAre("delete task id = 4", "delete task id = 2", "delete task id = 6"));
}

TEST(DeleteTask, RemovesOnlyTheFirstTaskWithTheId)
{
    ScopedCapturingLogger logger;
    ManagerFixture fixture;
    auto first = MakeTask(1, 8, "first");
    auto second = MakeTask(2, 8, "second");
    fixture.manager->mFileTaskList = {first, second};

    fixture.manager->deleteTask(8);

    ASSERT_EQ(fixture.manager->mFileTaskList.size(), 1u);
    EXPECT_EQ(fixture.manager->mFileTaskList[0], second);
    EXPECT_EQ(logger->CountMessage("delete task id = 8", 2), 1u);
}

TEST(DeleteTask, UnknownIdWritesNoLogLineAndChangesNothing)
{
    ScopedCapturingLogger logger;
    ManagerFixture fixture;
    fixture.manager->mFileTaskList = {MakeTask(1, 3), MakeTask(1, 4)};
    logger->Clear();

    fixture.manager->deleteTask(5);
    fixture.manager->deleteTask(0);

    EXPECT_THAT(TransferIdsOf(fixture.manager->mFileTaskList), ElementsAre(3u, 4u));
    EXPECT_THAT(logger->Lines(), IsEmpty());
}

TEST(DeleteTask, EmptyListIsSilent)
{
    ScopedCapturingLogger logger;
    ManagerFixture fixture;
    logger->Clear();
    fixture.manager->deleteTask(3);
    EXPECT_THAT(logger->Lines(), IsEmpty());
}

TEST(DeleteTask, TaskWithoutAStreamIsRemoved)
{
    ScopedCapturingLogger logger;
    ManagerFixture fixture;
    fixture.manager->mFileTaskList = {MakeTask(1, 10, "a-directory")};
    fixture.manager->deleteTask(10);
    EXPECT_TRUE(fixture.manager->mFileTaskList.empty());
    EXPECT_EQ(logger->CountMessage("delete task id = 10", 2), 1u);
}

TEST(DeleteTask, AStreamThatFailsToCloseIsMarkedFailedAndNothingIsReported)
{
    ScopedCapturingLogger logger;
    ManagerFixture fixture;
    // Buffered bytes for /dev/full cannot be flushed, so the close fails.
    auto task = MakeTask(1, 12);
    task->stream = std::make_shared<std::fstream>("/dev/full", std::ios::out | std::ios::binary);
    ASSERT_TRUE(task->stream->is_open());
    *task->stream << "cannot be written";
    ASSERT_TRUE(task->stream->good());
    fixture.manager->mFileTaskList = {task};
    logger->Clear();

    fixture.manager->deleteTask(12);

    EXPECT_TRUE(fixture.manager->mFileTaskList.empty());
    EXPECT_FALSE(task->stream->is_open());
    EXPECT_TRUE(task->stream->fail());
    EXPECT_THAT(MessagesOf(logger->Lines()), ElementsAre("delete task id = 12"));
    EXPECT_TRUE(fixture.listener.Events().empty());
}

TEST(DeleteTask, ANeverOpenedStreamIsMarkedFailed)
{
    ScopedCapturingLogger logger;
    ManagerFixture fixture;
    auto task = MakeTask(1, 14);
    task->stream = std::make_shared<std::fstream>();
    fixture.manager->mFileTaskList = {task};
    fixture.manager->deleteTask(14);
    EXPECT_TRUE(fixture.manager->mFileTaskList.empty());
    EXPECT_TRUE(task->stream->fail());
}

TEST(DeleteTask, AFailingCloseOnAStreamThatThrowsOnFailureDoesNotEscape)
{
    ScopedCapturingLogger logger;
    ManagerFixture fixture;
    auto task = MakeTask(1, 16);
    task->stream = std::make_shared<std::fstream>();
    task->stream->exceptions(std::ios::failbit | std::ios::badbit);
    fixture.manager->mFileTaskList = {task};
    EXPECT_NO_THROW(fixture.manager->deleteTask(16));
    EXPECT_TRUE(fixture.manager->mFileTaskList.empty());
    EXPECT_TRUE(task->stream->fail());
}

TEST(GetFileTaskList, ReturnsTheListItself)
{
    ScopedCapturingLogger logger;
    ManagerFixture fixture;
    EXPECT_EQ(&fixture.manager->getFileTaskList(), &fixture.manager->mFileTaskList);
    fixture.manager->getFileTaskList().push_back(MakeTask(1, 3));
    EXPECT_THAT(TransferIdsOf(fixture.manager->mFileTaskList), ElementsAre(3u));
}

// ---------------------------------------------------------------------------
// ClearTask

TEST(ClearTask, DropsTasksAndListsThenStopsTheWriterThenTheUpload)
{
    auto journal = std::make_shared<LooperJournal>();
    ScopedJournalingLogger logger(journal);
    RecordingListener listener;
    OrinFileTransferManager manager(&listener, std::make_unique<TestLooperFactory>(journal), false, nullptr);
    FillManager(manager);
    auto held = manager.mFileTaskList[1];
    manager.mUploading = true;
    manager.mUnackedChunkCount = 7;

    manager.ClearTask();

    EXPECT_TRUE(manager.mFileTaskList.empty());
    EXPECT_EQ(held.use_count(), 1);
    EXPECT_TRUE(manager.mDownloadFileList.empty());
    EXPECT_TRUE(manager.mDownloadFileRecordList.empty());
    EXPECT_TRUE(manager.mUploadFileList.empty());
    EXPECT_TRUE(manager.mQuitUpload);
    EXPECT_FALSE(manager.mUploading);
    EXPECT_EQ(manager.mUnackedChunkCount, 0u);
    EXPECT_TRUE(manager.mDownloadComplete);
    // The writer looper is replaced before the upload is told to quit.
    EXPECT_THAT(EntriesAfterConstruction(*journal),
                ElementsAre("destroy:xfer-downloader", "create:xfer-downloader", "log:quitUploadThread",
                            "log:notifyUpload"));
    EXPECT_TRUE(listener.Events().empty());
}

TEST(ClearTask, TheFreshWriterLooperRunsJobsOnItsOwnThread)
{
    ScopedCapturingLogger logger;
    ManagerFixture fixture;
    fixture.manager->ClearTask();

    const std::vector<std::thread::id> writers = fixture.journal->ThreadsOf("xfer-downloader");
    ASSERT_EQ(writers.size(), 2u);
    std::atomic<bool> ran{false};
    std::atomic<std::thread::id> ranOn{};
    fixture.manager->mWriterLooper->Post([&] {
        ranOn = std::this_thread::get_id();
        ran = true;
    });
    ASSERT_TRUE(waitUntil([&] { return ran.load(); }));
    // Thread ids may be reused once the old thread is joined, so only the
    // new looper's own id is checked.
    EXPECT_EQ(ranOn.load(), writers[1]);
}

TEST(ClearTask, ReleasesADownloadRequestWaitingForItsFile)
{
    ScopedCapturingLogger logger;
    ManagerFixture fixture;
    OrinFileTransferManager& manager = *fixture.manager;
    manager.mDownloadComplete = false;
    std::atomic<bool> released{false};
    std::thread waiter([&] {
        std::unique_lock<std::mutex> lock(manager.mTaskMutex);
        manager.mDownloadCondition.wait(lock, [&] { return manager.mDownloadComplete.load(); });
        released = true;
    });

    manager.ClearTask();

    EXPECT_TRUE(waitUntil([&] { return released.load(); }));
    waiter.join();
}

// ---------------------------------------------------------------------------
// Cancel

// Counts the ClearTask calls that reach the override.
class CountingClearManager : public OrinFileTransferManager {
public:
    using OrinFileTransferManager::OrinFileTransferManager;
    void ClearTask() override
    {
        ++clearCalls;
        OrinFileTransferManager::ClearTask();
    }
    int clearCalls = 0;
};

TEST(Cancel, LogsReleasesTheClipboardThenClearsEverything)
{
    auto journal = std::make_shared<LooperJournal>();
    ScopedJournalingLogger logger(journal);
    JournalingListener listener(journal);
    CountingClearManager manager(&listener, std::make_unique<TestLooperFactory>(journal), false, nullptr);
    FillManager(manager);
    size_t tasksAtRelease = 0;
    listener.onRelease = [&] { tasksAtRelease = manager.mFileTaskList.size(); };

    manager.Cancel();

    EXPECT_EQ(tasksAtRelease, 5u) << "the clipboard must be released before the tasks are dropped";
    EXPECT_EQ(manager.clearCalls, 1);
    EXPECT_THAT(listener.Names(), ElementsAre("onClipboardRelease"));
    EXPECT_TRUE(manager.mFileTaskList.empty());
    EXPECT_TRUE(manager.mUploadFileList.empty());
    EXPECT_TRUE(manager.mDownloadFileList.empty());
    EXPECT_TRUE(manager.mDownloadFileRecordList.empty());
    EXPECT_THAT(EntriesAfterConstruction(*journal),
                ElementsAre("log:client clipboard paste cancel", "listener:onClipboardRelease", "destroy:xfer-downloader", "create:xfer-downloader",
                            "log:quitUploadThread"));
    EXPECT_EQ(logger->CountMessage("client clipboard paste cancel", 2), 1u);
}

TEST(Cancel, WithANullListenerStillClearsEverything)
{
    ScopedCapturingLogger logger;
    auto journal = std::make_shared<LooperJournal>();
    OrinFileTransferManager manager(nullptr, std::make_unique<TestLooperFactory>(journal), false, nullptr);
    FillManager(manager);
    manager.mUploading = true;

    manager.Cancel();

    EXPECT_TRUE(manager.mFileTaskList.empty());
    EXPECT_TRUE(manager.mUploadFileList.empty());
    EXPECT_TRUE(manager.mDownloadFileList.empty());
    EXPECT_TRUE(manager.mDownloadFileRecordList.empty());
    EXPECT_FALSE(manager.mUploading);
    EXPECT_EQ(logger->CountMessage("client clipboard paste cancel", 2), 1u);
    EXPECT_EQ(journal->Count("destroy:xfer-downloader"), 1u);
    EXPECT_EQ(journal->Count("create:xfer-downloader"), 2u);
}

TEST(NotifyRemoteClipboardRelease, OnlyReleasesTheClipboard)
{
    ScopedCapturingLogger logger;
    ManagerFixture fixture;
    FillManager(*fixture.manager);
    logger->Clear();

    fixture.manager->notifyRemoteClipboardRelease();

    EXPECT_THAT(fixture.listener.Names(), ElementsAre("onClipboardRelease"));
    EXPECT_EQ(fixture.manager->mFileTaskList.size(), 5u);
    EXPECT_EQ(fixture.manager->mUploadFileList.size(), 2u);
    EXPECT_THAT(logger->Lines(), IsEmpty());
}

TEST(NotifyRemoteClipboardRelease, NullListenerDoesNothing)
{
    ScopedCapturingLogger logger;
    OrinFileTransferManager manager(nullptr, std::make_unique<TestLooperFactory>(), false, nullptr);
    logger->Clear();
    manager.notifyRemoteClipboardRelease();
    EXPECT_THAT(logger->Lines(), IsEmpty());
}

// ---------------------------------------------------------------------------
// ProcessXferError

TEST(ProcessXferError, OddIdQuitsTheUploadDeletesItsTaskAndReportsThree)
{
    ScopedCapturingLogger logger;
    ManagerFixture fixture;
    OrinFileTransferManager& manager = *fixture.manager;
    FillManager(manager);
    manager.mUnackedChunkCount = 3;
    logger->Clear();

    manager.ProcessXferError(7, 5);

    const auto events = fixture.listener.Events();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].name, "onFileTransferFailed");
    EXPECT_EQ(events[0].taskId, 7u);
    EXPECT_EQ(events[0].transferId, 5u);
    EXPECT_EQ(events[0].result, 3u);
    EXPECT_THAT(TransferIdsOf(manager.mFileTaskList), ElementsAre(2u, 3u, 4u, 6u));
    EXPECT_TRUE(manager.mQuitUpload);
    EXPECT_FALSE(manager.mUploading);
    EXPECT_EQ(manager.mUnackedChunkCount, 0u);
    // The download side is untouched.
    EXPECT_EQ(manager.mDownloadFileList.size(), 1u);
    EXPECT_EQ(manager.mDownloadFileRecordList.size(), 2u);
    EXPECT_THAT(fixture.journal->Entries(), ElementsAre("create:<main>", "create:xfer-downloader"));
    // Only the lines of what it calls: the upload quit, then the deletion.
    const std::vector<LogLine> lines = logger->Lines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].level, 1);
    EXPECT_EQ(MessageOf(lines[0].text), "quitUploadThread");
    EXPECT_EQ(lines[1].level, 2);
    EXPECT_EQ(MessageOf(lines[1].text), "delete task id = 5");
}

TEST(ProcessXferError, OddIdWakesARunningUploadThroughTheQuit)
{
    ScopedCapturingLogger logger;
    ManagerFixture fixture;
    OrinFileTransferManager& manager = *fixture.manager;
    manager.mFileTaskList = {MakeTask(1, 9)};
    manager.mUploading = true;
    logger->Clear();

    manager.ProcessXferError(2, 9);

    EXPECT_FALSE(manager.mUploading);
    EXPECT_TRUE(manager.mUploadAcked);
    EXPECT_THAT(MessagesOf(logger->Lines()), ElementsAre("quitUploadThread", "notifyUpload", "delete task id = 9"));
    const auto failures = fixture.listener.EventsNamed("onFileTransferFailed");
    ASSERT_EQ(failures.size(), 1u);
    EXPECT_EQ(failures[0].result, 3u);
}

// A worker blocked on its acknowledgement window (which would otherwise last
// 30 seconds) leaves at once when the remote side reports an upload error.
TEST(ProcessXferError, OddIdStopsARunningUploadWorker)
{
    ScopedCapturingLogger logger;
    TempDir dir;
    WriteBytes(dir.Join("big.bin"), PatternBytes(4 * 65536));
    ManagerFixture fixture;
    OrinFileTransferManager& manager = *fixture.manager;
    manager.SetUploadWindowsSize(1);
    FileDescription file;
    file.sourceDir = dir.Path();
    file.fileName = "big.bin";
    file.fileSize = 4 * 65536;
    manager.mUploadFileList = {file};
    std::multimap<std::string, std::string> records;
    bool listEmpty = true;
    const uint32_t transferId = manager.UploadFiles(7, file.fileSize, "tag", records, listEmpty);
    ASSERT_EQ(transferId & 1u, 1u);

    manager.ProcessFileUploadData(transferId);
    // The first chunk fills the window; the worker then waits for an
    // acknowledgement (the flag is cleared under the lock it waits with).
    ASSERT_TRUE(fixture.listener.WaitForCount("onSendFileData", 1));
    ASSERT_TRUE(waitUntil([&] { return !manager.mUploadAcked.load(); }));

    manager.ProcessXferError(7, transferId);

    EXPECT_TRUE(waitUntil([&] { return logger->CountMessage("big.bin doFileUploadTask is completed !", 1) == 1; },
                          std::chrono::seconds(10)));
    EXPECT_EQ(fixture.listener.Count("onSendFileData"), 1u);
    EXPECT_EQ(logger->CountMessage("wait upload timeout, quit upload", 3), 0u);
    const auto failures = fixture.listener.EventsNamed("onFileTransferFailed");
    ASSERT_EQ(failures.size(), 1u);
    EXPECT_EQ(failures[0].taskId, 7u);
    EXPECT_EQ(failures[0].transferId, transferId);
    EXPECT_EQ(failures[0].result, 3u);
    EXPECT_FALSE(manager.IsUploading());
}

TEST(ProcessXferError, EvenIdRecreatesTheWriterClearsDownloadListsAndReportsTwo)
{
    ScopedCapturingLogger logger;
    ManagerFixture fixture;
    OrinFileTransferManager& manager = *fixture.manager;
    FillManager(manager);
    manager.mUploading = true;
    manager.mDownloadComplete = false;
    logger->Clear();

    manager.ProcessXferError(7, 4);

    const auto events = fixture.listener.Events();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].name, "onFileTransferFailed");
    EXPECT_EQ(events[0].taskId, 7u);
    EXPECT_EQ(events[0].transferId, 4u);
    EXPECT_EQ(events[0].result, 2u);
    // Every download task goes with the writer; uploads stay in order.
    EXPECT_THAT(TransferIdsOf(manager.mFileTaskList), ElementsAre(3u, 5u));
    EXPECT_TRUE(manager.mDownloadFileList.empty());
    EXPECT_TRUE(manager.mDownloadFileRecordList.empty());
    EXPECT_TRUE(manager.mDownloadComplete);
    EXPECT_THAT(fixture.journal->Entries(), ElementsAre("create:<main>", "create:xfer-downloader",
                                                        "destroy:xfer-downloader", "create:xfer-downloader"));
    // The upload side is untouched.
    EXPECT_EQ(manager.mUploadFileList.size(), 2u);
    EXPECT_TRUE(manager.mUploading);
    EXPECT_FALSE(manager.mQuitUpload);
    // The task was already gone when deleteTask looked, and nothing else logs.
    EXPECT_THAT(logger->Lines(), IsEmpty());
}

TEST(ProcessXferError, ReportsEvenWhenNoTaskHasTheId)
{
    ScopedCapturingLogger logger;
    ManagerFixture fixture;
    fixture.manager->ProcessXferError(9, 11);
    fixture.manager->ProcessXferError(9, 10);
    fixture.manager->ProcessXferError(1, 0xFFFFFFFF);

    const auto failures = fixture.listener.EventsNamed("onFileTransferFailed");
    ASSERT_EQ(failures.size(), 3u);
    EXPECT_EQ(failures[0].transferId, 11u);
    EXPECT_EQ(failures[0].result, 3u);
    EXPECT_EQ(failures[1].transferId, 10u);
    EXPECT_EQ(failures[1].result, 2u);
    EXPECT_EQ(failures[2].transferId, 0xFFFFFFFFu);
    EXPECT_EQ(failures[2].result, 3u);
    EXPECT_TRUE(logger->WithMessagePrefix("delete task id = ").empty());
}

TEST(ProcessXferError, NullListenerStillUpdatesTasksAndLists)
{
    ScopedCapturingLogger logger;
    auto journal = std::make_shared<LooperJournal>();
    OrinFileTransferManager manager(nullptr, std::make_unique<TestLooperFactory>(journal), false, nullptr);
    FillManager(manager);

    manager.ProcessXferError(7, 5);
    EXPECT_THAT(TransferIdsOf(manager.mFileTaskList), ElementsAre(2u, 3u, 4u, 6u));
    EXPECT_TRUE(manager.mUploadFileList.empty());
    EXPECT_EQ(manager.mDownloadFileList.size(), 1u);

    manager.ProcessXferError(7, 4);
    EXPECT_THAT(TransferIdsOf(manager.mFileTaskList), ElementsAre(3u));
    EXPECT_TRUE(manager.mDownloadFileList.empty());
    EXPECT_TRUE(manager.mDownloadFileRecordList.empty());
    EXPECT_EQ(journal->Count("destroy:xfer-downloader"), 1u);
}

// ---------------------------------------------------------------------------
// ProcessTansferDisconnect

TEST(ProcessTansferDisconnect, ReportsTheLostTransportAndQuitsOnlyTheUpload)
{
    ScopedCapturingLogger logger;
    ManagerFixture fixture;
    OrinFileTransferManager& manager = *fixture.manager;
    FillManager(manager);
    manager.mUploading = true;
    manager.mUnackedChunkCount = 4;
    logger->Clear();

    manager.ProcessTansferDisconnect();

    const auto events = fixture.listener.Events();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].name, "onFileTransferFailed");
    EXPECT_EQ(events[0].taskId, kNoTransferId);
    EXPECT_EQ(events[0].transferId, 0u);
    EXPECT_EQ(events[0].result, 1u);
    EXPECT_TRUE(manager.mQuitUpload);
    EXPECT_FALSE(manager.mUploading);
    EXPECT_EQ(manager.mUnackedChunkCount, 0u);
    // Tasks of both kinds, the download lists and the writer stay.
    EXPECT_THAT(TransferIdsOf(manager.mFileTaskList), ElementsAre(2u, 3u, 4u, 5u, 6u));
    EXPECT_EQ(manager.mDownloadFileList.size(), 1u);
    EXPECT_EQ(manager.mDownloadFileRecordList.size(), 2u);
    EXPECT_THAT(fixture.journal->Entries(), ElementsAre("create:<main>", "create:xfer-downloader"));
    const std::vector<LogLine> lines = logger->Lines();
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines[0].level, 2);
    EXPECT_EQ(MessageOf(lines[0].text), "processTansferDisconnect");
    EXPECT_EQ(logger->CountMessage("quitUploadThread", 1), 1u);
}

TEST(ProcessTansferDisconnect, ADownloadInProgressStillCompletes)
{
    ScopedCapturingLogger logger;
    TempDir dir;
    ManagerFixture fixture;
    OrinFileTransferManager& manager = *fixture.manager;
    manager.SetCacheDir(dir.Join("cache"));
    std::multimap<std::string, std::string> records;
    manager.ProcessFileDownloadStart(1, 4, 10, 10, "a.bin", false, "tag", records, "", 0);
    ASSERT_EQ(fixture.listener.Count("onFileTransferStarted"), 1u);

    manager.ProcessTansferDisconnect();

    std::vector<uint8_t> bytes = PatternBytes(10);
    manager.ProcessFileDownloadData(1, 4, bytes.size(), bytes.data());
    ASSERT_TRUE(fixture.listener.WaitForCount("onFileTransferCompleted", 1));
    const auto completed = fixture.listener.EventsNamed("onFileTransferCompleted");
    EXPECT_EQ(completed[0].taskId, 1u);
    EXPECT_EQ(completed[0].transferId, 4u);
    EXPECT_EQ(ReadBytes(dir.Join("cache/a.bin")), bytes);
    EXPECT_EQ(fixture.journal->Count("destroy:xfer-downloader"), 0u);
}

TEST(ProcessTansferDisconnect, NullListenerStillQuitsTheUpload)
{
    ScopedCapturingLogger logger;
    OrinFileTransferManager manager(nullptr, std::make_unique<TestLooperFactory>(), false, nullptr);
    FillManager(manager);
    manager.mUploading = true;

    manager.ProcessTansferDisconnect();

    EXPECT_TRUE(manager.mQuitUpload);
    EXPECT_FALSE(manager.mUploading);
    EXPECT_EQ(manager.mFileTaskList.size(), 5u);
    EXPECT_EQ(logger->CountMessage("processTansferDisconnect", 2), 1u);
}

// ---------------------------------------------------------------------------
// notifyTransferFailed

TEST(NotifyTransferFailed, ReleasesReportsFailureThenTheEventInThatOrder)
{
    ScopedCapturingLogger logger;
    ManagerFixture fixture;
    FillManager(*fixture.manager);
    logger->Clear();

    fixture.manager->notifyTransferFailed(5, 9, "disk on fire", true);
    fixture.manager->notifyTransferFailed(6, 10, "another reason", false);

    const auto events = fixture.listener.Events();
    ASSERT_EQ(events.size(), 6u);
    EXPECT_EQ(events[0].name, "onClipboardRelease");
    EXPECT_EQ(events[1].name, "onFileTransferFailed");
    EXPECT_EQ(events[1].taskId, 5u);
    EXPECT_EQ(events[1].transferId, 9u);
    EXPECT_EQ(events[1].result, 1u);
    EXPECT_EQ(events[2].name, "onReportEvent");
    EXPECT_EQ(events[2].text, "onFileTransferFailed");
    EXPECT_TRUE(events[2].flag);
    EXPECT_EQ(events[3].name, "onClipboardRelease");
    EXPECT_EQ(events[4].taskId, 6u);
    EXPECT_EQ(events[4].transferId, 10u);
    EXPECT_EQ(events[4].result, 1u);
    EXPECT_EQ(events[5].text, "onFileTransferFailed");
    EXPECT_FALSE(events[5].flag);
}

TEST(NotifyTransferFailed, TheMessageIsNeitherLoggedNorPassedOn)
{
    ScopedCapturingLogger logger;
    ManagerFixture fixture;
    FillManager(*fixture.manager);
    logger->Clear();

    fixture.manager->notifyTransferFailed(5, 9, "disk on fire", true);

    EXPECT_THAT(logger->Lines(), IsEmpty());
    for (const ListenerEvent& event : fixture.listener.Events()) {
        EXPECT_EQ(event.text.find("disk on fire"), std::string::npos);
    }
    // Neither removes the task nor stops a worker.
    EXPECT_EQ(fixture.manager->mFileTaskList.size(), 5u);
    EXPECT_EQ(fixture.manager->mUploadFileList.size(), 2u);
    EXPECT_FALSE(fixture.manager->mQuitUpload);
    EXPECT_THAT(fixture.journal->Entries(), ElementsAre("create:<main>", "create:xfer-downloader"));
}

TEST(NotifyTransferFailed, NullListenerDoesNothingAtAll)
{
    ScopedCapturingLogger logger;
    auto journal = std::make_shared<LooperJournal>();
    OrinFileTransferManager manager(nullptr, std::make_unique<TestLooperFactory>(journal), false, nullptr);
    FillManager(manager);
    manager.mUploading = true;
    logger->Clear();

    manager.notifyTransferFailed(5, 9, "ignored", true);

    EXPECT_THAT(logger->Lines(), IsEmpty());
    EXPECT_EQ(manager.mFileTaskList.size(), 5u);
    EXPECT_EQ(manager.mUploadFileList.size(), 2u);
    EXPECT_EQ(manager.mDownloadFileList.size(), 1u);
    EXPECT_TRUE(manager.mUploading);
    EXPECT_FALSE(manager.mQuitUpload);
    EXPECT_THAT(journal->Entries(), ElementsAre("create:<main>", "create:xfer-downloader"));
}

}  // namespace
}  // namespace orin::xfer::test
