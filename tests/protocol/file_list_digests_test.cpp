// Digests carried in a file list: added to the named files only, read back
// intact, and ignored by the list parser.
#include <gtest/gtest.h>

#include "xferfm/host/FileList.h"
#include "xferfm/host/FileListDigests.h"

namespace orin::xfer::test {
namespace {

using namespace orin::xfer::host;

const std::string kList = R"({
  "root": "/src",
  "fileList": [
    {"filePath": "", "fileName": "dir", "attribute": 16, "mode": 493, "fileSize": 8},
    {"filePath": "dir", "fileName": "a.txt", "attribute": 128, "mode": 420, "fileSize": 5},
    {"filePath": "dir", "fileName": "b.bin", "attribute": 128, "mode": 420, "fileSize": 3}
  ]
})";

const std::string kDigestA = std::string(63, 'a') + "1";
const std::string kDigestB = std::string(64, '0');

TEST(FileListDigestsTest, DigestsAreAddedToNamedFilesAndReadBack)
{
    std::string json = kList;
    std::string error;
    ASSERT_TRUE(AddFileDigests(json, {{"dir/a.txt", kDigestA}, {"dir/b.bin", kDigestB}, {"dir", kDigestB}}, error))
        << error;
    const FileDigests digests = FileDigestsOf(json);
    EXPECT_EQ(digests, (FileDigests{{"dir/a.txt", kDigestA}, {"dir/b.bin", kDigestB}}))
        << "directories carry no digest";

    ParsedFileList parsed;
    ASSERT_TRUE(ParseFileList(json, parsed, error)) << error;
    ASSERT_EQ(parsed.entries.size(), 3u);
    EXPECT_EQ(parsed.entries[1].RequestName(), "dir/a.txt");
    EXPECT_EQ(parsed.totalFileBytes, 8u);
}

TEST(FileListDigestsTest, ListWithoutDigestsCarriesNone)
{
    EXPECT_TRUE(FileDigestsOf(kList).empty());
    EXPECT_TRUE(FileDigestsOf("not json").empty());
    EXPECT_TRUE(FileDigestsOf("[]").empty());
}

TEST(FileListDigestsTest, MalformedDigestsAreLeftOut)
{
    const std::string json =
        R"({"fileList":[{"filePath":"","fileName":"x","attribute":128,"mode":0,"fileSize":1,"sha256":"XYZ"},)"
        R"({"filePath":"","fileName":"y","attribute":128,"mode":0,"fileSize":1,"sha256":7}]})";
    EXPECT_TRUE(FileDigestsOf(json).empty());
}

TEST(FileListDigestsTest, UnreadableListIsRefusedAndLeftAlone)
{
    std::string json = "{broken";
    std::string error;
    EXPECT_FALSE(AddFileDigests(json, {{"x", kDigestA}}, error));
    EXPECT_EQ(json, "{broken");
    EXPECT_NE(error.find("not valid JSON"), std::string::npos) << error;
}

}  // namespace
}  // namespace orin::xfer::test
