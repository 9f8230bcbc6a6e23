// Makes thread-backed loopers for the engine (see ThreadLooper.h for what
// each looper guarantees). The engine asks for one unnamed looper, named
// "xfer-main" here, and for its writer looper "xfer-downloader".
//
// THREADING CONTRACT: CreateLooper may be called from any thread,
// concurrently; the factory keeps no state but the error handler, which is
// shared by every looper it makes and called on their threads.
#pragma once

#include <memory>
#include <string>

#include "IFileTransferLooperFactory.h"
#include "xferfm/host/ThreadLooper.h"

namespace orin::xfer::host {

class ThreadLooperFactory final : public IFileTransferLooperFactory {
public:
    static constexpr const char* kUnnamedLooperName = "xfer-main";

    explicit ThreadLooperFactory(LooperErrorHandler onJobError = {});

    std::unique_ptr<IFileTransferLooper> CreateLooper() override;
    std::unique_ptr<IFileTransferLooper> CreateLooper(const std::string& name) override;

private:
    LooperErrorHandler mOnJobError;
};

}  // namespace orin::xfer::host
