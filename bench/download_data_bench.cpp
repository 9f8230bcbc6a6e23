// The receiving data path: ProcessFileDownloadData copies each 64 KiB chunk
// and posts it to the writer looper, whose writeFile appends it to the
// destination, here /dev/null, so the engine's own cost is what is measured.
#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdint>
#include <limits>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "BenchLooperFactory.h"
#include "ChunkCounter.h"
#include "ReportChunks.h"
#include "DropLogger.h"
#include "IFileTransferManager.h"

namespace xferfm::bench {
namespace {

constexpr uint64_t kChunkSize = 64 * 1024;
constexpr uint64_t kChunksPerBatch = 256;  // 16 MiB per timed batch
constexpr uint32_t kTaskId = 1;
constexpr uint32_t kTransferId = 2;  // downloads carry even ids

// Counts written chunks on the writer thread.
class WrittenCounter : public orin::xfer::FileTransferListener {
public:
    void onFileTransferProgress(uint32_t, uint32_t, uint32_t, uint64_t) override { chunks.Add(); }
    ChunkCounter chunks;
};

void BM_DownloadDataToDevNull(benchmark::State& state)
{
    const uint64_t maxInFlight = static_cast<uint64_t>(state.range(0));
    ScopedDropLogger quiet;
    WrittenCounter listener;
    auto manager = orin::xfer::IFileTransferManager::NewInstance(
        &listener, std::make_unique<BenchLooperFactory>(), false, nullptr);

    // An announced size that is never reached keeps the task open for
    // every batch; each chunk reports progress.
    std::multimap<std::string, std::string> records;
    manager->ProcessFileDownloadStart(kTaskId, kTransferId, 0, std::numeric_limits<uint64_t>::max(), "null",
                                      false, "", records, "/dev", 0);

    std::vector<uint8_t> chunk(kChunkSize, 0x5a);
    uint64_t posted = 0;
    std::chrono::steady_clock::duration elapsed{};
    for (auto _ : state) {
        const auto start = std::chrono::steady_clock::now();
        for (uint64_t i = 0; i < kChunksPerBatch; ++i) {
            // The host's channel would stop reading here: bound the queue.
            if (posted - listener.chunks.Count() >= maxInFlight) {
                listener.chunks.WaitFor(posted - maxInFlight + 1);
            }
            manager->ProcessFileDownloadData(kTaskId, kTransferId, kChunkSize, chunk.data());
            ++posted;
        }
        listener.chunks.WaitFor(posted);
        elapsed += std::chrono::steady_clock::now() - start;
    }
    reportChunks(state, posted, posted * kChunkSize, elapsed);
    manager->ClearTask();
}
BENCHMARK(BM_DownloadDataToDevNull)->ArgName("inflight")->Arg(64)->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace xferfm::bench
