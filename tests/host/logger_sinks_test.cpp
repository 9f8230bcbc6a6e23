#include <fcntl.h>
#include <unistd.h>

#include <memory>
#include <mutex>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "IFileTransferManager.h"
#include "TestSupport.h"
#include "xferfm/host/CallbackLoggerSink.h"
#include "xferfm/host/StderrLoggerSink.h"
#include "xferfm/host/ThreadLooperFactory.h"

namespace orin::xfer::host {
namespace {

// A pipe whose read end is drained by a thread of its own.
class CapturedPipe {
public:
    CapturedPipe()
    {
        EXPECT_EQ(pipe(mFds), 0);
        mReader = std::thread([this] {
            char buffer[4096];
            ssize_t got = 0;
            while ((got = read(mFds[0], buffer, sizeof(buffer))) > 0) {
                std::lock_guard<std::mutex> lock(mMutex);
                mText.append(buffer, static_cast<size_t>(got));
            }
        });
    }
    ~CapturedPipe()
    {
        CloseWriteEnd();
        if (mReader.joinable()) {
            mReader.join();
        }
        close(mFds[0]);
    }
    int WriteFd() const { return mFds[1]; }
    // Everything written, once the write end is closed.
    std::string Finish()
    {
        CloseWriteEnd();
        if (mReader.joinable()) {
            mReader.join();
        }
        std::lock_guard<std::mutex> lock(mMutex);
        return mText;
    }

private:
    void CloseWriteEnd()
    {
        if (mFds[1] >= 0) {
            close(mFds[1]);
            mFds[1] = -1;
        }
    }
    int mFds[2] = {-1, -1};
    std::thread mReader;
    std::mutex mMutex;
    std::string mText;
};

TEST(StderrLoggerSink, WritesOnlyLinesAtOrAboveItsThreshold)
{
    CapturedPipe pipe;
    {
        StderrLoggerSink sink(kWarning, pipe.WriteFd());
        sink.OnVerbose("verbose \n");
        sink.OnDebug("debug \n");
        sink.OnInfo("info \n");
        sink.OnWarning("warning \n");
        sink.OnError("error \n");
        sink.OnFatal("fatal \n");
    }
    EXPECT_EQ(pipe.Finish(), "warning \nerror \nfatal \n");
}

TEST(StderrLoggerSink, LinesFromManyThreadsStayWhole)
{
    CapturedPipe pipe;
    StderrLoggerSink sink(kVerbose, pipe.WriteFd());
    std::set<std::string> expected;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        for (int i = 0; i < 300; ++i) {
            expected.insert("thread " + std::to_string(t) + " line " + std::to_string(i) + " " +
                            std::string(120, static_cast<char>('a' + t)));
        }
        threads.emplace_back([&sink, t] {
            for (int i = 0; i < 300; ++i) {
                const std::string line = "thread " + std::to_string(t) + " line " + std::to_string(i) + " " +
                                         std::string(120, static_cast<char>('a' + t)) + " \n";
                sink.OnInfo(line.c_str());
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    std::istringstream text(pipe.Finish());
    std::string line;
    size_t count = 0;
    while (std::getline(text, line)) {
        ASSERT_GE(line.size(), 1u);
        EXPECT_EQ(expected.count(line.substr(0, line.size() - 1)), 1u) << line;
        ++count;
    }
    EXPECT_EQ(count, expected.size());
}

TEST(StderrLoggerSink, FiltersTheEnginesOwnLines)
{
    CapturedPipe pipe;
    IFileTransferLogger::SetLogger(std::make_shared<StderrLoggerSink>(kInfo, pipe.WriteFd()));
    {
        auto manager = IFileTransferManager::NewInstance(nullptr, std::make_unique<ThreadLooperFactory>(), false,
                                                         nullptr);
        FileDescription description;
        manager->ParseFilePath("/x/y.txt", description, "");  // level-1 lines only
    }
    IFileTransferLogger::SetLogger(nullptr);
    const std::string text = pipe.Finish();
    EXPECT_NE(text.find(": Create OrinFileTransferManager \n"), std::string::npos);
    EXPECT_EQ(text.find("Parse file "), std::string::npos);
}

TEST(CallbackLoggerSink, HandsLevelAndBareLineToTheCallback)
{
    std::vector<std::pair<int, std::string>> lines;
    CallbackLoggerSink sink([&](int level, const std::string& line) { lines.emplace_back(level, line); });
    sink.OnDebug("[XFERFM]: f.cpp:1: step \n");
    sink.OnError("no trailer");
    sink.OnFatal("");
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[0], std::make_pair(1, std::string("[XFERFM]: f.cpp:1: step")));
    EXPECT_EQ(lines[1], std::make_pair(4, std::string("no trailer")));
    EXPECT_EQ(lines[2], std::make_pair(5, std::string()));
}

TEST(CallbackLoggerSink, ReceivesTheEnginesLinesWithTheirLevels)
{
    std::mutex mutex;
    std::vector<std::pair<int, std::string>> lines;
    IFileTransferLogger::SetLogger(std::make_shared<CallbackLoggerSink>([&](int level, const std::string& line) {
        std::lock_guard<std::mutex> lock(mutex);
        lines.emplace_back(level, line);
    }));
    {
        auto manager = IFileTransferManager::NewInstance(nullptr, std::make_unique<ThreadLooperFactory>(), false,
                                                         nullptr);
        manager->SetSystemType("Linux");
    }
    IFileTransferLogger::SetLogger(nullptr);
    std::lock_guard<std::mutex> lock(mutex);
    bool found = false;
    for (const auto& [level, line] : lines) {
        if (line.find("mSystemType = Linux") != std::string::npos) {
            EXPECT_EQ(level, kInfo);
            EXPECT_EQ(line.substr(line.size() - 19), "mSystemType = Linux");
            found = true;
        }
    }
    EXPECT_TRUE(found);
}

}  // namespace
}  // namespace orin::xfer::host
