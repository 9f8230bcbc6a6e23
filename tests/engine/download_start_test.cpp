// The start of one incoming file: where it lands, its directories, its task,
// the record reported to the host and the started notification.
#include <gtest/gtest.h>

#include <algorithm>

#include "DownloadSupport.h"
#include "TestSupport.h"

namespace orin::xfer::test {
namespace {

using Records = std::multimap<std::string, std::string>;

std::vector<std::string> ValuesOf(const Records& records, const std::string& key)
{
    std::vector<std::string> values;
    auto range = records.equal_range(key);
    for (auto it = range.first; it != range.second; ++it) {
        values.push_back(it->second);
    }
    return values;
}

class DownloadStartTest : public ::testing::Test {
protected:
    DownloadStartTest() { m.SetCacheDir(cache); }

    void Start(uint32_t taskId, uint32_t transferId, uint64_t totalSize, uint64_t size, const std::string& name,
               bool isDir = false, const std::string& destDir = "", uint32_t flag = 0,
               const std::string& tag = "tag")
    {
        records.clear();
        m.ProcessFileDownloadStart(taskId, transferId, totalSize, size, name, isDir, tag, records, destDir, flag);
    }

    // The failure calls for one transfer, in order, and nothing started.
    void ExpectReportedFailure(uint32_t taskId, uint32_t transferId)
    {
        EXPECT_EQ(NamesAmong(f.listener, FailureCalls()), FailureCalls());
        const auto failed = f.listener.EventsNamed("onFileTransferFailed");
        ASSERT_EQ(failed.size(), 1u);
        EXPECT_EQ(failed[0].taskId, taskId);
        EXPECT_EQ(failed[0].transferId, transferId);
        EXPECT_EQ(failed[0].result, 1u);
        const auto reported = f.listener.EventsNamed("onReportEvent");
        ASSERT_EQ(reported.size(), 1u);
        EXPECT_EQ(reported[0].text, "onFileTransferFailed");
        EXPECT_FALSE(reported[0].flag);
        EXPECT_EQ(f.listener.Count("onFileTransferStarted"), 0u);
        EXPECT_EQ(f.journal->Count("destroy:xfer-downloader"), 1u);
        EXPECT_EQ(f.journal->Count("create:xfer-downloader"), 2u);
    }

