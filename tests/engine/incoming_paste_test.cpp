// Whole incoming pastes: a host thread requests every file of a remote tree
// while a second thread plays the remote side, answering each request with
// the file's start and its data.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "DownloadSupport.h"
#include "TestSupport.h"

namespace orin::xfer::test {
namespace {

using namespace std::chrono_literals;

struct PlannedFile {
    FileDescription description;
    std::vector<uint8_t> bytes;
    std::vector<size_t> chunkSizes;
    uint32_t transferId = 0;
};

// A tree of `count` files spread over nested directories, with empty files,
// files of one message, and files of many small messages.
std::vector<PlannedFile> PlanTree(size_t count)
{
    const std::vector<std::string> directories = {"",          "docs",           "docs/2024", "docs/2024/q1",
                                                  "media/raw", "a/b/c/d/e",      "src/lib",   "src/lib/detail"};
    const std::vector<std::vector<size_t>> chunkPlans = {{4096}, {1, 512, 8192, 77}, {65536}, {1000, 3000}};
    std::vector<PlannedFile> plan;
    for (size_t i = 0; i < count; ++i) {
        size_t size = (i * 7919) % 40000 + 1;
        std::vector<size_t> chunks = chunkPlans[i % chunkPlans.size()];
        if (i % 13 == 0) {
            size = 0;
        } else if (i % 29 == 5) {
            size = 6000;
            chunks = {64};
        }
        PlannedFile file;
        const std::string name = "f" + std::to_string(i) + (i % 3 == 0 ? ".bin" : ".txt");
        file.description = RemoteFile(directories[i % directories.size()], name, size, "/remote/home");
        file.bytes = PatternBytes(size, static_cast<uint32_t>(i + 1));
        file.chunkSizes = chunks;
        file.transferId = static_cast<uint32_t>(2 * (i + 1));
        plan.push_back(std::move(file));
    }
    return plan;
}

// Messages SendChunks uses for one file.
size_t MessageCount(const PlannedFile& file)
{
    if (file.bytes.empty()) {
        return 1;
    }
    size_t offset = 0;
    size_t messages = 0;
    while (offset < file.bytes.size()) {
        offset += file.chunkSizes[messages % file.chunkSizes.size()];
        ++messages;
    }
    return messages;
}

class IncomingPasteTest : public ::testing::Test {
protected:
    IncomingPasteTest() { m.SetCacheDir(cache); }

    void Deliver(const PlannedFile& file)
    {
        std::multimap<std::string, std::string> records;
        m.ProcessFileDownloadStart(11, file.transferId, 0, file.description.fileSize,
                                   RequestNameOf(file.description), false, "paste", records, "", 0);
        SendChunks(m, 11, file.transferId, file.bytes, file.chunkSizes);
    }

