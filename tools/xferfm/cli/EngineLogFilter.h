// Decides which engine (and host kit) log lines reach the user.
//
// Threading: shouldShow is called from any engine thread, silence from any
// tool thread; the silenced flag is atomic and the rest is immutable.
#pragma once

#include <atomic>
#include <string>

namespace xferfm::cli {

class EngineLogFilter {
public:
    explicit EngineLogFilter(int threshold) : mThreshold(threshold) {}

    // True when `line` at engine `level` should be shown. One expected line
    // is always dropped: before each incoming file the engine tests whether
    // the file is already in the receiver's cache ("stat <cache>/<name>
    // failed, errno 2" at error level); a miss there is the normal case,
    // and printing it for every file would bury real errors.
    bool shouldShow(int level, const std::string& line) const;

    // Once the tool has taken the failure (or the Ctrl-C) in hand and will
    // report it itself, the endpoints' words about the teardown that follows
    // ("copy ended: ...") add nothing: drop every later line.
    void silence() { mSilenced = true; }

private:
    int mThreshold;
    std::atomic<bool> mSilenced{false};
};

}  // namespace xferfm::cli
