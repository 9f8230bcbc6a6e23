// writeFile alone, called on the benchmark thread with one reused 64 KiB
// chunk: the append to /dev/null, its log line, the percentage and the
// progress callback, without the copy and hand-off of the data path.
#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <limits>
#include <memory>

#include "BenchLooperFactory.h"
#include "ReportChunks.h"
#include "DropLogger.h"
#include "OrinFileTransferManager.h"

namespace xferfm::bench {
namespace {

constexpr uint64_t kChunkSize = 64 * 1024;

void BM_WriteFileToDevNull(benchmark::State& state)
{
    ScopedDropLogger quiet;
    orin::xfer::FileTransferListener listener;  // every callback a no-op
    orin::xfer::OrinFileTransferManager manager(&listener, std::make_unique<BenchLooperFactory>(), false, nullptr);

    auto task = std::make_shared<orin::xfer::FileTransferTask>();
    task->taskId = 1;
    task->transferId = 2;
    task->fileName = "null";
    task->fileSize = std::numeric_limits<uint64_t>::max();  // never completes
    task->stream = std::make_shared<std::fstream>();
    task->stream->exceptions(std::ios_base::badbit);
    task->stream->open("/dev/null", std::ios_base::out | std::ios_base::binary | std::ios_base::trunc);

    auto data = std::make_shared<orin::xfer::WriteFileData>();
    data->data = static_cast<uint8_t*>(std::malloc(kChunkSize));
    std::memset(data->data, 0x5a, kChunkSize);
    data->size = kChunkSize;

    uint64_t chunks = 0;
    const auto start = std::chrono::steady_clock::now();
    for (auto _ : state) {
        benchmark::DoNotOptimize(manager.writeFile(task, data));
        ++chunks;
    }
    reportChunks(state, chunks, chunks * kChunkSize, std::chrono::steady_clock::now() - start);
}
BENCHMARK(BM_WriteFileToDevNull)->UseRealTime();

}  // namespace
}  // namespace xferfm::bench
