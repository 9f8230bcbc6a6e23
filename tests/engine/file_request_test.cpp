// File requests of an incoming paste: the session notification, the cache
// wipe, the marker task and the wait, the pending and record lists, and the
// hand-over of a local list to the upload side.
#include <gtest/gtest.h>

#include "DownloadSupport.h"
#include "TestSupport.h"

namespace orin::xfer::test {
namespace {

std::vector<std::string> NamesOf(const std::vector<FileDescription>& files)
{
    std::vector<std::string> names;
    for (const auto& file : files) {
        names.push_back(RequestNameOf(file));
    }
    return names;
}

class FileRequestTest : public ::testing::Test {
protected:
    FileRequestTest() { m.SetCacheDir(cache); }

    // Plays the remote side for one requested file: announce it into the
    // cache and send its bytes.
    void Deliver(const FileDescription& file, uint32_t transferId, const std::vector<uint8_t>& bytes)
    {
        StartFile(m, 9, transferId, RequestNameOf(file), bytes.size());
        SendChunks(m, 9, transferId, bytes, {64});
    }

    ScopedCapturingLogger logger;
    TempDir tmp;
    std::string cache = tmp.Join("cache");
    ManagerFixture f;
    OrinFileTransferManager& m = *f.manager;
};

TEST(FileRequestWithoutCacheDir, LogsAndReturnsWithoutTouchingAnything)
{
    ScopedCapturingLogger logger;
    ManagerFixture f;
    OrinFileTransferManager& m = *f.manager;
    m.mRegisterOnlyRequest = true;
    m.PushDownloadFile(RemoteFile("", "a.txt", 3));

    RequestRunner request(m, RemoteFile("", "a.txt", 3));
    EXPECT_TRUE(request.Finish());

    EXPECT_EQ(logger->CountMessage("cache dir is not set", 4), 1u);
    EXPECT_TRUE(f.listener.Events().empty());
    EXPECT_TRUE(f.journal->JobNames("<main>").empty());
    EXPECT_FALSE(m.mFileRequested);
    EXPECT_TRUE(m.mRegisterOnlyRequest);
    EXPECT_TRUE(TaskSnapshot(m).empty());
    EXPECT_EQ(m.GetDownloadFileList().size(), 1u);
    EXPECT_EQ(f.journal->Count("create:xfer-downloader"), 1u);
}

TEST_F(FileRequestTest, RequestFileDescStartsANewSession)
{
    m.mFileRequested = true;
    logger->Clear();

    m.RequestFileDesc();

    EXPECT_FALSE(m.mFileRequested);
    EXPECT_EQ(logger->CountMessage("requestFileDesc", 2), 1u);
    EXPECT_EQ(f.listener.Names(), std::vector<std::string>{"onRequestFileDesc"});
}

TEST_F(FileRequestTest, RegistrationOnlyNotifiesOnTheCallingThreadOncePerSession)
{
    MakeDirs(cache);
    WriteText(cache + "/kept.txt", "left from before");
    m.RequestFileDesc();

    {
        RequestRunner request(m, RemoteFile("docs", "a.txt", 5), true);
        ASSERT_TRUE(request.Finish());
        const auto notified = f.listener.EventsNamed("onRequestFile");
        ASSERT_EQ(notified.size(), 1u);
        EXPECT_EQ(notified.front().thread, request.ThreadId());
    }
    EXPECT_TRUE(m.mRegisterOnlyRequest);
    auto tasks = TaskSnapshot(m);
    ASSERT_EQ(tasks.size(), 1u);
    EXPECT_EQ(tasks[0].fileName, "docs/a.txt");
    EXPECT_EQ(tasks[0].transferId, 0u);
    EXPECT_EQ(tasks[0].taskId, 0u);
    EXPECT_EQ(tasks[0].fileSize, 0u);
    EXPECT_FALSE(tasks[0].stream);

    {
        RequestRunner second(m, RemoteFile("", "b.txt", 1), true);
        ASSERT_TRUE(second.Finish());
        RequestRunner again(m, RemoteFile("docs", "a.txt", 5), true);
        ASSERT_TRUE(again.Finish());
    }
    EXPECT_EQ(f.listener.Count("onRequestFile"), 1u);
    tasks = TaskSnapshot(m);
    ASSERT_EQ(tasks.size(), 2u);
    EXPECT_EQ(tasks[1].fileName, "b.txt");

    m.RequestFileDesc();
    {
        RequestRunner next(m, RemoteFile("", "c.txt", 1), true);
        ASSERT_TRUE(next.Finish());
    }
    EXPECT_EQ(f.listener.Count("onRequestFile"), 2u);
    EXPECT_EQ(logger->CountMessage("clipboard request file to remote", 2), 2u);

    // The cache is neither wiped nor prepared, and nothing is posted.
    EXPECT_TRUE(PathExists(cache + "/kept.txt"));
    EXPECT_FALSE(PathExists(cache + "/docs"));
    EXPECT_TRUE(f.journal->JobNames("<main>").empty());
    EXPECT_EQ(f.journal->Count("create:xfer-downloader"), 1u);
}

TEST_F(FileRequestTest, FirstDownloadRequestOfASessionPostsTheJobAndWipesTheCache)
{
    MakeDirs(cache);
    WriteText(cache + "/stale.txt", "from the last paste");
    const FileDescription a = RemoteFile("", "a.txt", 4);
    const FileDescription b = RemoteFile("", "b.txt", 4);
    const FileDescription c = RemoteFile("", "c.txt", 4);
    m.RequestFileDesc();
    m.PushDownloadFile(a);
    m.PushDownloadFile(b);

    {
        RequestRunner request(m, a);
        ASSERT_TRUE(WaitForMarkerTask(m, "a.txt"));
        EXPECT_FALSE(PathExists(cache + "/stale.txt"));
        EXPECT_EQ(f.journal->JobNames("<main>"), std::vector<std::string>{"RequestFile"});
        ASSERT_TRUE(f.listener.WaitForCount("onRequestFile", 1));
        const ListenerEvent notified = f.listener.EventsNamed("onRequestFile").front();
        EXPECT_TRUE(f.journal->IsThreadOf("<main>", notified.thread));
        EXPECT_NE(notified.thread, request.ThreadId());
        Deliver(a, 2, PatternBytes(4, 1));
        EXPECT_TRUE(request.Finish());
    }

    WriteText(cache + "/between.txt", "written between two requests");
    {
        RequestRunner request(m, b);
        ASSERT_TRUE(WaitForMarkerTask(m, "b.txt"));
        Deliver(b, 4, PatternBytes(4, 2));
        EXPECT_TRUE(request.Finish());
    }
    EXPECT_TRUE(PathExists(cache + "/between.txt"));
    EXPECT_EQ(ReadBytes(cache + "/a.txt"), PatternBytes(4, 1));
    EXPECT_EQ(f.journal->JobNames("<main>").size(), 1u);
    EXPECT_EQ(logger->CountMessage("clipboard request file to remote", 2), 1u);

    m.RequestFileDesc();
    m.PushDownloadFile(c);
    {
        RequestRunner request(m, c);
        ASSERT_TRUE(WaitForMarkerTask(m, "c.txt"));
        EXPECT_FALSE(PathExists(cache + "/between.txt"));
        EXPECT_FALSE(PathExists(cache + "/a.txt"));
        EXPECT_EQ(f.journal->JobNames("<main>"), (std::vector<std::string>{"RequestFile", "RequestFile"}));
        Deliver(c, 6, PatternBytes(4, 3));
        EXPECT_TRUE(request.Finish());
    }
    EXPECT_TRUE(f.listener.WaitForCount("onRequestFile", 2));
    EXPECT_EQ(logger->CountMessage("clipboard request file to remote", 2), 2u);
}

TEST_F(FileRequestTest, DownloadRequestRegistersAMarkerTaskAndWaits)
{
    const FileDescription file = RemoteFile("a/b", "c.txt", 10);
    m.PushDownloadFile(file);

    RequestRunner request(m, file);
    ASSERT_TRUE(WaitForMarkerTask(m, "a/b/c.txt"));
    {
        std::lock_guard<std::mutex> lock(m.mTaskMutex);
        ASSERT_EQ(m.mFileTaskList.size(), 1u);
        const FileTransferTask& marker = *m.mFileTaskList.front();
        EXPECT_EQ(marker.fileName, "a/b/c.txt");
        EXPECT_EQ(marker.transferId, 0u);
        EXPECT_EQ(marker.taskId, 0u);
        EXPECT_EQ(marker.fileSize, 0u);
        EXPECT_EQ(marker.totalSize, 0u);
        EXPECT_EQ(marker.transferredSize, 0u);
        ASSERT_TRUE(marker.stream);
        EXPECT_TRUE(marker.stream->is_open());
    }
    EXPECT_FALSE(request.Returned());
    EXPECT_FALSE(m.mDownloadComplete);
    EXPECT_TRUE(IsDirectory(cache + "/a"));
    EXPECT_TRUE(IsDirectory(cache + "/a/b"));
    EXPECT_TRUE(PathExists(cache + "/a/b/c.txt"));
    EXPECT_EQ(logger->CountMessage("file full path = " + cache + "/a/b/c.txt", 1), 1u);
    EXPECT_EQ(logger->CountMessage("fileName = a/b/c.txt is in task, start wait download", 1), 1u);

    Deliver(file, 2, PatternBytes(10, 4));
    EXPECT_TRUE(request.Finish());
    EXPECT_EQ(ReadBytes(cache + "/a/b/c.txt"), PatternBytes(10, 4));
    EXPECT_TRUE(m.GetDownloadFileList().empty());
    // The last pending file stopped the writer, which dropped the marker.
    EXPECT_TRUE(TaskSnapshot(m).empty());
}

TEST_F(FileRequestTest, TopLevelFileWaitsDirectlyUnderTheCacheUntilTheWriterStops)
{
    const FileDescription file = RemoteFile("", "top.txt", 3);
    m.PushDownloadFile(file);

    RequestRunner request(m, file);
    ASSERT_TRUE(WaitForMarkerTask(m, "top.txt"));
    EXPECT_TRUE(PathExists(cache + "/top.txt"));
    EXPECT_EQ(logger->CountMessage("file full path = " + cache + "/top.txt", 1), 1u);
    EXPECT_FALSE(request.Returned());

    // A file that never arrives is given up when the writer is stopped.
    m.stopWriteFileThread();
    EXPECT_TRUE(request.Finish());
    EXPECT_TRUE(m.GetDownloadFileList().empty());
    EXPECT_EQ(logger->CountMessage("all files download complete", 2), 1u);
}

TEST_F(FileRequestTest, FileAlreadyInTheCacheIsADirectCopy)
{
    const FileDescription first = RemoteFile("", "first.txt", 3);
    const FileDescription cached = RemoteFile("docs", "cached.txt", 5);
    m.RequestFileDesc();
    m.PushDownloadFile(first);
    m.PushDownloadFile(cached);
    m.PushDownloadFile(RemoteFile("", "later.txt", 1));
    {
        // The first request of the paste wipes the cache.
        RequestRunner request(m, first);
        ASSERT_TRUE(WaitForMarkerTask(m, "first.txt"));
        Deliver(first, 2, PatternBytes(3));
        ASSERT_TRUE(request.Finish());
    }
    MakeDirs(cache + "/docs");
    WriteText(cache + "/docs/cached.txt", "ready");
    const auto tasksBefore = TaskSnapshot(m);
    const size_t writersBefore = f.journal->Count("create:xfer-downloader");
    m.mRegisterOnlyRequest = true;
    logger->Clear();

    {
        RequestRunner request(m, cached);
        EXPECT_TRUE(request.Finish());
    }

    EXPECT_EQ(logger->CountMessage("fileName = docs/cached.txt is downloaded, direct copy", 1), 1u);
    EXPECT_EQ(logger->CountMessage("fileName = docs/cached.txt is in task, start wait download", 1), 0u);
    EXPECT_TRUE(m.mDownloadComplete);
    EXPECT_FALSE(m.mRegisterOnlyRequest);
    EXPECT_EQ(TaskSnapshot(m).size(), tasksBefore.size());
    EXPECT_EQ(NamesOf(m.GetDownloadFileList()), std::vector<std::string>{"later.txt"});
    EXPECT_EQ(ReadBytes(cache + "/docs/cached.txt"), std::vector<uint8_t>({'r', 'e', 'a', 'd', 'y'}));
    EXPECT_EQ(logger->CountMessage("all files download complete", 2), 0u);
    EXPECT_EQ(f.journal->Count("create:xfer-downloader"), writersBefore);
}

TEST_F(FileRequestTest, RequestThatEmptiesThePendingListStopsTheWriter)
{
    const FileDescription a = RemoteFile("x", "a.txt", 6);
    const FileDescription b = RemoteFile("", "b.txt", 6);
    m.RequestFileDesc();
    m.PushDownloadFile(a);
    m.PushDownloadFile(b);

    {
        RequestRunner request(m, a);
        ASSERT_TRUE(WaitForMarkerTask(m, "x/a.txt"));
        Deliver(a, 2, PatternBytes(6, 1));
        ASSERT_TRUE(request.Finish());
    }
    EXPECT_EQ(logger->CountMessage("all files download complete", 2), 0u);
    EXPECT_EQ(f.journal->Count("create:xfer-downloader"), 1u);
    EXPECT_EQ(NamesOf(m.GetDownloadFileList()), std::vector<std::string>{"b.txt"});
    {
        // The marker of a completed file stays until the writer stops.
        const auto tasks = TaskSnapshot(m);
        ASSERT_EQ(tasks.size(), 1u);
        EXPECT_EQ(tasks[0].fileName, "x/a.txt");
    }

    {
        RequestRunner request(m, b);
        ASSERT_TRUE(WaitForMarkerTask(m, "b.txt"));
        Deliver(b, 4, PatternBytes(6, 2));
        ASSERT_TRUE(request.Finish());
    }
    EXPECT_EQ(logger->CountMessage("all files download complete", 2), 1u);
    EXPECT_EQ(f.journal->Entries(), (std::vector<std::string>{"create:<main>", "create:xfer-downloader",
                                                               "destroy:xfer-downloader", "create:xfer-downloader"}));
    EXPECT_TRUE(TaskSnapshot(m).empty());
    EXPECT_TRUE(m.GetDownloadFileList().empty());
    // The record list keeps every pushed file until the host clears it.
    EXPECT_EQ(NamesOf(m.mDownloadFileRecordList), (std::vector<std::string>{"x/a.txt", "b.txt"}));
    m.ClearDownloadFileRecordList();
    EXPECT_TRUE(m.mDownloadFileRecordList.empty());
}

TEST_F(FileRequestTest, FirstRequestWithNothingPendingAlsoStopsTheWriter)
{
    const FileDescription a = RemoteFile("", "a.txt", 2);
    RequestRunner request(m, a);
    ASSERT_TRUE(WaitForMarkerTask(m, "a.txt"));
    Deliver(a, 2, PatternBytes(2));
    ASSERT_TRUE(request.Finish());

    EXPECT_EQ(logger->CountMessage("all files download complete", 2), 1u);
    EXPECT_EQ(f.journal->Count("destroy:xfer-downloader"), 1u);
    EXPECT_EQ(f.journal->Count("create:xfer-downloader"), 2u);
}

TEST_F(FileRequestTest, EveryPendingEntryWithTheRequestedNameIsRemoved)
{
    const FileDescription a = RemoteFile("", "a.txt", 3);
    m.PushDownloadFile(a);
    m.PushDownloadFile(RemoteFile("", "b.txt", 3));
    m.PushDownloadFile(a);

    RequestRunner request(m, a);
    ASSERT_TRUE(WaitForMarkerTask(m, "a.txt"));
    Deliver(a, 2, PatternBytes(3));
    ASSERT_TRUE(request.Finish());

    EXPECT_EQ(NamesOf(m.GetDownloadFileList()), std::vector<std::string>{"b.txt"});
    std::vector<std::string> walk;
    for (const auto& message : Messages(*logger, 1)) {
        if (message.rfind("download file name = ", 0) == 0) {
            walk.push_back(message);
        }
    }
    EXPECT_EQ(walk, (std::vector<std::string>{"download file name = a.txt, reuqest file name = a.txt",
                                              "download file name = b.txt, reuqest file name = a.txt",
                                              "download file name = a.txt, reuqest file name = a.txt"}));
    EXPECT_EQ(logger->CountMessage("all files download complete", 2), 0u);
}

TEST_F(FileRequestTest, CompletionOfAnotherFileWakesTheWaitingRequest)
{
    const FileDescription a = RemoteFile("", "a.txt", 8);
    const FileDescription b = RemoteFile("", "b.txt", 5);
    m.PushDownloadFile(a);
    m.PushDownloadFile(b);

    RequestRunner request(m, a);
    ASSERT_TRUE(WaitForMarkerTask(m, "a.txt"));
    // Only b arrives; its completion ends the wait for a all the same.
    Deliver(b, 4, PatternBytes(5, 7));
    EXPECT_TRUE(request.Finish());
    // The wait ends when the writer marks the download complete, which it
    // does before it reports the completion.
    ASSERT_TRUE(f.listener.WaitForCount("onFileTransferCompleted", 1));

    EXPECT_EQ(NamesOf(m.GetDownloadFileList()), std::vector<std::string>{"b.txt"});
    EXPECT_EQ(ReadBytes(cache + "/b.txt"), PatternBytes(5, 7));
    EXPECT_TRUE(ReadBytes(cache + "/a.txt").empty());
    EXPECT_EQ(f.listener.Count("onFileTransferCompleted"), 1u);
}

TEST(FileRequestBrokenCache, CacheDirectoryThatCannotBeMadeReportsAFailure)
{
    ScopedCapturingLogger logger;
    TempDir tmp;
    WriteText(tmp.Join("plain"), "a regular file where a directory should be");
    ManagerFixture f;
    OrinFileTransferManager& m = *f.manager;
    m.SetCacheDir(tmp.Join("plain") + "/cache");
    m.mRegisterOnlyRequest = true;
    const FileDescription a = RemoteFile("", "a.txt", 3);
    m.PushDownloadFile(a);

    RequestRunner request(m, a);
    EXPECT_TRUE(request.Finish());

    EXPECT_EQ(NamesAmong(f.listener, FailureCalls()), FailureCalls());
    const auto failed = f.listener.EventsNamed("onFileTransferFailed");
    ASSERT_EQ(failed.size(), 1u);
    EXPECT_EQ(failed[0].taskId, 0xFFFFFFFFu);
    EXPECT_EQ(failed[0].transferId, 0u);
    EXPECT_EQ(failed[0].result, 1u);
    EXPECT_EQ(failed[0].thread, request.ThreadId());
    const auto reported = f.listener.EventsNamed("onReportEvent");
    ASSERT_EQ(reported.size(), 1u);
    EXPECT_EQ(reported[0].text, "onFileTransferFailed");
    EXPECT_FALSE(reported[0].flag);

    EXPECT_EQ(logger->CountMessage("remove cache dir failed", 3), 1u);
    EXPECT_GE(logger->CountMessage("ret = -1", 2), 1u);
    EXPECT_EQ(logger->WithMessagePrefix("fileName = ").size(), 0u);
    EXPECT_EQ(f.journal->Count("destroy:xfer-downloader"), 1u);
    EXPECT_EQ(f.journal->Count("create:xfer-downloader"), 2u);
    EXPECT_TRUE(TaskSnapshot(m).empty());
    EXPECT_TRUE(m.mRegisterOnlyRequest);
    EXPECT_EQ(m.GetDownloadFileList().size(), 1u);
}

TEST_F(FileRequestTest, PushedFilesAreCopiedIntoThePendingAndRecordLists)
{
    FileDescription a = RemoteFile("d", "a.txt", 1);
    logger->Clear();
    m.PushDownloadFile(a);
    a.fileName = "changed.txt";
    m.PushDownloadFile(RemoteFile("", "b.txt", 2));
    EXPECT_TRUE(logger->Lines().empty());

    std::vector<FileDescription>& pending = m.GetDownloadFileList();
    EXPECT_EQ(&pending, &m.mDownloadFileList);
    EXPECT_EQ(NamesOf(pending), (std::vector<std::string>{"d/a.txt", "b.txt"}));
    EXPECT_EQ(NamesOf(m.mDownloadFileRecordList), (std::vector<std::string>{"d/a.txt", "b.txt"}));

    m.ClearDownloadFileRecordList();
    EXPECT_TRUE(m.mDownloadFileRecordList.empty());
    EXPECT_EQ(pending.size(), 2u);

    pending.pop_back();
    EXPECT_EQ(NamesOf(m.mDownloadFileList), std::vector<std::string>{"d/a.txt"});
}

TEST_F(FileRequestTest, TriggerLocalCopyReplacesTheUploadList)
{
    m.mUploadFileList = {RemoteFile("", "old.txt", 1)};
    const std::vector<FileDescription> files = {RemoteFile("", "one.txt", 1), RemoteFile("p", "two.txt", 2)};

    m.TriggerLocalCopy(files);

    EXPECT_EQ(NamesOf(m.mUploadFileList), (std::vector<std::string>{"one.txt", "p/two.txt"}));
    EXPECT_EQ(logger->CountMessage("mUploadFileList length = 2", 2), 1u);
    EXPECT_EQ(f.listener.Names(), std::vector<std::string>{"onUploadFileListReady"});
}

TEST_F(FileRequestTest, TriggerLocalCopyWithAnEmptyListStillNotifies)
{
    m.mUploadFileList = {RemoteFile("", "old.txt", 1)};

    m.TriggerLocalCopy({});

    EXPECT_TRUE(m.mUploadFileList.empty());
    EXPECT_EQ(logger->CountMessage("mUploadFileList length = 0", 2), 1u);
    EXPECT_EQ(f.listener.Count("onUploadFileListReady"), 1u);
}

}  // namespace
}  // namespace orin::xfer::test
