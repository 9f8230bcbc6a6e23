// A local tree copied by a host goes out to the remote side: validated,
// stored, described as JSON, then announced and streamed file by file.
#include <gtest/gtest.h>
#include <json/json.h>

#include <algorithm>
#include <memory>
#include <set>

#include "TestSupport.h"
#include "UploadSupport.h"

namespace orin::xfer::test {
namespace {

class OutgoingCopyTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        OrinFileTransferManager::mTaskId = 1;
        fixture.manager->SetUploadWindowsSize(1000);
        MakeDirs(dir.Join("copied/sub/deeper"));
        MakeDirs(dir.Join("copied/sub/empty"));
        WriteBytes(dir.Join("top.txt"), PatternBytes(7, 1));
        WriteBytes(dir.Join("copied/a.txt"), PatternBytes(100, 2));
        WriteBytes(dir.Join("copied/.hidden"), PatternBytes(5, 3));
        WriteBytes(dir.Join("copied/zero"), {});
        WriteBytes(dir.Join("copied/sub/b.bin"), PatternBytes(3 * 65536 + 17, 4));
        WriteBytes(dir.Join("copied/sub/deeper/c.txt"), PatternBytes(1, 5));
    }

    std::string SourceOf(const FileDescription& file) const
    {
        return file.sourceDir + "/" + (file.filePath.empty() ? "" : file.filePath + "/") + file.fileName;
    }

    ScopedCapturingLogger logger;
    ManagerFixture fixture;
    TempDir dir;
};

TEST_F(OutgoingCopyTest, EveryFileIsDescribedAnnouncedAndStreamed)
{
    auto& manager = *fixture.manager;

    // The user's selection: one file and one directory.
    std::vector<FileDescription> chosen(2);
    manager.ParseFilePath(dir.Join("top.txt"), chosen[0], "");
    manager.ParseFilePath(dir.Join("copied"), chosen[1], "");
    size_t total = 0;
    bool hasDirectory = false;
    std::vector<FileDescription> expanded;
    ASSERT_TRUE(manager.ValidateFileList(chosen, total, hasDirectory, expanded));
    ASSERT_TRUE(hasDirectory);
    const size_t expectedTotal = 7 + 100 + 0 + (3 * 65536 + 17) + 1;
    ASSERT_EQ(total, expectedTotal);

    // Offer the plain files of the selection and everything found beneath
    // the directory, under the same relative names on the remote side.
    std::vector<FileDescription> offer;
    for (const auto& file : chosen) {
        if ((file.attribute & kAttributeDirectory) == 0) {
            offer.push_back(file);
        }
    }
    offer.insert(offer.end(), expanded.begin(), expanded.end());
    for (auto& file : offer) {
        file.destFilePath = file.filePath;
        file.destFileName = file.fileName;
        file.destDir = "C:\\Users\\remote\\Desktop";
    }
    ASSERT_EQ(offer.size(), 5u);

    manager.TriggerLocalCopy(offer);
    EXPECT_EQ(fixture.listener.Names(), std::vector<std::string>{"onUploadFileListReady"});
    EXPECT_EQ(logger->CountMessage("mUploadFileList length = 5", kInfo), 1u);
    ASSERT_EQ(manager.mUploadFileList.size(), offer.size());

    manager.SendFileDesc();
    const auto desc = fixture.listener.EventsNamed("onSendFileDesc");
    ASSERT_EQ(desc.size(), 1u);
    Json::CharReaderBuilder readerBuilder;
    std::unique_ptr<Json::CharReader> reader(readerBuilder.newCharReader());
    Json::Value doc;
    std::string errors;
    ASSERT_TRUE(reader->parse(desc[0].text.data(), desc[0].text.data() + desc[0].text.size(), &doc, &errors))
        << errors;
    ASSERT_EQ(doc["fileList"].size(), offer.size());
    for (Json::ArrayIndex i = 0; i < offer.size(); ++i) {
        EXPECT_EQ(doc["fileList"][i]["filePath"].asString(), offer[i].filePath);
        EXPECT_EQ(doc["fileList"][i]["fileName"].asString(), offer[i].fileName);
        EXPECT_EQ(doc["fileList"][i]["fileSize"].asUInt64(), offer[i].fileSize);
        EXPECT_EQ(doc["fileList"][i]["attribute"].asUInt(), kAttributeNormal);
    }
    EXPECT_EQ(doc["root"].asString(), dir.Path());

    // The remote side pastes: it asks for one file after the other.
    std::set<std::string> announced;
    bool listEmpty = false;
    for (size_t i = 0; i < offer.size(); ++i) {
        SCOPED_TRACE(offer[i].fileName);
        fixture.listener.Clear();
        std::multimap<std::string, std::string> records;
        const uint32_t transferId = manager.UploadFiles(100, total, "paste", records, listEmpty);
        ASSERT_EQ(transferId, 3u + 2 * i);
        ASSERT_FALSE(listEmpty);

        const auto starts = fixture.listener.EventsNamed("onSendFileStart");
        ASSERT_EQ(starts.size(), 1u);
        const std::string remoteName =
            offer[i].filePath.empty() ? offer[i].fileName : offer[i].filePath + "/" + offer[i].fileName;
        EXPECT_EQ(starts[0].text, remoteName);
        EXPECT_EQ(starts[0].dest, "C:\\Users\\remote\\Desktop");
        EXPECT_FALSE(starts[0].flag);
        EXPECT_EQ(starts[0].size, offer[i].fileSize);
        EXPECT_EQ(starts[0].totalSize, total);
        EXPECT_EQ(records.find("Records.1.SourcePath")->second, SourceOf(offer[i]));
        announced.insert(remoteName);

        manager.ProcessFileUploadData(transferId);
        const size_t chunks = std::max<size_t>(1, ChunkCountFor(offer[i].fileSize));
        ASSERT_TRUE(fixture.listener.WaitForCount("onSendFileData", chunks));
        if (offer[i].fileSize > 0) {
            ASSERT_TRUE(WaitForWorkerEnd(*logger, offer[i].fileName));
        }
        ASSERT_TRUE(DrainMainLooper(manager));
        EXPECT_EQ(fixture.listener.Count("onSendFileData"), chunks);
        EXPECT_TRUE(fixture.listener.SentBytes(transferId) == ReadBytes(SourceOf(offer[i])));
        logger->Clear();
    }
    EXPECT_EQ(announced, (std::set<std::string>{"top.txt", "copied/a.txt", "copied/zero", "copied/sub/b.bin",
                                                 "copied/sub/deeper/c.txt"}));

    std::multimap<std::string, std::string> records;
    EXPECT_EQ(manager.UploadFiles(100, total, "paste", records, listEmpty), 0xFFFFFFFFu);
    EXPECT_TRUE(listEmpty);
    EXPECT_FALSE(manager.IsUploading());
    EXPECT_TRUE(manager.getFileTaskList().empty());
}

}  // namespace
}  // namespace orin::xfer::test
