// Records that cross the host boundary, the listener's defaults and the
// attribute rule that tells a directory from a file.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <malloc.h>

#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <type_traits>

#include "ManagerCoreSupport.h"
#include "TestSupport.h"

namespace orin::xfer::test {
namespace {

using ::testing::ElementsAre;

static_assert(!std::is_copy_constructible_v<WriteFileData>, "a chunk owns its buffer and must not be copied");
static_assert(!std::is_copy_assignable_v<WriteFileData>, "a chunk owns its buffer and must not be copied");
static_assert(std::is_same_v<decltype(kPathSeparator), const std::string>, "the separator is a library string");

TEST(FileDescriptionRecord, DefaultHasEveryStringEmptyAndEveryNumberZero)
{
    ScopedCapturingLogger logger;
    const FileDescription d;
    EXPECT_EQ(d.sourceDir, "");
    EXPECT_EQ(d.filePath, "");
    EXPECT_EQ(d.destFilePath, "");
    EXPECT_EQ(d.fileName, "");
    EXPECT_EQ(d.destFileName, "");
    EXPECT_EQ(d.destDir, "");
    EXPECT_EQ(d.attribute, 0u);
    EXPECT_EQ(d.mode, 0u);
    EXPECT_EQ(d.fileSize, 0u);
    EXPECT_EQ(d.flag, 0u);
}

TEST(FileDescriptionRecord, FieldsFollowTheirDocumentedOrder)
{
    ScopedCapturingLogger logger;
    // Aggregate initialisation binds the values in declaration order.
    const FileDescription d{"/src", "sub", "dsub", "name.txt", "name (1).txt", "/dst", 0x80, 0644, 1ull << 33, 9};
    EXPECT_EQ(d.sourceDir, "/src");
    EXPECT_EQ(d.filePath, "sub");
    EXPECT_EQ(d.destFilePath, "dsub");
    EXPECT_EQ(d.fileName, "name.txt");
    EXPECT_EQ(d.destFileName, "name (1).txt");
    EXPECT_EQ(d.destDir, "/dst");
    EXPECT_EQ(d.attribute, 0x80u);
    EXPECT_EQ(d.mode, 0644u);
    EXPECT_EQ(d.fileSize, 1ull << 33);
    EXPECT_EQ(d.flag, 9u);
}

TEST(FileTransferTaskRecord, DefaultStartsEmptyWithNoStream)
{
    ScopedCapturingLogger logger;
    const auto task = std::make_shared<FileTransferTask>();
    EXPECT_EQ(task->taskId, 0u);
    EXPECT_EQ(task->transferId, 0u);
    EXPECT_EQ(task->transferredSize, 0u);
    EXPECT_EQ(task->fileName, "");
    EXPECT_EQ(task->fileSize, 0u);
    EXPECT_EQ(task->totalSize, 0u);
    EXPECT_EQ(task->flag, 0u);
    EXPECT_EQ(task->stream, nullptr);
    EXPECT_EQ(task->fileFullPath, "");
}

TEST(FileTransferTaskRecord, FieldsFollowTheirDocumentedOrder)
{
    ScopedCapturingLogger logger;
    auto stream = std::make_shared<std::fstream>();
    const FileTransferTask task{7, 4, 10, "f.bin", 20, 30, 5, stream, "/tmp/f.bin"};
    EXPECT_EQ(task.taskId, 7u);
    EXPECT_EQ(task.transferId, 4u);
    EXPECT_EQ(task.transferredSize, 10u);
    EXPECT_EQ(task.fileName, "f.bin");
    EXPECT_EQ(task.fileSize, 20u);
    EXPECT_EQ(task.totalSize, 30u);
    EXPECT_EQ(task.flag, 5u);
    EXPECT_EQ(task.stream, stream);
    EXPECT_EQ(task.fileFullPath, "/tmp/f.bin");
}

TEST(WriteFileDataRecord, DefaultHoldsNoBuffer)
{
    ScopedCapturingLogger logger;
    const WriteFileData chunk;
    EXPECT_EQ(chunk.size, 0u);
    EXPECT_EQ(chunk.data, nullptr);
}

TEST(WriteFileDataRecord, BufferIsFreedWithTheLastSharedOwner)
{
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "a sanitizer's allocator does not report through mallinfo2; its leak and "
                    "double-free checks cover this buffer's release in those builds";
#endif
    ScopedCapturingLogger logger;
    // A fixed threshold keeps large blocks on their own mapping, so the
    // mapped total shows exactly when this buffer is given back.
    ASSERT_EQ(mallopt(M_MMAP_THRESHOLD, 128 * 1024), 1);
    constexpr size_t kSize = 8 * 1024 * 1024;
    const size_t before = mallinfo2().hblkhd;

    auto first = std::make_shared<WriteFileData>();
    first->data = static_cast<uint8_t*>(std::malloc(kSize));
    ASSERT_NE(first->data, nullptr);
    first->size = kSize;
    std::memset(first->data, 0xA5, kSize);
    ASSERT_GE(mallinfo2().hblkhd, before + kSize);

    std::shared_ptr<WriteFileData> second = first;
    first.reset();
    EXPECT_GE(mallinfo2().hblkhd, before + kSize) << "freed while an owner remained";
    EXPECT_EQ(second->data[kSize - 1], 0xA5);

    second.reset();
    EXPECT_EQ(mallinfo2().hblkhd, before) << "not freed with the last owner";
}

TEST(PathSeparator, IsASingleForwardSlash)
{
    ScopedCapturingLogger logger;
    EXPECT_EQ(kPathSeparator, "/");
}

TEST(AttributeBits, DirectoryAndNormalValues)
{
    ScopedCapturingLogger logger;
    EXPECT_EQ(kAttributeDirectory, 0x10u);
    EXPECT_EQ(kAttributeNormal, 0x80u);
}

// A host listener that overrides nothing: every notification is a no-op.
TEST(ListenerDefaults, EveryOperationIsCallableAndDoesNothing)
{
    ScopedCapturingLogger logger;
    FileTransferListener listener;
    std::multimap<std::string, std::string> records{{"k", "v"}};
    const uint8_t byte = 1;
    listener.onUploadFileListReady();
    listener.onRequestFileDesc();
    listener.onRequestFile();
    listener.onSendFileDesc("[]");
    listener.onClipboardRelease();
    listener.onFileTransferFailed(1, 2, 3);
    listener.onReportEvent("onFileTransferFailed", true);
    listener.onFileDownloaded(FileDescription{}, &byte, 1);
    listener.onSendFileData(1, 3, &byte, 1);
    listener.onSendFileStart(1, 3, "a", "b", false, 0, 1, 1);
    listener.onFileTransferStarted(1, 4, 0);
    listener.onFileDataAck(1, 4, 0);
    listener.onFileTransferCompleted(1, 4, 0);
    listener.onFileTransferCanceled(1, 4, 0);
    listener.onFileTransferProgress(1, 4, 50, 10);
    listener.onTransferRecord("tag", records);
    // The defaults leave the host's map alone.
    EXPECT_EQ(records.size(), 1u);
    EXPECT_TRUE(logger->Lines().empty());
}

// A host that overrides one operation gets that one and no others.
class ReleaseOnlyListener : public FileTransferListener {
public:
    void onClipboardRelease() override { ++releases; }
    int releases = 0;
};

TEST(ListenerDefaults, EngineDrivesAListenerThatOverridesOnlyOneOperation)
{
    ScopedCapturingLogger logger;
    ReleaseOnlyListener listener;
    auto journal = std::make_shared<LooperJournal>();
    OrinFileTransferManager manager(&listener, std::make_unique<TestLooperFactory>(journal), false, nullptr);
    manager.getFileTaskList().push_back(MakeTask(1, 5));
    manager.getFileTaskList().push_back(MakeTask(1, 6));

    manager.notifyTransferFailed(1, 5, "reason", true);
    manager.ProcessXferError(1, 5);
    manager.ProcessXferError(1, 6);
    manager.ProcessTansferDisconnect();
    manager.notifyRemoteClipboardRelease();
    manager.Cancel();

    // notifyTransferFailed, notifyRemoteClipboardRelease and Cancel each release once.
    EXPECT_EQ(listener.releases, 3);
    EXPECT_TRUE(manager.getFileTaskList().empty());
}

// The directory test is bit 4 of the attribute, whatever the other bits:
// the announcement of an upload carries it as its directory flag.
class UploadAttributeTest : public ::testing::Test {
protected:
    // Announces one existing regular file under the given attribute and
    // returns the directory flag of the announcement.
    bool AnnouncedAsDirectory(uint32_t attribute)
    {
        FileDescription file;
        file.sourceDir = dir.Path();
        file.fileName = "plain.bin";
        file.destFileName = "plain.bin";
        file.attribute = attribute;
        fixture.manager->mUploadFileList = {file};
        fixture.listener.Clear();
        std::multimap<std::string, std::string> records;
        bool listEmpty = true;
        const uint32_t transferId = fixture.manager->UploadFiles(1, 0, "tag", records, listEmpty);
        EXPECT_NE(transferId, 0xFFFFFFFFu);
        const auto starts = fixture.listener.EventsNamed("onSendFileStart");
        EXPECT_EQ(starts.size(), 1u);
        return !starts.empty() && starts[0].flag;
    }

