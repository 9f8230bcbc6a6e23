// The sending data path: ProcessFileUploadData starts the worker, which
// reads 64 KiB chunks from a file in /dev/shm and hands each to the main
// looper, whose closure calls onSendFileData (here it only counts). Flow
// control is off and the window is never reached, so nothing waits.
#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdint>
#include <limits>
#include <map>
#include <memory>
#include <string>

#include "BenchLooperFactory.h"
#include "ChunkCounter.h"
#include "ReportChunks.h"
#include "DropLogger.h"
#include "IFileTransferManager.h"
#include "ScratchFile.h"

namespace xferfm::bench {
namespace {

constexpr uint64_t kChunkSize = 64 * 1024;
constexpr uint32_t kTaskId = 1;

class SentCounter : public orin::xfer::FileTransferListener {
public:
    void onSendFileData(uint32_t, uint32_t, const uint8_t*, int64_t) override { chunks.Add(); }
    ChunkCounter chunks;
};

void BM_UploadReadHandOff(benchmark::State& state)
{
    const uint64_t fileSize = static_cast<uint64_t>(state.range(0)) << 20;
    const uint64_t chunksPerFile = (fileSize + kChunkSize - 1) / kChunkSize;
    ScopedDropLogger quiet;
    ScratchFile file("xferfm-bench-upload", fileSize);
    SentCounter listener;
    auto manager = orin::xfer::IFileTransferManager::NewInstance(
        &listener, std::make_unique<BenchLooperFactory>(), false, nullptr);
    manager->SetUploadWindowsSize(std::numeric_limits<uint32_t>::max());

    orin::xfer::FileDescription desc;
    desc.sourceDir = file.Dir();
    desc.fileName = file.Name();
    desc.destFileName = file.Name();
    desc.attribute = orin::xfer::kAttributeNormal;
    desc.fileSize = fileSize;

    uint64_t chunks = 0;
    std::chrono::steady_clock::duration elapsed{};
    for (auto _ : state) {
        // Announcing the file is not part of the data path.
        state.PauseTiming();
        manager->TriggerLocalCopy({desc});
        std::multimap<std::string, std::string> records;
        bool listEmpty = false;
        const uint32_t transferId = manager->UploadFiles(kTaskId, fileSize, "", records, listEmpty);
        state.ResumeTiming();

        const auto start = std::chrono::steady_clock::now();
        manager->ProcessFileUploadData(transferId);
        chunks += chunksPerFile;
        listener.chunks.WaitFor(chunks);
        elapsed += std::chrono::steady_clock::now() - start;
    }
    reportChunks(state, chunks, chunks * kChunkSize, elapsed);
}
BENCHMARK(BM_UploadReadHandOff)->ArgName("MiB")->Arg(64)->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace xferfm::bench