    ScopedCapturingLogger logger;
    TempDir tmp;
    std::string cache = tmp.Join("cache");
    ManagerFixture f;
    OrinFileTransferManager& m = *f.manager;
};

TEST_F(IncomingPasteTest, TreeOfTwoHundredFilesArrivesIntact)
{
    const std::vector<PlannedFile> plan = PlanTree(200);
    m.RequestFileDesc();
    for (const auto& file : plan) {
        m.PushDownloadFile(file.description);
    }

    std::atomic<bool> abandon{false};
    std::atomic<bool> remoteLostARequest{false};
    std::atomic<size_t> requestsDone{0};
    std::atomic<bool> hostDone{false};
    std::thread remote([&] {
        for (const auto& file : plan) {
            const std::string name = RequestNameOf(file.description);
            const bool requested = waitUntil(
                [&] {
                    if (abandon) {
                        return true;
                    }
                    std::lock_guard<std::mutex> lock(m.mTaskMutex);
                    for (const auto& task : m.mFileTaskList) {
                        if (task->fileName == name && task->transferId == 0) {
                            return true;
                        }
                    }
                    return false;
                },
                20s);
            if (!requested || abandon) {
                remoteLostARequest = !abandon;
                return;
            }
            Deliver(file);
        }
    });
    std::thread host([&] {
        for (const auto& file : plan) {
            if (abandon) {
                break;
            }
            m.RequestFile(file.description, false);
            ++requestsDone;
        }
        hostDone = true;
    });

    const bool allReturned = waitUntil([&] { return requestsDone == plan.size(); }, 120s);
    if (!allReturned) {
        // Release the host thread so that the failure is reported, not hung.
        abandon = true;
        waitUntil(
            [&] {
                if (!hostDone) {
                    m.stopWriteFileThread();
                }
                return hostDone.load();
            },
            5s);
        if (!hostDone) {
            std::fprintf(stderr, "the host thread stays blocked even after stopWriteFileThread\n");
            std::abort();
        }
    }
    remote.join();
    host.join();
    ASSERT_TRUE(allReturned) << requestsDone << " of " << plan.size() << " requests returned";
    ASSERT_FALSE(remoteLostARequest);

    ASSERT_TRUE(f.listener.WaitForCount("onFileTransferCompleted", plan.size()));
    for (const auto& file : plan) {
        const std::string name = RequestNameOf(file.description);
        EXPECT_EQ(ReadBytes(cache + "/" + name), file.bytes) << name;
    }
    EXPECT_EQ(f.listener.Count("onFileTransferStarted"), plan.size());
    EXPECT_EQ(f.listener.Count("onFileTransferFailed"), 0u);
    for (const auto& completed : f.listener.EventsNamed("onFileTransferCompleted")) {
        EXPECT_TRUE(f.journal->IsThreadOf("xfer-downloader", completed.thread));
    }
    const auto reported = f.listener.EventsNamed("onTransferRecord");
    ASSERT_EQ(reported.size(), plan.size());
    for (size_t i = 0; i < plan.size(); ++i) {
        const auto path = reported[i].records.find("Records.1.SourcePath");
        ASSERT_NE(path, reported[i].records.end());
        EXPECT_EQ(path->second, "/remote/home/" + RequestNameOf(plan[i].description));
    }

    size_t expectedAcks = 0;
    for (const auto& file : plan) {
        expectedAcks += MessageCount(file) / 50;
    }
    EXPECT_GT(expectedAcks, 0u);
    EXPECT_EQ(f.listener.Count("onFileDataAck"), expectedAcks);

    // One session: one notification, one wipe, one stop of the writer.
    EXPECT_TRUE(f.listener.WaitForCount("onRequestFile", 1));
    EXPECT_EQ(f.listener.Count("onRequestFile"), 1u);
    EXPECT_EQ(f.journal->JobNames("<main>"), std::vector<std::string>{"RequestFile"});
    EXPECT_EQ(logger->CountMessage("all files download complete", 2), 1u);
    EXPECT_EQ(f.journal->Count("destroy:xfer-downloader"), 1u);
    EXPECT_EQ(f.journal->Count("create:xfer-downloader"), 2u);
    EXPECT_TRUE(TaskSnapshot(m).empty());
    EXPECT_TRUE(m.GetDownloadFileList().empty());
    EXPECT_EQ(m.mDownloadFileRecordList.size(), plan.size());
}

TEST_F(IncomingPasteTest, WriteFailureIsReportedOnceAndReleasesTheWaitingRequest)
{
    const FileDescription a = RemoteFile("in", "a.bin", 5000);
    const FileDescription b = RemoteFile("in", "b.bin", 8192);
    const FileDescription c = RemoteFile("", "c.bin", 3);
    m.RequestFileDesc();
    m.PushDownloadFile(a);
    m.PushDownloadFile(b);
    m.PushDownloadFile(c);

    {
        RequestRunner request(m, a);
        ASSERT_TRUE(WaitForMarkerTask(m, "in/a.bin"));
        Deliver({a, PatternBytes(5000, 1), {1024}, 2});
        ASSERT_TRUE(request.Finish());
    }

    {
        RequestRunner request(m, b);
        ASSERT_TRUE(WaitForMarkerTask(m, "in/b.bin"));
        // The cached file becomes a link to a device that is always full;
        // the start opens it through the link.
        const std::string cached = cache + "/in/b.bin";
        ASSERT_EQ(unlink(cached.c_str()), 0);
        ASSERT_EQ(symlink("/dev/full", cached.c_str()), 0);
        Deliver({b, PatternBytes(4096, 2), {4096}, 4});
        EXPECT_TRUE(request.Finish());
    }

    ASSERT_TRUE(f.listener.WaitForCount("onFileTransferFailed", 1));
    const ListenerEvent failed = f.listener.EventsNamed("onFileTransferFailed").front();
    EXPECT_EQ(failed.taskId, 11u);
    EXPECT_EQ(failed.transferId, 4u);
    EXPECT_EQ(failed.result, 1u);
    EXPECT_TRUE(f.journal->IsThreadOf("xfer-downloader", failed.thread));
    EXPECT_EQ(NamesAmong(f.listener, FailureCalls()), FailureCalls());
    EXPECT_EQ(logger->WithMessagePrefix("write stream failed ").size(), 1u);
    EXPECT_EQ(f.journal->Count("create:xfer-downloader"), 2u);
    // The failed file left the pending list with its request; the paste goes on.
    ASSERT_EQ(m.GetDownloadFileList().size(), 1u);
    EXPECT_EQ(m.GetDownloadFileList()[0].fileName, "c.bin");
    EXPECT_EQ(logger->CountMessage("all files download complete", 2), 0u);

    {
        RequestRunner request(m, c);
        ASSERT_TRUE(WaitForMarkerTask(m, "c.bin"));
        Deliver({c, PatternBytes(3, 3), {2}, 6});
        ASSERT_TRUE(request.Finish());
    }
    // The writer reports a completion just after it ends the request's wait.
    ASSERT_TRUE(f.listener.WaitForCount("onFileTransferCompleted", 2));
    EXPECT_EQ(ReadBytes(cache + "/in/a.bin"), PatternBytes(5000, 1));
    EXPECT_EQ(ReadBytes(cache + "/c.bin"), PatternBytes(3, 3));
    EXPECT_EQ(f.listener.Count("onFileTransferFailed"), 1u);
    EXPECT_EQ(f.listener.Count("onFileTransferCompleted"), 2u);
    EXPECT_EQ(logger->CountMessage("all files download complete", 2), 1u);
    EXPECT_EQ(f.journal->Count("create:xfer-downloader"), 3u);
    EXPECT_TRUE(TaskSnapshot(m).empty());
}

}  // namespace
}  // namespace orin::xfer::test
