// Drops every line of the engine's and the host kit's log for its lifetime:
// a thousand copies that fail on purpose would otherwise bury the test's
// own output under expected warnings.
//
// THREADING CONTRACT: create and destroy on the test's thread while no
// engine exists.
#pragma once

#include <memory>

#include "IFileTransferLogger.h"

namespace orin::xfer::test {

class SilentEngineLog {
public:
    SilentEngineLog() { IFileTransferLogger::SetLogger(std::make_shared<IFileTransferLogger>()); }
    ~SilentEngineLog() { IFileTransferLogger::SetLogger(nullptr); }
    SilentEngineLog(const SilentEngineLog&) = delete;
    SilentEngineLog& operator=(const SilentEngineLog&) = delete;
};

}  // namespace orin::xfer::test
