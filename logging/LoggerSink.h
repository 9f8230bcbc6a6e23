// Process-wide sink slot shared by IFileTransferLogger::SetLogger and the
// log buffers (internal to the library). Access is atomic so that a sink
// swap never tears the pointer a logging thread is reading.
#pragma once

#include <memory>

#include "IFileTransferLogger.h"

namespace orin::xfer::logging {

std::shared_ptr<IFileTransferLogger> CurrentSink();

}  // namespace orin::xfer::logging
