// A log sink that drops every line, installed for the life of a benchmark
// the way a quiet host would: the engine still formats each line (level-1
// lines come once per chunk), nothing reaches a terminal.
#pragma once

#include <memory>

#include "IFileTransferLogger.h"

namespace xferfm::bench {

class DropLogger : public orin::xfer::IFileTransferLogger {};

class ScopedDropLogger {
public:
    ScopedDropLogger() { orin::xfer::IFileTransferLogger::SetLogger(std::make_shared<DropLogger>()); }
    ~ScopedDropLogger() { orin::xfer::IFileTransferLogger::SetLogger(nullptr); }
    ScopedDropLogger(const ScopedDropLogger&) = delete;
    ScopedDropLogger& operator=(const ScopedDropLogger&) = delete;
};

}  // namespace xferfm::bench
