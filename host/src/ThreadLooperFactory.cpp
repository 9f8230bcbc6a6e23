#include "xferfm/host/ThreadLooperFactory.h"

#include <utility>

namespace orin::xfer::host {

ThreadLooperFactory::ThreadLooperFactory(LooperErrorHandler onJobError) : mOnJobError(std::move(onJobError)) {}

std::unique_ptr<IFileTransferLooper> ThreadLooperFactory::CreateLooper()
{
    return std::make_unique<ThreadLooper>(kUnnamedLooperName, mOnJobError);
}

std::unique_ptr<IFileTransferLooper> ThreadLooperFactory::CreateLooper(const std::string& name)
{
    return std::make_unique<ThreadLooper>(name.empty() ? std::string(kUnnamedLooperName) : name, mOnJobError);
}

}  // namespace orin::xfer::host