    ScopedCapturingLogger logger;
    TempDir dir;
    ManagerFixture fixture;
    void SetUp() override { WriteText(dir.Join("plain.bin"), "x"); }
};

TEST_F(UploadAttributeTest, BitFourSetMeansDirectoryWhateverTheOtherBits)
{
    EXPECT_TRUE(AnnouncedAsDirectory(0x10));
    EXPECT_TRUE(AnnouncedAsDirectory(0x90));
    EXPECT_TRUE(AnnouncedAsDirectory(0x11));
    EXPECT_TRUE(AnnouncedAsDirectory(0xFFFFFFFF));
}

TEST_F(UploadAttributeTest, BitFourClearMeansFileWhateverTheOtherBits)
{
    EXPECT_FALSE(AnnouncedAsDirectory(0x80));
    EXPECT_FALSE(AnnouncedAsDirectory(0x20));
    EXPECT_FALSE(AnnouncedAsDirectory(0x0F));
    EXPECT_FALSE(AnnouncedAsDirectory(0xFFFFFFEF));
}

// An empty file is sent as one data call with no bytes, and no worker runs.
TEST(EmptyFileUpload, SendsExactlyOneNullDataCallAndStartsNoWorker)
{
    ScopedCapturingLogger logger;
    TempDir dir;
    WriteText(dir.Join("empty.txt"), "");
    ManagerFixture fixture;
    FileDescription file;
    file.sourceDir = dir.Path();
    file.fileName = "empty.txt";
    file.attribute = kAttributeNormal;
    fixture.manager->mUploadFileList = {file};
    std::multimap<std::string, std::string> records;
    bool listEmpty = true;
    const uint32_t transferId = fixture.manager->UploadFiles(21, 0, "tag", records, listEmpty);
    ASSERT_NE(transferId, 0xFFFFFFFFu);
    fixture.listener.Clear();

    fixture.manager->ProcessFileUploadData(transferId);

    const auto sends = fixture.listener.EventsNamed("onSendFileData");
    ASSERT_EQ(sends.size(), 1u);
    EXPECT_EQ(sends[0].taskId, 21u);
    EXPECT_EQ(sends[0].transferId, transferId);
    EXPECT_TRUE(sends[0].nullData);
    EXPECT_EQ(sends[0].size, 0u);
    EXPECT_THAT(fixture.listener.Names(), ElementsAre("onSendFileData"));
    // Handed out on the caller's thread, with no worker started.
    EXPECT_EQ(sends[0].thread, std::this_thread::get_id());
    EXPECT_FALSE(fixture.manager->IsUploading());
    EXPECT_TRUE(fixture.manager->getFileTaskList().empty());
    EXPECT_EQ(logger->CountMessage("file size is 0 ,send null data", 1), 1u);
}

// With no listener the same path still takes the task out of the list.
TEST(EmptyFileUpload, NullListenerStillConsumesListAndTask)
{
    ScopedCapturingLogger logger;
    TempDir dir;
    WriteText(dir.Join("empty.txt"), "");
    OrinFileTransferManager manager(nullptr, std::make_unique<TestLooperFactory>(), false, nullptr);
    FileDescription file;
    file.sourceDir = dir.Path();
    file.fileName = "empty.txt";
    manager.mUploadFileList = {file};
    std::multimap<std::string, std::string> records;
    bool listEmpty = true;
    const uint32_t transferId = manager.UploadFiles(21, 0, "tag", records, listEmpty);
    ASSERT_NE(transferId, 0xFFFFFFFFu);
    EXPECT_TRUE(manager.mUploadFileList.empty());
    EXPECT_EQ(records.size(), 4u);
    ASSERT_THAT(TransferIdsOf(manager.getFileTaskList()), ElementsAre(transferId));

    manager.ProcessFileUploadData(transferId);

    EXPECT_TRUE(manager.getFileTaskList().empty());
    EXPECT_FALSE(manager.IsUploading());
}

}  // namespace
}  // namespace orin::xfer::test
