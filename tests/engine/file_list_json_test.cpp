// The JSON file list sent to the remote side before it pastes.
#include <gtest/gtest.h>
#include <json/json.h>

#include <memory>
#include <sstream>

#include "JsonText.h"
#include "TestSupport.h"

namespace orin::xfer::test {
namespace {

FileDescription Entry(const std::string& sourceDir, const std::string& filePath, const std::string& name,
                      uint32_t attribute, uint32_t mode, uint64_t size)
{
    FileDescription file;
    file.sourceDir = sourceDir;
    file.filePath = filePath;
    file.fileName = name;
    file.attribute = attribute;
    file.mode = mode;
    file.fileSize = size;
    // Fields that must stay local.
    file.destFilePath = "dest-path";
    file.destFileName = "dest-name";
    file.destDir = "D:\\dest";
    file.flag = 9;
    return file;
}

class FileListJsonTest : public ::testing::Test {
protected:
    std::string SendAndCapture()
    {
        fixture.manager->SendFileDesc();
        const auto sent = fixture.listener.EventsNamed("onSendFileDesc");
        EXPECT_EQ(sent.size(), 1u);
        return sent.empty() ? std::string() : sent.back().text;
    }

    ScopedCapturingLogger logger;
    ManagerFixture fixture;
};

TEST_F(FileListJsonTest, EmptyListSendsOnlyAnEmptyRoot)
{
    const std::string text = SendAndCapture();
    const Json::Value doc = ParseJsonText(text);
    ASSERT_TRUE(doc.isObject());
    EXPECT_EQ(doc.getMemberNames(), std::vector<std::string>{"root"});
    ASSERT_TRUE(doc["root"].isString());
    EXPECT_EQ(doc["root"].asString(), "");
}

TEST_F(FileListJsonTest, EveryEntryGoesOutInListOrderWithItsFiveFields)
{
    const std::vector<FileDescription> list{
        Entry("/home/u", "", "top.txt", kAttributeNormal, 0, 7),
        Entry("/home/u", "", "copied", kAttributeDirectory, 0, 300),
        Entry("/home/u", "copied/sub", "b.bin", kAttributeNormal, 0644, 65537),
    };
    fixture.manager->mUploadFileList = list;
    const Json::Value doc = ParseJsonText(SendAndCapture());

    ASSERT_TRUE(doc["fileList"].isArray());
    ASSERT_EQ(doc["fileList"].size(), list.size());
    for (Json::ArrayIndex i = 0; i < list.size(); ++i) {
        SCOPED_TRACE(list[i].fileName);
        const Json::Value& entry = doc["fileList"][i];
        EXPECT_EQ(entry.getMemberNames(),
                  (std::vector<std::string>{"attribute", "fileName", "filePath", "fileSize", "mode"}));
        EXPECT_EQ(entry["filePath"].asString(), list[i].filePath);
        EXPECT_EQ(entry["fileName"].asString(), list[i].fileName);
        EXPECT_TRUE(entry["attribute"].isInt());
        EXPECT_EQ(entry["attribute"].asUInt(), list[i].attribute);
        EXPECT_TRUE(entry["mode"].isInt());
        EXPECT_EQ(entry["mode"].asUInt(), list[i].mode);
        EXPECT_TRUE(entry["fileSize"].isUInt64());
        EXPECT_EQ(entry["fileSize"].asUInt64(), list[i].fileSize);
    }
    EXPECT_EQ(doc["root"].asString(), "/home/u");
    EXPECT_EQ(doc.getMemberNames(), (std::vector<std::string>{"fileList", "root"}));
}

TEST_F(FileListJsonTest, RootIsTheLastEntrysSourceDirectory)
{
    fixture.manager->mUploadFileList = {
        Entry("/first/place", "", "a", kAttributeNormal, 0, 1),
        Entry("/second/place", "", "b", kAttributeNormal, 0, 2),
        Entry("/third/place", "x", "c", kAttributeNormal, 0, 3),
    };
    const Json::Value doc = ParseJsonText(SendAndCapture());
    EXPECT_EQ(doc["fileList"].size(), 3u);
    EXPECT_EQ(doc["fileList"][0]["fileName"].asString(), "a");
    EXPECT_EQ(doc["fileList"][1]["fileName"].asString(), "b");
    EXPECT_EQ(doc["root"].asString(), "/third/place");
}

TEST_F(FileListJsonTest, SizeAboveFourGibIsAnExactUnsignedInteger)
{
    const uint64_t big = (4ull << 30) + 123;  // 4294967419
    const uint64_t huge = 18446744073709551615ull;
    fixture.manager->mUploadFileList = {
        Entry("/d", "", "big.img", kAttributeNormal, 0, big),
        Entry("/d", "", "huge.img", kAttributeNormal, 0, huge),
    };
    const std::string text = SendAndCapture();
    const Json::Value doc = ParseJsonText(text);
    EXPECT_TRUE(doc["fileList"][0]["fileSize"].isUInt64());
    EXPECT_NE(doc["fileList"][0]["fileSize"].type(), Json::realValue);
    EXPECT_NE(doc["fileList"][1]["fileSize"].type(), Json::realValue);
    EXPECT_EQ(doc["fileList"][0]["fileSize"].asUInt64(), big);
    EXPECT_EQ(doc["fileList"][1]["fileSize"].asUInt64(), huge);
    EXPECT_NE(text.find("4294967419"), std::string::npos) << text;
    EXPECT_NE(text.find("18446744073709551615"), std::string::npos) << text;
    EXPECT_EQ(text.find("e+"), std::string::npos) << text;
}

TEST_F(FileListJsonTest, TextIsTheLibraryDefaultLayoutAndIsLogged)
{
    fixture.manager->mUploadFileList = {Entry("/home/u", "p", "n", kAttributeNormal, 1, 2)};
    const std::string text = SendAndCapture();

    // Serialising the parsed document again with default settings gives
    // the same text: default indentation, keys in sorted order.
    std::ostringstream again;
    Json::StreamWriterBuilder builder;
    std::unique_ptr<Json::StreamWriter> writer(builder.newStreamWriter());
    writer->write(ParseJsonText(text), &again);
    EXPECT_EQ(text, again.str());
    EXPECT_LT(text.find("\"fileList\""), text.find("\"root\""));
    EXPECT_LT(text.find("\"attribute\""), text.find("\"fileName\""));
    EXPECT_LT(text.find("\"filePath\""), text.find("\"fileSize\""));
    EXPECT_LT(text.find("\"fileSize\""), text.find("\"mode\""));

    EXPECT_EQ(logger->CountMessage("Send file desc, jsonData = " + text, kInfo), 1u);
}

TEST(FileListJsonNoListener, StillLogsTheDocument)
{
    ScopedCapturingLogger logger;
    auto manager = std::make_unique<OrinFileTransferManager>(nullptr, std::make_unique<TestLooperFactory>(), false,
                                                             nullptr);
    manager->mUploadFileList = {Entry("/d", "", "a", kAttributeNormal, 0, 1)};
    manager->SendFileDesc();
    EXPECT_EQ(logger->WithMessagePrefix("Send file desc, jsonData = ").size(), 1u);
}

}  // namespace
}  // namespace orin::xfer::test
