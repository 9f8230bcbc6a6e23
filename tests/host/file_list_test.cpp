#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "HostTestSupport.h"
#include "IFileTransferManager.h"
#include "xferfm/host/FileList.h"
#include "xferfm/host/ThreadLooperFactory.h"

namespace orin::xfer::host {
namespace {

class JsonCapture : public FileTransferListener {
public:
    void onSendFileDesc(const std::string& jsonData) override { json = jsonData; }
    std::string json;
};

FileDescription describe(const std::string& filePath, const std::string& fileName, bool directory, uint64_t size,
                         uint32_t mode)
{
    FileDescription entry;
    entry.sourceDir = "/src";
    entry.filePath = filePath;
    entry.fileName = fileName;
    entry.attribute = directory ? kAttributeDirectory : kAttributeNormal;
    entry.fileSize = size;
    entry.mode = mode;
    return entry;
}

// The JSON the engine itself writes for a list.
std::string engineJson(const std::vector<FileDescription>& list)
{
    test::QuietEngineLog quiet;
    JsonCapture capture;
    auto manager = IFileTransferManager::NewInstance(&capture, std::make_unique<ThreadLooperFactory>(), false, nullptr);
    manager->TriggerLocalCopy(list);
    manager->SendFileDesc();
    return capture.json;
}

std::string entryJson(const std::string& filePath, const std::string& fileName, const std::string& attribute = "128",
                      const std::string& size = "1", const std::string& mode = "420")
{
    return "{\"filePath\":\"" + filePath + "\",\"fileName\":\"" + fileName + "\",\"attribute\":" + attribute +
           ",\"mode\":" + mode + ",\"fileSize\":" + size + "}";
}

std::string listJson(const std::vector<std::string>& entries)
{
    std::string json = "{\"fileList\":[";
    for (size_t i = 0; i < entries.size(); ++i) {
        json += (i ? "," : "") + entries[i];
    }
    return json + "],\"root\":\"/src\"}";
}

std::string rejection(const std::string& json)
{
    ParsedFileList list;
    std::string error;
    EXPECT_FALSE(ParseFileList(json, list, error)) << json;
    EXPECT_TRUE(list.entries.empty());
    EXPECT_FALSE(error.empty());
    return error;
}

TEST(FileList, ReadsTheListTheEngineWrites)
{
    const std::string json = engineJson({describe("", "top", true, 5000000000ull, 0750),
                                         describe("top", "a b é.txt", false, 5000000000ull, 0640),
                                         describe("top", ".hidden", true, 0, 0700),
                                         describe("", "empty", false, 0, 0)});
    ParsedFileList list;
    std::string error;
    ASSERT_TRUE(ParseFileList(json, list, error)) << error;
    ASSERT_EQ(list.entries.size(), 4u);
    EXPECT_TRUE(list.entries[0].isDirectory);
    EXPECT_EQ(list.entries[0].RequestName(), "top");
    EXPECT_EQ(list.entries[0].mode, 0750u);
    EXPECT_EQ(list.entries[1].RequestName(), "top/a b é.txt");
    EXPECT_EQ(list.entries[1].fileSize, 5000000000ull);
    EXPECT_EQ(list.entries[1].mode, 0640u);
    EXPECT_EQ(list.entries[2].RequestName(), "top/.hidden");
    EXPECT_EQ(list.entries[3].fileSize, 0u);
    EXPECT_EQ(list.totalFileBytes, 5000000000ull);
    EXPECT_EQ(list.fileCount, 2u);
    EXPECT_EQ(list.directoryCount, 2u);
}

TEST(FileList, AnEmptyOfferIsAnEmptyList)
{
    ParsedFileList list;
    std::string error;
    EXPECT_TRUE(ParseFileList(engineJson({}), list, error)) << error;
    EXPECT_TRUE(list.entries.empty());
}

TEST(FileList, RejectsWhatIsNotAListDocument)
{
    EXPECT_NE(rejection("").find("not valid JSON"), std::string::npos);
    EXPECT_NE(rejection("{\"fileList\":[").find("not valid JSON"), std::string::npos);
    EXPECT_NE(rejection("[1,2]").find("not a JSON object"), std::string::npos);
    EXPECT_NE(rejection("{\"fileList\":{}}").find("not an array"), std::string::npos);
    EXPECT_NE(rejection("{\"fileList\":[],\"root\":5}").find("\"root\""), std::string::npos);
    EXPECT_NE(rejection(listJson({entryJson("", "a")}) + "garbage").find("not valid JSON"), std::string::npos);
}

TEST(FileList, RejectsEntriesWithMissingOrMistypedFields)
{
    EXPECT_NE(rejection(listJson({"7"})).find("entry 0 is not an object"), std::string::npos);
    EXPECT_NE(rejection(listJson({"{\"fileName\":\"a\",\"attribute\":128,\"mode\":0,\"fileSize\":1}"}))
                  .find("lacks \"filePath\""),
              std::string::npos);
    EXPECT_NE(rejection(listJson({entryJson("", "a", "\"x\"")})).find("\"attribute\""), std::string::npos);
    EXPECT_NE(rejection(listJson({entryJson("", "a", "128", "-1")})).find("\"fileSize\""), std::string::npos);
    EXPECT_NE(rejection(listJson({entryJson("", "a", "128", "1.5")})).find("\"fileSize\""), std::string::npos);
    EXPECT_NE(rejection(listJson({entryJson("", "a", "128", "1e30")})).find("\"fileSize\""), std::string::npos);
    EXPECT_NE(rejection(listJson({entryJson("", "a", "128", "1", "4294967296")})).find("\"mode\""),
              std::string::npos);
    EXPECT_NE(rejection(listJson({"{\"filePath\":1,\"fileName\":\"a\",\"attribute\":128,\"mode\":0,\"fileSize\":1}"}))
                  .find("not a string"),
              std::string::npos);
}

TEST(FileList, RejectsNamesThatCouldEscapeTheDestination)
{
    EXPECT_NE(rejection(listJson({entryJson("", "")})).find("empty path component"), std::string::npos);
    EXPECT_NE(rejection(listJson({entryJson("", "..")})).find("\"..\""), std::string::npos);
    EXPECT_NE(rejection(listJson({entryJson("", ".")})).find("\"..\""), std::string::npos);
    EXPECT_NE(rejection(listJson({entryJson("", "a/b")})).find("\"/\" in its file name"), std::string::npos);
    EXPECT_NE(rejection(listJson({entryJson("", "d", "16"), entryJson("d", "../x")})).find("\"/\" in its file name"),
              std::string::npos);
    EXPECT_NE(rejection(listJson({entryJson("", "d", "16"), entryJson("d/../..", "x")})).find("\"..\""),
              std::string::npos);
    EXPECT_NE(rejection(listJson({entryJson("/etc", "passwd")})).find("empty path component"), std::string::npos);
    EXPECT_NE(rejection(listJson({entryJson("", "a\\u0000b")})).find("NUL"), std::string::npos);
    EXPECT_NE(rejection(listJson({entryJson("", std::string(256, 'n'))})).find("longer than 255"),
              std::string::npos);
}

TEST(FileList, RejectsAListThatIsNotATree)
{
    // A child before its directory, under a file, or a name given twice.
    EXPECT_NE(rejection(listJson({entryJson("d", "x"), entryJson("", "d", "16")})).find("entry 0 (\"d/x\")"),
              std::string::npos);
    EXPECT_NE(rejection(listJson({entryJson("", "f"), entryJson("f", "x")}))
                  .find("entry 1 (\"f/x\") is inside \"f\", which the list announces as a file"),
              std::string::npos);
    EXPECT_NE(rejection(listJson({entryJson("", "a"), entryJson("", "a")})).find("repeats a name"),
              std::string::npos);
    EXPECT_NE(rejection(listJson({entryJson("", "a", "16"), entryJson("", "a")}))
                  .find("repeats a name listed before: the list announces \"a\" first as a directory, then again "
                        "as a file"),
              std::string::npos);
}

TEST(FileList, CarriesEachEntrysTimeAndDigestFromTheSameReading)
{
    const std::string digest(64, 'e');
    const std::string json = R"({"root":"/r","fileList":[{"filePath":"","fileName":"a","attribute":128,"mode":420,)"
                             R"("fileSize":3,"mtime":[1700000000,5],"sha256":")" + digest + R"("},)"
                             R"({"filePath":"","fileName":"b","attribute":128,"mode":420,"fileSize":1,)"
                             R"("mtime":[1,1000000000],"sha256":"ABC"}]})";
    ParsedFileList list;
    std::string error;
    ASSERT_TRUE(ParseFileList(json, list, error)) << error;
    ASSERT_EQ(list.entries.size(), 2u);
    EXPECT_TRUE(list.entries[0].hasModified);
    EXPECT_EQ(list.entries[0].modified.tv_sec, 1700000000);
    EXPECT_EQ(list.entries[0].modified.tv_nsec, 5);
    EXPECT_EQ(list.entries[0].sha256, digest);
    EXPECT_FALSE(list.entries[1].hasModified) << "nanoseconds past a second are no time";
    EXPECT_EQ(list.entries[1].sha256, "") << "a digest that is not 64 lower-case hex digits is left out";
}

TEST(FileList, ReadsStringEscapesAndRefusesBrokenOnes)
{
    ParsedFileList list;
    std::string error;
    ASSERT_TRUE(ParseFileList(listJson({entryJson("", R"(\u00e9\ud83d\ude00\t\"\\)")}), list, error)) << error;
    ASSERT_EQ(list.entries.size(), 1u);
    EXPECT_EQ(list.entries[0].fileName, "\xC3\xA9\xF0\x9F\x98\x80\t\"\\");
    EXPECT_NE(rejection(listJson({entryJson("", R"(\ud83d)")})).find("surrogate"), std::string::npos);
    EXPECT_NE(rejection(listJson({entryJson("", R"(\q)")})).find("bad escape"), std::string::npos);
    EXPECT_NE(rejection(R"({"fileList":[],"fileList":[]})").find("duplicate key"), std::string::npos);
}

TEST(FileList, RejectsListsBeyondTheLimits)
{
    FileListLimits limits;
    limits.maxEntries = 2;
    ParsedFileList list;
    std::string error;
    EXPECT_FALSE(ParseFileList(listJson({entryJson("", "a"), entryJson("", "b"), entryJson("", "c")}), list, error,
                               limits));
    EXPECT_NE(error.find("more than 2 entries"), std::string::npos);
    limits = FileListLimits{};
    limits.maxDepth = 2;
    EXPECT_FALSE(ParseFileList(
        listJson({entryJson("", "a", "16"), entryJson("a", "b", "16"), entryJson("a/b", "c")}), list, error, limits));
    EXPECT_NE(error.find("deeper than 2"), std::string::npos);
    EXPECT_NE(rejection(listJson({entryJson("", "a", "128", "18446744073709551615"), entryJson("", "b")}))
                  .find("overflow"),
              std::string::npos);
    EXPECT_NE(rejection(std::string(100000, '[') + std::string(100000, ']')).find("cannot be read"),
              std::string::npos);
}

// Mangled variants of a good list: each is either accepted as a sound
// tree or rejected with a message, never a crash or an exception.
TEST(FileList, SurvivesRandomlyMangledLists)
{
    const std::string good = engineJson({describe("", "top", true, 10, 0755), describe("top", "x.txt", false, 10, 0644),
                                         describe("top", "sub", true, 0, 0700), describe("top/sub", "y", false, 0, 0)});
    std::mt19937 random(20261121);
    const std::string alphabet = "{}[]\":,0123456789-.eE/\\ntrufalsx\x01\xff ";
    size_t accepted = 0;
    for (int round = 0; round < 3000; ++round) {
        std::string json = good;
        const int edits = 1 + static_cast<int>(random() % 4);
        for (int edit = 0; edit < edits && !json.empty(); ++edit) {
            const size_t at = random() % json.size();
            switch (random() % 3) {
            case 0:
                json[at] = alphabet[random() % alphabet.size()];
                break;
            case 1:
                json.erase(at, 1 + random() % 8);
                break;
            default:
                json.insert(at, 1, alphabet[random() % alphabet.size()]);
                break;
            }
        }
        ParsedFileList list;
        std::string error;
        bool ok = false;
        ASSERT_NO_THROW(ok = ParseFileList(json, list, error));
        if (ok) {
            ++accepted;
            for (const auto& entry : list.entries) {
                EXPECT_FALSE(entry.fileName.empty());
                EXPECT_EQ(entry.fileName.find('/'), std::string::npos);
                EXPECT_NE(entry.RequestName().find(".."), 0u);
            }
        } else {
            EXPECT_FALSE(error.empty());
        }
    }
    EXPECT_LT(accepted, 3000u);
}

}  // namespace
}  // namespace orin::xfer::host
