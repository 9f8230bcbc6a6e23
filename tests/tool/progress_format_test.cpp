// The progress texts: units, durations, UTF-8-safe shortening, and a bar
// that never wraps the terminal line.
#include <gtest/gtest.h>

#include "ProgressFormat.h"

namespace xferfm::cli {
namespace {

size_t codePoints(const std::string& text)
{
    size_t count = 0;
    for (unsigned char byte : text) {
        count += (byte & 0xC0) != 0x80 ? 1 : 0;
    }
    return count;
}

bool isValidUtf8Start(const std::string& text)
{
    return text.empty() || (static_cast<unsigned char>(text[0]) & 0xC0) != 0x80;
}

ProgressSnapshot halfway(std::string currentFile)
{
    ProgressSnapshot progress;
    progress.bytesDone = 50ull * 1024 * 1024;
    progress.totalBytes = 100ull * 1024 * 1024;
    progress.filesDone = 3;
    progress.totalFiles = 10;
    progress.elapsedSeconds = 2.0;
    progress.currentFile = std::move(currentFile);
    return progress;
}

TEST(ProgressFormat, BytesUseBinaryUnits)
{
    EXPECT_EQ(formatBytes(0), "0 B");
    EXPECT_EQ(formatBytes(1023), "1023 B");
    EXPECT_EQ(formatBytes(1536), "1.5 KiB");
    EXPECT_EQ(formatBytes(50ull * 1024 * 1024), "50.0 MiB");
    EXPECT_EQ(formatBytes(1ull << 30), "1.0 GiB");
}

TEST(ProgressFormat, DurationsAsClockTimes)
{
    EXPECT_EQ(formatDuration(0.4), "0:00");
    EXPECT_EQ(formatDuration(65), "1:05");
    EXPECT_EQ(formatDuration(3725), "1:02:05");
    EXPECT_EQ(formatDuration(-1), "--:--");
}

TEST(ProgressFormat, ShorteningKeepsTheEndAndWholeCharacters)
{
    EXPECT_EQ(fitFromLeft("short", 10), "short");
    const std::string name = "Fotos/März — Zürich/日本語の写真.jpg";
    for (size_t columns = 4; columns < codePoints(name); ++columns) {
        const std::string fitted = fitFromLeft(name, columns);
        EXPECT_EQ(codePoints(fitted), columns) << fitted;
        EXPECT_EQ(fitted.substr(0, 3), "...");
        EXPECT_TRUE(isValidUtf8Start(fitted.substr(3))) << fitted;
        EXPECT_EQ(name.substr(name.size() - (fitted.size() - 3)), fitted.substr(3));
    }
}

TEST(ProgressFormat, BarShowsPercentRateEtaAndFile)
{
    const std::string bar = formatBar(halfway("dir/file.bin"), 120);

    EXPECT_NE(bar.find(" 50%"), std::string::npos) << bar;
    EXPECT_NE(bar.find("50.0 MiB/100.0 MiB"), std::string::npos) << bar;
    EXPECT_NE(bar.find("25.0 MiB/s"), std::string::npos) << bar;
    EXPECT_NE(bar.find("ETA 0:02"), std::string::npos) << bar;
    EXPECT_NE(bar.find("dir/file.bin"), std::string::npos) << bar;
}

TEST(ProgressFormat, BarNeverReachesTheLastColumn)
{
    const std::string longName(300, 'x');
    for (int columns = 10; columns <= 200; ++columns) {
        const std::string bar = formatBar(halfway("deep/" + longName + "/名前.txt"), columns);
        EXPECT_LT(codePoints(bar), static_cast<size_t>(columns)) << columns << ": " << bar;
    }
}

TEST(ProgressFormat, PlainLineCountsFiles)
{
    EXPECT_EQ(formatPlainLine(halfway("a.txt")),
              "xferfm: 50% (50.0 MiB of 100.0 MiB, 3/10 files), 25.0 MiB/s, ETA 0:02, a.txt");
}

TEST(ProgressFormat, EmptyCopyIsCompleteWhenAllFilesAreDone)
{
    ProgressSnapshot progress;
    progress.totalFiles = 2;
    progress.filesDone = 2;
    EXPECT_NE(formatPlainLine(progress).find("100%"), std::string::npos);
}

}  // namespace
}  // namespace xferfm::cli
