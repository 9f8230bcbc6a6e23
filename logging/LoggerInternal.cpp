#include "LoggerInternal.h"

#include <iostream>

#include "LoggerSink.h"

namespace orin::xfer {

namespace {
// Empty at load, released at unload.
std::shared_ptr<IFileTransferLogger> gSink;
}  // namespace

std::shared_ptr<IFileTransferLogger> logging::CurrentSink()
{
    return std::atomic_load(&gSink);
}

void IFileTransferLogger::SetLogger(std::shared_ptr<IFileTransferLogger> logger)
{
    std::atomic_store(&gSink, std::move(logger));
}

LoggerInternal::LoggerInternal(LoggingLevel level) : std::ostream(nullptr), mBuffer(level, std::cout)
{
    rdbuf(&mBuffer);
}

// mBuffer is destroyed after this body and emits the line.
LoggerInternal::~LoggerInternal() = default;

}  // namespace orin::xfer