    ScopedCapturingLogger logger;
    TempDir tmp;
    std::string cache = tmp.Join("cache");
    std::string dest = tmp.Join("dest");
    ManagerFixture f;
    OrinFileTransferManager& m = *f.manager;
    Records records;
};

TEST_F(DownloadStartTest, FileWithoutDestDirLandsInTheCache)
{
    Start(7, 2, 100, 10, "docs/a.txt", false, "", 5);

    EXPECT_EQ(logger->CountMessage("task id 7, id = 2, fileSize = 10, task total size 100, fileName = docs/a.txt, "
                                   "fileFullPath = " + cache + "/docs/a.txt, flag 5",
                                   2),
              1u);
    EXPECT_TRUE(PathExists(cache + "/docs/a.txt"));
    EXPECT_TRUE(ReadBytes(cache + "/docs/a.txt").empty());

    const auto tasks = TaskSnapshot(m);
    ASSERT_EQ(tasks.size(), 1u);
    EXPECT_EQ(tasks[0].taskId, 7u);
    EXPECT_EQ(tasks[0].transferId, 2u);
    EXPECT_EQ(tasks[0].fileSize, 10u);
    EXPECT_EQ(tasks[0].fileName, "docs/a.txt");
    EXPECT_EQ(tasks[0].flag, 5u);
    EXPECT_EQ(tasks[0].totalSize, 0u);
    EXPECT_EQ(tasks[0].transferredSize, 0u);
    ASSERT_TRUE(tasks[0].stream);
    EXPECT_TRUE(tasks[0].stream->is_open());

    // No download record names the file: no record report, the start alone.
    EXPECT_EQ(f.listener.Names(), (std::vector<std::string>{"onFileTransferStarted"}));
    const ListenerEvent started = f.listener.EventsNamed("onFileTransferStarted").front();
    EXPECT_EQ(started.taskId, 7u);
    EXPECT_EQ(started.transferId, 2u);
    EXPECT_EQ(started.result, 0u);
    EXPECT_EQ(m.mCurrentDownloadTransferId, 2u);
}

TEST_F(DownloadStartTest, DestDirTakesTheFileInsteadOfTheCache)
{
    Start(1, 4, 3, 3, "sub/b.bin", false, dest);

    EXPECT_EQ(logger->WithMessagePrefix("task id 1, id = 4,").size(), 1u);
    EXPECT_EQ(logger->CountMessage("task id 1, id = 4, fileSize = 3, task total size 3, fileName = sub/b.bin, "
                                   "fileFullPath = " + dest + "/sub/b.bin, flag 0",
                                   2),
              1u);
    EXPECT_TRUE(PathExists(dest + "/sub/b.bin"));
    EXPECT_FALSE(PathExists(cache));
}

TEST_F(DownloadStartTest, WindowsKeepsSlashesInACachePath)
{
    m.SetSystemType("Windows");

    Start(1, 2, 5, 5, "sub/a.txt");

    EXPECT_EQ(logger->WithMessagePrefix("task id 1, id = 2, fileSize = 5, task total size 5, fileName = sub/a.txt, "
                                        "fileFullPath = " + cache + "/sub/a.txt, flag 0")
                  .size(),
              1u);
    EXPECT_TRUE(PathExists(cache + "/sub/a.txt"));
    EXPECT_EQ(f.listener.Count("onFileTransferStarted"), 1u);
}

TEST_F(DownloadStartTest, WindowsConvertsADestDirPathToBackslashes)
{
    m.SetSystemType("Windows");
    std::string converted = dest + "/sub/a.txt";
    std::replace(converted.begin(), converted.end(), '/', '\\');
    // With no "/" left the whole path is its own directory: provide it,
    // relative to the working directory, so that the chain step finds it.
    ScopedWorkingDirectory inTmp(tmp.Path());
    MakeDirs(tmp.Join(converted));

    Start(1, 2, 5, 5, "sub/a.txt", false, dest);

    EXPECT_EQ(logger->CountMessage("task id 1, id = 2, fileSize = 5, task total size 5, fileName = sub/a.txt, "
                                   "fileFullPath = " + converted + ", flag 0",
                                   2),
              1u);
    EXPECT_EQ(logger->CountMessage("pos = %-1", 1), 1u);
    EXPECT_EQ(logger->CountMessage("dirPath = " + converted, 1), 1u);
    // Nothing lands under the slash-separated destination.
    EXPECT_FALSE(PathExists(dest + "/sub/a.txt"));
    EXPECT_TRUE(IsDirectory(tmp.Join(converted)));
    EXPECT_EQ(f.listener.Count("onFileTransferStarted"), 1u);
    EXPECT_EQ(f.listener.Count("onFileTransferFailed"), 0u);
}

TEST_F(DownloadStartTest, MatchingRecordIsReportedWithTheTag)
{
    FileDescription record = RemoteFile("docs", "a.txt", 10, "/remote/src");
    m.PushDownloadFile(record);
    records.emplace("Records.1.TaskType", "EARLIER");
    m.ProcessFileDownloadStart(7, 2, 100, 5000000000ull, "docs/a.txt", false, "rec-tag", records, "", 0);

    EXPECT_EQ(ValuesOf(records, "Records.1.TaskType"), (std::vector<std::string>{"EARLIER", "DOWNLOAD"}));
    EXPECT_EQ(ValuesOf(records, "Records.1.FileName"), std::vector<std::string>{"a.txt"});
    EXPECT_EQ(ValuesOf(records, "Records.1.FileSize"), std::vector<std::string>{"5000000000"});
    EXPECT_EQ(ValuesOf(records, "Records.1.SourcePath"), std::vector<std::string>{"/remote/src/docs/a.txt"});
    EXPECT_EQ(records.size(), 5u);

    EXPECT_EQ(logger->CountMessage("Recording download file name = docs/a.txt, reuqest file name = docs/a.txt", 1),
              1u);
    EXPECT_EQ(logger->CountMessage("sourcePath = /remote/src/docs/a.txt", 1), 1u);

    const auto reported = f.listener.EventsNamed("onTransferRecord");
    ASSERT_EQ(reported.size(), 1u);
    EXPECT_EQ(reported[0].text, "rec-tag");
    EXPECT_EQ(reported[0].records, records);
    EXPECT_EQ(f.listener.Names(), (std::vector<std::string>{"onTransferRecord", "onFileTransferStarted"}));
}

TEST_F(DownloadStartTest, OnlyTheFirstOfTwoSameNameRecordsIsReported)
{
    m.PushDownloadFile(RemoteFile("", "other.txt", 1, "/elsewhere"));
    m.PushDownloadFile(RemoteFile("p", "a.txt", 1, "/first"));
    m.PushDownloadFile(RemoteFile("p", "a.txt", 1, "/second"));

    Start(1, 2, 1, 1, "p/a.txt");

    EXPECT_EQ(ValuesOf(records, "Records.1.SourcePath"), std::vector<std::string>{"/first/p/a.txt"});
    EXPECT_EQ(records.size(), 4u);
    EXPECT_EQ(logger->WithMessagePrefix("Recording download file name = ").size(), 2u);
    EXPECT_TRUE(ContainsInOrder(Messages(*logger, 1),
                                {"Recording download file name = other.txt, reuqest file name = p/a.txt",
                                 "Recording download file name = p/a.txt, reuqest file name = p/a.txt",
                                 "sourcePath = /first/p/a.txt"}));
}

TEST_F(DownloadStartTest, WindowsSourcePathUsesBackslashes)
{
    m.SetSystemType("Windows");
    m.PushDownloadFile(RemoteFile("docs/sub", "a.txt", 3, "C:/Users/me/Desktop"));

    Start(1, 2, 3, 3, "docs/sub/a.txt");

    EXPECT_EQ(ValuesOf(records, "Records.1.SourcePath"),
              std::vector<std::string>{"C:\\Users\\me\\Desktop\\docs\\sub\\a.txt"});
    EXPECT_EQ(logger->CountMessage("sourcePath = C:\\Users\\me\\Desktop\\docs\\sub\\a.txt", 1), 1u);
    EXPECT_EQ(ValuesOf(records, "Records.1.FileName"), std::vector<std::string>{"a.txt"});
}

TEST_F(DownloadStartTest, NoMatchingRecordFillsNoRecordsAndReportsOnlyTheStart)
{
    m.PushDownloadFile(RemoteFile("", "other.txt", 1));

    Start(1, 2, 1, 1, "a.txt", false, "", 0, "lonely");

    EXPECT_TRUE(records.empty());
    EXPECT_EQ(logger->WithMessagePrefix("sourcePath = ").size(), 0u);
    EXPECT_EQ(logger->CountMessage("Recording download file name = other.txt, reuqest file name = a.txt", 1), 1u);
    EXPECT_EQ(f.listener.Names(), (std::vector<std::string>{"onFileTransferStarted"}));
    EXPECT_EQ(TaskSnapshot(m).size(), 1u);
}

TEST_F(DownloadStartTest, DirectoryWithNoMatchingRecordReportsOnlyItsCompletion)
{
    m.PushDownloadFile(RemoteFile("", "other", 0));

    Start(7, 2, 0, 0, "photos", true, dest, 0, "lonely");

    EXPECT_TRUE(IsDirectory(dest + "/photos"));
    EXPECT_TRUE(records.empty());
    EXPECT_EQ(f.listener.Names(), (std::vector<std::string>{"onFileTransferCompleted"}));
}

TEST_F(DownloadStartTest, DirectoryWithAMatchingRecordReportsTheRecordThenItsCompletion)
{
    m.PushDownloadFile(RemoteFile("", "photos", 0, "/remote"));

    Start(7, 2, 0, 0, "photos", true, dest, 0, "dir-tag");

    EXPECT_EQ(ValuesOf(records, "Records.1.SourcePath"), std::vector<std::string>{"/remote/photos"});
    EXPECT_EQ(f.listener.Names(), (std::vector<std::string>{"onTransferRecord", "onFileTransferCompleted"}));
    const auto reported = f.listener.EventsNamed("onTransferRecord");
    ASSERT_EQ(reported.size(), 1u);
    EXPECT_EQ(reported[0].text, "dir-tag");
    EXPECT_EQ(reported[0].records, records);
}

TEST_F(DownloadStartTest, RegistrationOnlyStartWithNoRecordReportsOnlyTheStart)
{
    m.mRegisterOnlyRequest = true;

    Start(1, 2, 1, 1, "a.txt");

    EXPECT_TRUE(records.empty());
    EXPECT_EQ(f.listener.Names(), (std::vector<std::string>{"onFileTransferStarted"}));
}

TEST_F(DownloadStartTest, StartResetsTheCountdownAndThePercentage)
{
    m.mProgressCountdown = 3;
    m.mLastPercent = 77;

    Start(1, 2, 1, 1, "a.txt");

    EXPECT_EQ(m.mProgressCountdown, 50);
    EXPECT_EQ(m.mLastPercent.load(), 0u);
}

TEST_F(DownloadStartTest, RegistrationOnlyMatchesTheRequestedTaskByName)
{
    m.RequestFile(RemoteFile("docs", "a.txt", 40), true);
    m.mProgressCountdown = 3;

    Start(7, 6, 100, 40, "docs/a.txt");

    EXPECT_EQ(logger->CountMessage("match task with file name", 2), 1u);
    const auto tasks = TaskSnapshot(m);
    ASSERT_EQ(tasks.size(), 1u);
    EXPECT_EQ(tasks[0].transferId, 6u);
    EXPECT_EQ(tasks[0].fileSize, 40u);
    EXPECT_FALSE(tasks[0].stream);
    EXPECT_EQ(m.mProgressCountdown, 50);
    EXPECT_FALSE(PathExists(cache));
    EXPECT_EQ(logger->WithMessagePrefix("pos = %").size(), 0u);
    EXPECT_EQ(f.listener.EventsNamed("onFileTransferStarted").size(), 1u);
    EXPECT_EQ(m.mCurrentDownloadTransferId, 6u);
}

TEST_F(DownloadStartTest, RegistrationOnlyAddsATaskForAnUnrequestedName)
{
    m.RequestFile(RemoteFile("", "requested.txt", 1), true);

    Start(7, 8, 900, 30, "b.txt", false, "", 3);

    EXPECT_EQ(logger->CountMessage("match task with file name", 2), 0u);
    const auto tasks = TaskSnapshot(m);
    ASSERT_EQ(tasks.size(), 2u);
    EXPECT_EQ(tasks[1].fileName, "b.txt");
    EXPECT_EQ(tasks[1].transferId, 8u);
    EXPECT_EQ(tasks[1].fileSize, 30u);
    EXPECT_EQ(tasks[1].flag, 3u);
    EXPECT_EQ(tasks[1].totalSize, 900u);
    EXPECT_EQ(tasks[1].taskId, 0u);
    EXPECT_FALSE(tasks[1].stream);
    EXPECT_FALSE(PathExists(cache + "/b.txt"));
    EXPECT_EQ(f.listener.Count("onFileTransferStarted"), 1u);
}

TEST_F(DownloadStartTest, DirectoryChainIsLoggedAndCreated)
{
    Start(1, 2, 1, 1, "x/y/z.txt");

    const std::string full = cache + "/x/y/z.txt";
    EXPECT_EQ(logger->CountMessage("pos = %" + std::to_string(full.rfind('/')), 1), 1u);
    EXPECT_EQ(logger->CountMessage("dirPath = " + cache + "/x/y", 1), 1u);
    EXPECT_TRUE(IsDirectory(cache + "/x/y"));
    EXPECT_TRUE(PathExists(full));
}

TEST_F(DownloadStartTest, DirectoryChainThatCannotBeMadeReportsAFailure)
{
    WriteText(tmp.Join("plain"), "a regular file where a directory should be");
    const std::string blocked = tmp.Join("plain") + "/sub";
    // Tasks already running: an upload and a download.
    {
        std::lock_guard<std::mutex> lock(m.mTaskMutex);
        auto upload = std::make_shared<FileTransferTask>();
        upload->transferId = 5;
        auto download = std::make_shared<FileTransferTask>();
        download->transferId = 4;
        m.mFileTaskList = {upload, download};
    }
    m.mCurrentDownloadTransferId = 4;

    Start(7, 2, 1, 1, "a.txt", false, blocked);

    EXPECT_EQ(logger->CountMessage("create dir failed, " + blocked, 3), 1u);
    ExpectReportedFailure(7, 2);
    EXPECT_EQ(f.listener.Count("onTransferRecord"), 0u);
    EXPECT_EQ(TransferIdsOf(TaskSnapshot(m)), std::vector<uint32_t>{5});
    EXPECT_EQ(m.mCurrentDownloadTransferId, 4u);
}

TEST_F(DownloadStartTest, DirectoryEntryIsMadeAndCompletedAtOnce)
{
    m.mCurrentDownloadTransferId = 4;

    Start(7, 2, 0, 0, "photos/2024", true, dest);

    EXPECT_TRUE(IsDirectory(dest + "/photos/2024"));
    EXPECT_EQ(logger->CountMessage("Successfully created the directory " + dest + "/photos/2024", 2), 1u);
    EXPECT_EQ(f.listener.Names(), (std::vector<std::string>{"onFileTransferCompleted"}));
    const ListenerEvent completed = f.listener.EventsNamed("onFileTransferCompleted").front();
    EXPECT_EQ(completed.taskId, 7u);
    EXPECT_EQ(completed.transferId, 2u);
    EXPECT_EQ(completed.result, 0u);
    EXPECT_TRUE(TaskSnapshot(m).empty());
    EXPECT_EQ(m.mCurrentDownloadTransferId, 4u);
}

TEST_F(DownloadStartTest, ExistingDirectoryEntryIsAFailure)
{
    MakeDirs(dest + "/photos");

    Start(7, 2, 0, 0, "photos", true, dest);

    EXPECT_EQ(logger->CountMessage("Failed to create the directory " + dest + "/photos, File exists", 4), 1u);
    ExpectReportedFailure(7, 2);
    EXPECT_EQ(f.listener.Count("onFileTransferCompleted"), 0u);
}

TEST_F(DownloadStartTest, ExistingFileIsTruncated)
{
    MakeDirs(dest);
    WriteText(dest + "/a.txt", "old content that must go");

    Start(7, 2, 3, 3, "a.txt", false, dest);
    EXPECT_TRUE(ReadBytes(dest + "/a.txt").empty());

    std::vector<uint8_t> fresh = {'n', 'e', 'w'};
    m.ProcessFileDownloadData(7, 2, fresh.size(), fresh.data());
    ASSERT_TRUE(f.listener.WaitForCount("onFileTransferCompleted", 1));
    EXPECT_EQ(ReadBytes(dest + "/a.txt"), fresh);
}

TEST_F(DownloadStartTest, FileThatCannotBeOpenedStillRunsToCompletion)
{
    // The destination is a directory, so opening it as a file fails.
    MakeDirs(dest + "/a.txt");

    Start(7, 2, 4, 4, "a.txt", false, dest);

    EXPECT_EQ(f.listener.Count("onFileTransferFailed"), 0u);
    EXPECT_EQ(f.listener.Count("onFileTransferStarted"), 1u);
    const auto tasks = TaskSnapshot(m);
    ASSERT_EQ(tasks.size(), 1u);
    ASSERT_TRUE(tasks[0].stream);
    EXPECT_TRUE(tasks[0].stream->fail());

    std::vector<uint8_t> bytes = PatternBytes(4);
    m.ProcessFileDownloadData(7, 2, bytes.size(), bytes.data());
    ASSERT_TRUE(f.listener.WaitForCount("onFileTransferCompleted", 1));
    EXPECT_EQ(f.listener.Count("onFileTransferFailed"), 0u);
    EXPECT_TRUE(IsDirectory(dest + "/a.txt"));
    EXPECT_TRUE(TaskSnapshot(m).empty());
}

}  // namespace
}  // namespace orin::xfer::test
