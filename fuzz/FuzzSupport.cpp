#include "FuzzSupport.h"

#include <fcntl.h>
#include <ftw.h>
#include <sys/stat.h>
#include <unistd.h>

#include <functional>

#include "IFileTransferLogger.h"
#include "xferfm/host/RemoteNameGuard.h"

namespace xferfm::fuzz {

namespace {

class DroppingLogger : public orin::xfer::IFileTransferLogger {};

class DroppingLooper : public orin::xfer::IFileTransferLooper {
public:
    void Post(std::function<void()>) override {}
    void Post(const std::string&, std::function<void()>) override {}
};

class DroppingLooperFactory : public orin::xfer::IFileTransferLooperFactory {
public:
    std::unique_ptr<orin::xfer::IFileTransferLooper> CreateLooper() override
    {
        return std::make_unique<DroppingLooper>();
    }
    std::unique_ptr<orin::xfer::IFileTransferLooper> CreateLooper(const std::string&) override
    {
        return std::make_unique<DroppingLooper>();
    }
};

std::string gScratch;

int removeEntry(const char* path, const struct stat*, int, struct FTW*)
{
    return remove(path);
}

void removeScratch()
{
    if (!gScratch.empty()) {
        nftw(gScratch.c_str(), removeEntry, 16, FTW_DEPTH | FTW_PHYS);
    }
}

void touch(const std::string& path)
{
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (fd >= 0) {
        close(fd);
    }
}

}  // namespace

void SilenceEngineLog()
{
    static const bool installed = [] {
        orin::xfer::IFileTransferLogger::SetLogger(std::make_shared<DroppingLogger>());
        return true;
    }();
    (void)installed;
}

std::unique_ptr<orin::xfer::OrinFileTransferManager> MakeQuietEngine()
{
    SilenceEngineLog();
    return std::make_unique<orin::xfer::OrinFileTransferManager>(
        nullptr, std::make_unique<DroppingLooperFactory>(), false, nullptr);
}

const std::string& ScratchDirectory()
{
    if (gScratch.empty()) {
        char pattern[] = "/tmp/xferfm-fuzz-XXXXXX";
        if (mkdtemp(pattern) == nullptr) {
            Violation("scratch directory", "mkdtemp failed");
        }
        gScratch = pattern;
        std::atexit(removeScratch);
        // Existing names, so duplicates get counters, and a directory tree.
        for (const char* file : {"a", "a(1)", "a.txt", "a(1).txt", "b.tar.gz", "dir/x", "dir(1)/y"}) {
            const std::string path = gScratch + "/" + file;
            const size_t slash = path.find_last_of('/');
            mkdir(path.substr(0, slash).c_str(), 0755);
            touch(path);
        }
        mkdir((gScratch + "/dir/sub").c_str(), 0755);
        symlink("/tmp", (gScratch + "/outside").c_str());
    }
    return gScratch;
}

bool GuardAccepts(const std::string& name)
{
    std::string error;
    return orin::xfer::host::CheckRemoteName(name, error);
}

}  // namespace xferfm::fuzz
