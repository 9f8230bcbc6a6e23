// A plain thread-backed looper factory for the benchmarks: one thread per
// looper, jobs run in posting order, queued jobs are dropped on destruction,
// and a looper may be destroyed from inside one of its own jobs.
#pragma once

#include <memory>
#include <string>

#include "IFileTransferLooperFactory.h"

namespace xferfm::bench {

class BenchLooperFactory : public orin::xfer::IFileTransferLooperFactory {
public:
    std::unique_ptr<orin::xfer::IFileTransferLooper> CreateLooper() override;
    std::unique_ptr<orin::xfer::IFileTransferLooper> CreateLooper(const std::string& name) override;
};

}  // namespace xferfm::bench
