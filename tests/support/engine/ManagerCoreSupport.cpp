#include "ManagerCoreSupport.h"

#include <dirent.h>
#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

namespace orin::xfer::test {

JournalingRateLimiter::JournalingRateLimiter(std::shared_ptr<LooperJournal> journal) : mJournal(std::move(journal)) {}

JournalingRateLimiter::~JournalingRateLimiter()
{
    mJournal->Add("destroy-limiter");
}

void JournalingRateLimiter::SetBandwidth(uint32_t bitsPerSecond)
{
    RecordingRateLimiter::SetBandwidth(bitsPerSecond);
    mJournal->Add("limiter:SetBandwidth:" + std::to_string(bitsPerSecond));
}

JournalingLogger::JournalingLogger(std::shared_ptr<LooperJournal> journal) : mJournal(std::move(journal)) {}

void JournalingLogger::Note(const char* line)
{
    mJournal->Add("log:" + MessageOf(line));
}

void JournalingLogger::OnVerbose(const char* line)
{
    CapturingLogger::OnVerbose(line);
    Note(line);
}

void JournalingLogger::OnDebug(const char* line)
{
    CapturingLogger::OnDebug(line);
    Note(line);
}

void JournalingLogger::OnInfo(const char* line)
{
    CapturingLogger::OnInfo(line);
    Note(line);
}

void JournalingLogger::OnWarning(const char* line)
{
    CapturingLogger::OnWarning(line);
    Note(line);
}

void JournalingLogger::OnError(const char* line)
{
    CapturingLogger::OnError(line);
    Note(line);
}

void JournalingLogger::OnFatal(const char* line)
{
    CapturingLogger::OnFatal(line);
    Note(line);
}

ScopedJournalingLogger::ScopedJournalingLogger(std::shared_ptr<LooperJournal> journal)
    : mLogger(std::make_shared<JournalingLogger>(std::move(journal)))
{
    IFileTransferLogger::SetLogger(mLogger);
}

ScopedJournalingLogger::~ScopedJournalingLogger()
{
    IFileTransferLogger::SetLogger(nullptr);
}

std::shared_ptr<FileTransferTask> MakeTask(uint32_t taskId, uint32_t transferId, const std::string& fileName)
{
    auto task = std::make_shared<FileTransferTask>();
    task->taskId = taskId;
    task->transferId = transferId;
    task->fileName = fileName;
    return task;
}

std::vector<uint32_t> TransferIdsOf(const std::vector<std::shared_ptr<FileTransferTask>>& tasks)
{
    std::vector<uint32_t> ids;
    for (const auto& task : tasks) {
        ids.push_back(task->transferId);
    }
    return ids;
}

FileDescription DescriptionNamed(const std::string& fileName)
{
    FileDescription description;
    description.fileName = fileName;
    return description;
}

std::vector<std::string> MessagesOf(const std::vector<LogLine>& lines)
{
    std::vector<std::string> messages;
    for (const LogLine& line : lines) {
        messages.push_back(MessageOf(line.text));
    }
    return messages;
}

ScopedUmask::ScopedUmask(mode_t mask) : mPrevious(umask(mask)) {}

ScopedUmask::~ScopedUmask()
{
    umask(mPrevious);
}

ScopedImmutableFile::ScopedImmutableFile(std::string path) : mPath(std::move(path))
{
    mApplied = SetImmutable(true);
}

ScopedImmutableFile::~ScopedImmutableFile()
{
    if (mApplied) {
        SetImmutable(false);
    }
}

bool ScopedImmutableFile::SetImmutable(bool on)
{
    const int fd = open(mPath.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        mError = std::string("open: ") + std::strerror(errno);
        return false;
    }
    int flags = 0;
    bool ok = ioctl(fd, FS_IOC_GETFLAGS, &flags) == 0;
    if (ok) {
        flags = on ? (flags | FS_IMMUTABLE_FL) : (flags & ~FS_IMMUTABLE_FL);
        ok = ioctl(fd, FS_IOC_SETFLAGS, &flags) == 0;
    }
    if (!ok) {
        mError = std::string("ioctl: ") + std::strerror(errno);
    }
    close(fd);
    return ok;
}

std::vector<std::string> ReaddirNames(const std::string& path)
{
    std::vector<std::string> names;
    DIR* dir = opendir(path.c_str());
    if (!dir) {
        return names;
    }
    while (const dirent* entry = readdir(dir)) {
        const std::string name = entry->d_name;
        if (name != "." && name != "..") {
            names.push_back(name);
        }
    }
    closedir(dir);
    return names;
}

int ModeBitsOf(const std::string& path)
{
    struct stat status {};
    if (stat(path.c_str(), &status) != 0) {
        return -1;
    }
    return static_cast<int>(status.st_mode & 07777);
}

bool LinkExists(const std::string& path)
{
    struct stat status {};
    return lstat(path.c_str(), &status) == 0;
}

}  // namespace orin::xfer::test
