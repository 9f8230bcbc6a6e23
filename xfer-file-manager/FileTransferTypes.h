// Records that cross the boundary between the engine and its host.
//
// Threading: plain records. A FileTransferTask is shared between threads
// through std::shared_ptr; its transferredSize is written by one thread at a
// time (the upload worker or the writer looper). A WriteFileData is written
// once before it is queued and only read afterwards.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <string>

namespace orin::xfer {

// The separator every path of the engine is joined and split with.
extern const std::string kPathSeparator;

// Attribute bits of a FileDescription (values of the Windows attribute set).
constexpr uint32_t kAttributeDirectory = 0x10;
constexpr uint32_t kAttributeNormal = 0x80;

// One entry of a clipboard file list. A default-constructed description has
// every string empty and every number 0.
struct FileDescription {
    std::string sourceDir;     // directory the entry was found in (or the copied root)
    std::string filePath;      // sub-directory relative to the root, "" at the top
    std::string destFilePath;  // destination sub-directory
    std::string fileName;      // last path component
    std::string destFileName;  // destination name after duplicate renaming
    std::string destDir;       // destination directory on the receiving side
    uint32_t attribute = 0;    // 0x10 directory, 0x80 regular file; bit 4 is the directory test
    uint32_t mode = 0;         // mode word carried in the JSON list
    uint64_t fileSize = 0;     // bytes; for a directory the sum of the files beneath it
    uint32_t flag = 0;         // carried unchanged into the file announcement and the task
};

// One transfer in flight, upload (odd transferId) or download (even).
struct FileTransferTask {
    uint32_t taskId = 0;
    uint32_t transferId = 0;
    uint64_t transferredSize = 0;
    std::string fileName;
    uint64_t fileSize = 0;
    uint64_t totalSize = 0;
    uint32_t flag = 0;
    std::shared_ptr<std::fstream> stream;  // empty until opened; null for a directory
    std::string fileFullPath;
};

// One received chunk queued for the writer. The buffer comes from malloc and
// is released with free when the last shared owner lets go.
struct WriteFileData {
    WriteFileData() = default;
    WriteFileData(const WriteFileData&) = delete;
    WriteFileData& operator=(const WriteFileData&) = delete;
    ~WriteFileData() { std::free(data); }

    uint64_t size = 0;
    uint8_t* data = nullptr;
};

}  // namespace orin::xfer
