// The sender's list written a slice at a time: the slices' entries join
// into one list, in order, ending as the last slice ends; a slice whose
// text cannot be read falls back to one writing of the whole list.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "SlicedListText.h"
#include "xferfm/host/FileList.h"

namespace orin::xfer::host {
namespace {

std::vector<FileDescription> Entries(size_t count)
{
    std::vector<FileDescription> entries;
    for (size_t index = 0; index < count; ++index) {
        FileDescription entry;
        entry.sourceDir = "/src/" + std::to_string(index);  // the root is the last one's
        entry.fileName = "f" + std::to_string(index);
        entry.attribute = kAttributeNormal;
        entry.mode = 0644;
        entry.fileSize = index;
        entries.push_back(entry);
    }
    return entries;
}

// The engine's layout: indented, one key per line.
std::string EngineLikeText(const std::vector<FileDescription>& slice)
{
    std::string text = "{\n\t\"fileList\" : \n\t[";
    for (size_t index = 0; index < slice.size(); ++index) {
        const FileDescription& entry = slice[index];
        text += std::string(index ? "," : "") + "\n\t\t{\n\t\t\t\"attribute\" : 128,\n\t\t\t\"fileName\" : \"" +
                entry.fileName + "\",\n\t\t\t\"filePath\" : \"\",\n\t\t\t\"fileSize\" : " +
                std::to_string(entry.fileSize) + ",\n\t\t\t\"mode\" : 420\n\t\t}";
    }
    return text + "\n\t],\n\t\"root\" : \"" + (slice.empty() ? "" : slice.back().sourceDir) + "\"\n}";
}

TEST(SlicedListText, SlicesJoinIntoOneListInOrderEndingWithTheLastSlicesRoot)
{
    const std::vector<FileDescription> entries = Entries(10);
    std::vector<size_t> sliceSizes;
    std::vector<size_t> firsts;
    const std::string text = detail::SlicedListText(
        entries,
        [&sliceSizes, &firsts](const std::vector<FileDescription>& slice, size_t first) {
            sliceSizes.push_back(slice.size());
            firsts.push_back(first);
            return EngineLikeText(slice);
        },
        3);
    EXPECT_EQ(sliceSizes, (std::vector<size_t>{3, 3, 3, 1}));
    EXPECT_EQ(firsts, (std::vector<size_t>{0, 3, 6, 9}));
    ParsedFileList list;
    std::string error;
    ASSERT_TRUE(ParseFileList(text, list, error)) << error << "\n" << text;
    ASSERT_EQ(list.entries.size(), entries.size());
    for (size_t index = 0; index < entries.size(); ++index) {
        EXPECT_EQ(list.entries[index].fileName, entries[index].fileName);
        EXPECT_EQ(list.entries[index].fileSize, entries[index].fileSize);
    }
    EXPECT_NE(text.find("\"root\" : \"/src/9\""), std::string::npos) << text;
}

TEST(SlicedListText, AShortListIsWrittenInOneGo)
{
    size_t calls = 0;
    const std::vector<FileDescription> entries = Entries(3);
    const std::string text = detail::SlicedListText(
        entries, [&calls](const std::vector<FileDescription>& slice, size_t) { return ++calls, EngineLikeText(slice); },
        3);
    EXPECT_EQ(calls, 1u);
    EXPECT_EQ(text, EngineLikeText(entries));
}

TEST(SlicedListText, ASliceThatCannotBeReadFallsBackToTheWholeList)
{
    const std::vector<FileDescription> entries = Entries(7);
    std::vector<size_t> sliceSizes;
    const std::string text = detail::SlicedListText(
        entries,
        [&sliceSizes](const std::vector<FileDescription>& slice, size_t) {
            sliceSizes.push_back(slice.size());
            return sliceSizes.size() == 2 ? std::string("{not json") : EngineLikeText(slice);
        },
        3);
    EXPECT_EQ(sliceSizes, (std::vector<size_t>{3, 3, 7}));
    EXPECT_EQ(text, EngineLikeText(entries));
}

}  // namespace
}  // namespace orin::xfer::host
