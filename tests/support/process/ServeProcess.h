// `xferfm serve` and `xferfm send` as child processes, for the tests of
// the tool's network commands. Included only by tool_*_test.cpp, which the
// build gives XFERFM_TOOL_PATH.
//
// THREADING CONTRACT: one test thread.
#pragma once

#include <chrono>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "ChildProcess.h"
#include "LinkTestSupport.h"
#include "TempDir.h"
#include "TestSupport.h"
#include "TreeCompare.h"

namespace orin::xfer::test {

// Scratch trees, pattern files and tree checks come from the shared support.
using namespace orin::xfer::test;

inline const char* ToolPath() { return XFERFM_TOOL_PATH; }

// Lines of `text` that contain `part`.
inline std::vector<std::string> LinesWith(const std::string& text, const std::string& part)
{
    std::vector<std::string> found;
    size_t start = 0;
    while (start < text.size()) {
        size_t end = text.find('\n', start);
        if (end == std::string::npos) {
            end = text.size();
        }
        const std::string line = text.substr(start, end - start);
        if (line.find(part) != std::string::npos) {
            found.push_back(line);
        }
        start = end + 1;
    }
    return found;
}

// True once some bytes of `name` sit in a receiver's cache under `dest`.
inline bool PartialFileInCache(const std::string& dest, const std::string& name)
{
    namespace fs = std::filesystem;
    std::error_code ignored;
    for (auto it = fs::recursive_directory_iterator(dest, ignored); it != fs::recursive_directory_iterator();
         it.increment(ignored)) {
        if (it->path().string().find("/.xferfm-cache-") != std::string::npos && it->path().filename() == name &&
            it->is_regular_file(ignored) && it->file_size(ignored) > 0) {
            return true;
        }
    }
    return false;
}

// A running `xferfm serve --listen 127.0.0.1:0 --port-file ... DEST`.
class ServeProcess {
public:
    ServeProcess(const TempDir& scratch, const std::string& destination, std::vector<std::string> extraArgs = {})
        : mPortFile(scratch / "serve.port")
    {
        std::vector<std::string> args{"serve", "--listen", "127.0.0.1:0", "--port-file", mPortFile};
        args.insert(args.end(), extraArgs.begin(), extraArgs.end());
        args.push_back(destination);
        mProcess = std::make_unique<ChildProcess>(ToolPath(), args, scratch / "serve");
        waitUntil([this] { return ReadPort() != 0 || mProcess->WaitExit(std::chrono::milliseconds(0)); },
                  std::chrono::seconds(20));
        mPort = ReadPort();
    }

    bool Listening() const { return mPort != 0; }
    uint16_t Port() const { return mPort; }
    std::string Address() const { return "127.0.0.1:" + std::to_string(mPort); }
    ChildProcess& Process() { return *mProcess; }

    // Waits until stdout holds at least `count` session lines; returns them.
    std::vector<std::string> WaitForSessions(size_t count, std::chrono::milliseconds timeout)
    {
        std::vector<std::string> sessions;
        waitUntil(
            [&] {
                sessions = LinesWith(mProcess->Stdout(), "session ");
                return sessions.size() >= count;
            },
            timeout);
        return sessions;
    }

private:
    uint16_t ReadPort() const
    {
        std::ifstream in(mPortFile);
        unsigned port = 0;
        return (in >> port) ? static_cast<uint16_t>(port) : 0;
    }

    std::string mPortFile;
    std::unique_ptr<ChildProcess> mProcess;
    uint16_t mPort = 0;
};

// Runs `xferfm send ARGS...` to its end (bounded by `timeout`).
inline std::unique_ptr<ChildProcess> RunSend(const TempDir& scratch, const std::string& name,
                                             const std::vector<std::string>& args,
                                             std::chrono::milliseconds timeout = std::chrono::seconds(60))
{
    std::vector<std::string> all{"send", "--no-progress"};
    all.insert(all.end(), args.begin(), args.end());
    auto send = std::make_unique<ChildProcess>(ToolPath(), all, scratch / name);
    send->WaitExit(timeout);
    return send;
}

}  // namespace orin::xfer::test
