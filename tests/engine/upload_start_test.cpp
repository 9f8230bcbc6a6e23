// Starting an upload: taking the next offered file, reporting its record,
// announcing it and registering its task.
#include <gtest/gtest.h>

#include <limits>

#include "TestSupport.h"
#include "UploadSupport.h"

namespace orin::xfer::test {
namespace {

constexpr uint32_t kNoId = std::numeric_limits<uint32_t>::max();

class UploadStartTest : public ::testing::Test {
protected:
    void SetUp() override { OrinFileTransferManager::mTaskId = 1; }

    FileDescription Offered(const std::string& name, size_t size)
    {
        FileDescription file = WritePatternFile(dir.Path(), name, size);
        file.destFilePath = "remote/sub";
        file.destFileName = "r-" + name;
        file.destDir = "D:\\dest";
        file.flag = 7;
        return file;
    }

    uint32_t Upload(uint32_t id, size_t total, bool& listEmpty)
    {
        return fixture.manager->UploadFiles(id, total, "tag-1", records, listEmpty);
    }

    ScopedCapturingLogger logger;
    ManagerFixture fixture;
    TempDir dir;
    std::multimap<std::string, std::string> records;
};

TEST_F(UploadStartTest, EmptyListAnswersNoIdAndClearsUploading)
{
    fixture.manager->mUploading = true;
    bool listEmpty = false;
    EXPECT_EQ(Upload(1, 0, listEmpty), kNoId);
    EXPECT_TRUE(listEmpty);
    EXPECT_FALSE(fixture.manager->IsUploading());
    EXPECT_EQ(logger->CountMessage("uploadFiles list is empty !", kWarning), 1u);
    EXPECT_TRUE(fixture.listener.Events().empty());
    EXPECT_TRUE(records.empty());
    EXPECT_TRUE(fixture.manager->getFileTaskList().empty());
}

TEST_F(UploadStartTest, AnnouncesTheFrontFileAndRegistersItsTask)
{
    const FileDescription file = Offered("one.txt", 1234);
    fixture.manager->mUploadFileList = {file, Offered("two.txt", 5)};
    bool listEmpty = true;

    const uint32_t id = Upload(1, 9999, listEmpty);

    EXPECT_EQ(id, 3u);
    EXPECT_FALSE(listEmpty);
    const std::string source = dir.Join("one.txt");
    const auto events = fixture.listener.Events();
    ASSERT_EQ(fixture.listener.Names(), (std::vector<std::string>{"onTransferRecord", "onSendFileStart"}));

    EXPECT_EQ(events[0].text, "tag-1");
    const std::multimap<std::string, std::string> expectedRecords{
        {"Records.1.TaskType", "UPLOAD"},
        {"Records.1.FileName", "one.txt"},
        {"Records.1.FileSize", "1234"},
        {"Records.1.SourcePath", source},
    };
    EXPECT_EQ(events[0].records, expectedRecords);
    EXPECT_EQ(records, expectedRecords);

    const ListenerEvent& start = events[1];
    EXPECT_EQ(start.taskId, 1u);
    EXPECT_EQ(start.transferId, 3u);
    EXPECT_EQ(start.text, "remote/sub/r-one.txt");
    EXPECT_EQ(start.dest, "D:\\dest");
    EXPECT_FALSE(start.flag);  // not a directory
    EXPECT_EQ(start.result, 7u);
    EXPECT_EQ(start.totalSize, 9999u);
    EXPECT_EQ(start.size, 1234u);

    ASSERT_EQ(fixture.manager->getFileTaskList().size(), 1u);
    const FileTransferTask& task = *fixture.manager->getFileTaskList()[0];
    EXPECT_EQ(task.taskId, 1u);
    EXPECT_EQ(task.transferId, 3u);
    EXPECT_EQ(task.transferredSize, 0u);
    EXPECT_EQ(task.fileName, "one.txt");
    EXPECT_EQ(task.fileSize, 1234u);
    EXPECT_EQ(task.totalSize, 9999u);
    EXPECT_EQ(task.flag, 7u);
    EXPECT_EQ(task.stream, nullptr);
    EXPECT_EQ(task.fileFullPath, source);

    ASSERT_EQ(fixture.manager->mUploadFileList.size(), 1u);
    EXPECT_EQ(fixture.manager->mUploadFileList[0].fileName, "two.txt");
    // The data flow starts only when the remote side accepts.
    EXPECT_FALSE(fixture.manager->IsUploading());
}

TEST_F(UploadStartTest, LogsSourceDestinationAndAnnouncement)
{
    fixture.manager->mUploadFileList = {Offered("one.txt", 1234)};
    bool listEmpty = false;
    ASSERT_EQ(Upload(1, 9999, listEmpty), 3u);

    EXPECT_EQ(logger->CountMessage("task id 1, open file full path = " + dir.Join("one.txt") + " success fileSize=1234",
                                   kInfo),
              1u);
    EXPECT_EQ(logger->CountMessage("task id 1, dest file full path = D:\\destremote/sub/r-one.txt", kInfo), 1u);
    EXPECT_EQ(logger->CountMessage("task id 1, transfer id = 3, fileName =remote/sub/r-one.txt, dest D:\\dest, "
                                   "flag 7, size = 1234, task total size 9999, isDir 0",
                                   kInfo),
              1u);
}

TEST_F(UploadStartTest, CalledUntilEmptyHandsOutOddIdsInListOrder)
{
    fixture.manager->mUploadFileList = {Offered("a", 1), Offered("b", 2), Offered("c", 3)};
    std::vector<uint32_t> ids;
    bool listEmpty = false;
    for (int guard = 0; guard < 10; ++guard) {
        const uint32_t id = Upload(static_cast<uint32_t>(40 + guard), 6, listEmpty);
        if (listEmpty) {
            EXPECT_EQ(id, kNoId);
            break;
        }
        ids.push_back(id);
    }
    EXPECT_TRUE(listEmpty);
    EXPECT_EQ(ids, (std::vector<uint32_t>{3, 5, 7}));

    const auto starts = fixture.listener.EventsNamed("onSendFileStart");
    ASSERT_EQ(starts.size(), 3u);
    EXPECT_EQ(starts[0].text, "remote/sub/r-a");
    EXPECT_EQ(starts[1].text, "remote/sub/r-b");
    EXPECT_EQ(starts[2].text, "remote/sub/r-c");
    EXPECT_EQ(starts[2].taskId, 42u);

    const auto& tasks = fixture.manager->getFileTaskList();
    ASSERT_EQ(tasks.size(), 3u);
    for (size_t i = 0; i < tasks.size(); ++i) {
        EXPECT_EQ(tasks[i]->transferId, ids[i]);
        EXPECT_EQ(tasks[i]->taskId, 40u + i);
        EXPECT_EQ(tasks[i]->fileSize, i + 1);
    }

    // The host's map collects every file's records, each key in call order.
    std::vector<std::string> names;
    auto range = records.equal_range("Records.1.FileName");
    for (auto it = range.first; it != range.second; ++it) {
        names.push_back(it->second);
    }
    EXPECT_EQ(names, (std::vector<std::string>{"a", "b", "c"}));
    EXPECT_EQ(records.count("Records.1.TaskType"), 3u);
    EXPECT_EQ(records.count("Records.1.SourcePath"), 3u);
    EXPECT_EQ(logger->CountMessage("uploadFiles list is empty !", kWarning), 1u);
}

TEST_F(UploadStartTest, RecordsAreAddedToWhatTheHostAlreadyHas)
{
    records.emplace("Records.1.FileName", "earlier");
    records.emplace("Other", "kept");
    fixture.manager->mUploadFileList = {Offered("one.txt", 4)};
    bool listEmpty = false;
    ASSERT_EQ(Upload(1, 4, listEmpty), 3u);

    auto range = records.equal_range("Records.1.FileName");
    ASSERT_EQ(std::distance(range.first, range.second), 2);
    EXPECT_EQ(range.first->second, "earlier");
    EXPECT_EQ(std::next(range.first)->second, "one.txt");
    EXPECT_EQ(records.count("Other"), 1u);
    EXPECT_EQ(records.size(), 6u);
}

TEST_F(UploadStartTest, MissingFileFailsOnceAndIsTriedAgainNextTime)
{
    FileDescription missing = TopLevelFile(dir.Path(), "later.txt", 3);
    fixture.manager->mUploadFileList = {missing};
    fixture.manager->mUploading = true;
    bool listEmpty = true;

    EXPECT_EQ(Upload(11, 3, listEmpty), kNoId);

    EXPECT_FALSE(listEmpty);
    EXPECT_FALSE(fixture.manager->IsUploading());
    EXPECT_EQ(fixture.listener.Names(),
              (std::vector<std::string>{"onClipboardRelease", "onFileTransferFailed", "onReportEvent"}));
    const auto failed = fixture.listener.EventsNamed("onFileTransferFailed");
    EXPECT_EQ(failed[0].taskId, 11u);
    EXPECT_EQ(failed[0].transferId, 0u);
    EXPECT_EQ(failed[0].result, 1u);
    const auto report = fixture.listener.EventsNamed("onReportEvent");
    EXPECT_EQ(report[0].text, "onFileTransferFailed");
    EXPECT_TRUE(report[0].flag);
    EXPECT_EQ(logger->CountMessage(dir.Join("later.txt") + " is not exist", kWarning), 1u);
    EXPECT_TRUE(records.empty());
    EXPECT_TRUE(fixture.manager->getFileTaskList().empty());
    ASSERT_EQ(fixture.manager->mUploadFileList.size(), 1u);
    EXPECT_EQ(fixture.manager->mUploadFileList[0].fileName, "later.txt");

    // Once the file is there, the same description goes out, and no id was
    // used up by the failure.
    WriteBytes(dir.Join("later.txt"), PatternBytes(3));
    fixture.listener.Clear();
    EXPECT_EQ(Upload(11, 3, listEmpty), 3u);
    EXPECT_TRUE(fixture.manager->mUploadFileList.empty());
    EXPECT_EQ(fixture.listener.Count("onSendFileStart"), 1u);
}

TEST_F(UploadStartTest, SourcePathJoinsRelativePartAndUsesForwardSlashes)
{
    MakeDirs(dir.Join("copied/sub"));
    WriteBytes(dir.Join("copied/sub/b.bin"), PatternBytes(5));
    FileDescription nested;
    nested.sourceDir = dir.Path();
    nested.filePath = "copied/sub";
    nested.fileName = "b.bin";
    nested.fileSize = 5;
    FileDescription windowsLooking;
    windowsLooking.sourceDir = dir.Path() + "\\copied\\sub";
    windowsLooking.fileName = "b.bin";
    windowsLooking.fileSize = 5;
    fixture.manager->mUploadFileList = {nested, windowsLooking};
    bool listEmpty = false;

    ASSERT_EQ(Upload(1, 10, listEmpty), 3u);
    ASSERT_EQ(Upload(1, 10, listEmpty), 5u);

    const auto& tasks = fixture.manager->getFileTaskList();
    ASSERT_EQ(tasks.size(), 2u);
    EXPECT_EQ(tasks[0]->fileFullPath, dir.Join("copied/sub/b.bin"));
    EXPECT_EQ(tasks[1]->fileFullPath, dir.Join("copied/sub/b.bin"));
    auto range = records.equal_range("Records.1.SourcePath");
    ASSERT_EQ(std::distance(range.first, range.second), 2);
    EXPECT_EQ(range.first->second, dir.Join("copied/sub/b.bin"));
    EXPECT_EQ(std::next(range.first)->second, dir.Join("copied/sub/b.bin"));
}

TEST_F(UploadStartTest, DirectoryBitAloneDecidesTheDirectoryFlag)
{
    MakeDirs(dir.Join("folder"));
    WriteBytes(dir.Join("plain"), PatternBytes(1));
    FileDescription folder = TopLevelFile(dir.Path(), "folder", 0);
    folder.attribute = kAttributeDirectory | 0x01;
    FileDescription plain = TopLevelFile(dir.Path(), "plain", 1);
    plain.attribute = 0x20 | kAttributeNormal;
    fixture.manager->mUploadFileList = {folder, plain};
    bool listEmpty = false;

    ASSERT_EQ(Upload(1, 1, listEmpty), 3u);
    ASSERT_EQ(Upload(1, 1, listEmpty), 5u);
    const auto starts = fixture.listener.EventsNamed("onSendFileStart");
    ASSERT_EQ(starts.size(), 2u);
    EXPECT_TRUE(starts[0].flag);
    EXPECT_FALSE(starts[1].flag);
    EXPECT_EQ(logger->WithMessagePrefix("task id 1, transfer id = 3, fileName =folder").size(), 1u);
    EXPECT_EQ(logger->CountMessage("task id 1, transfer id = 3, fileName =folder, dest , flag 0, size = 0, "
                                   "task total size 1, isDir 1",
                                   kInfo),
              1u);
}

TEST_F(UploadStartTest, RemoteNameWithoutDestinationPathIsTheNameAlone)
{
    FileDescription file = Offered("x.txt", 2);
    file.destFilePath.clear();
    fixture.manager->mUploadFileList = {file};
    bool listEmpty = false;
    ASSERT_EQ(Upload(1, 2, listEmpty), 3u);
    const auto starts = fixture.listener.EventsNamed("onSendFileStart");
    ASSERT_EQ(starts.size(), 1u);
    EXPECT_EQ(starts[0].text, "r-x.txt");
    EXPECT_EQ(logger->CountMessage("task id 1, dest file full path = D:\\destr-x.txt", kInfo), 1u);
}

TEST_F(UploadStartTest, AnnouncementGoesStraightToTheListener)
{
    fixture.manager->sendFileStartXfer(4, 9, "n", "d", true, 2, 100, 50);
    const auto starts = fixture.listener.EventsNamed("onSendFileStart");
    ASSERT_EQ(starts.size(), 1u);
    EXPECT_EQ(starts[0].taskId, 4u);
    EXPECT_EQ(starts[0].transferId, 9u);
    EXPECT_EQ(starts[0].text, "n");
    EXPECT_EQ(starts[0].dest, "d");
    EXPECT_TRUE(starts[0].flag);
    EXPECT_EQ(starts[0].result, 2u);
    EXPECT_EQ(starts[0].totalSize, 100u);
    EXPECT_EQ(starts[0].size, 50u);
    EXPECT_EQ(logger->CountMessage("task id 4, transfer id = 9, fileName =n, dest d, flag 2, size = 50, "
                                   "task total size 100, isDir 1",
                                   kInfo),
              1u);
}

TEST(UploadStartNoListener, StillRegistersTheTask)
{
    ScopedCapturingLogger logger;
    OrinFileTransferManager::mTaskId = 1;
    TempDir dir;
    auto manager = std::make_unique<OrinFileTransferManager>(nullptr, std::make_unique<TestLooperFactory>(), false,
                                                             nullptr);
    manager->mUploadFileList = {WritePatternFile(dir.Path(), "f", 3)};
    std::multimap<std::string, std::string> records;
    bool listEmpty = false;
    EXPECT_EQ(manager->UploadFiles(1, 3, "t", records, listEmpty), 3u);
    EXPECT_EQ(manager->getFileTaskList().size(), 1u);
    EXPECT_EQ(records.size(), 4u);
    EXPECT_TRUE(manager->mUploadFileList.empty());
}

}  // namespace
}  // namespace orin::xfer::test
