// A host that only sees the installed package.
#include <memory>
#include <string>

#include "IFileTransferLogger.h"
#include "IFileTransferManager.h"

namespace {

class NullLooper : public orin::xfer::IFileTransferLooper {
public:
    void Post(std::function<void()>) override {}
    void Post(const std::string&, std::function<void()>) override {}
};

class NullLooperFactory : public orin::xfer::IFileTransferLooperFactory {
public:
    std::unique_ptr<orin::xfer::IFileTransferLooper> CreateLooper() override { return std::make_unique<NullLooper>(); }
    std::unique_ptr<orin::xfer::IFileTransferLooper> CreateLooper(const std::string&) override
    {
        return std::make_unique<NullLooper>();
    }
};

class Quiet : public orin::xfer::IFileTransferLogger {};

}  // namespace

int main()
{
    orin::xfer::IFileTransferLogger::SetLogger(std::make_shared<Quiet>());
    orin::xfer::FileTransferListener listener;
    auto manager = orin::xfer::IFileTransferManager::NewInstance(&listener, std::make_unique<NullLooperFactory>(),
                                                                 false, nullptr);
    manager->SetSystemType("Linux");
    return manager && !manager->IsUploading() ? 0 : 1;
}
