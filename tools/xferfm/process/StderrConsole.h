// The tool's one writer to stderr. Keeps an optional status line (the live
// progress bar) at the bottom of a terminal: ordinary lines are printed
// above it and the bar is redrawn after them, so log lines and the bar never
// interleave mid-line.
//
// Threading: every operation may be called from any thread; each takes the
// console's mutex for the whole write.
#pragma once

#include <mutex>
#include <string>

namespace xferfm::cli {

class StderrConsole {
public:
    StderrConsole();

    bool isTerminal() const { return mIsTerminal; }
    // Columns of the terminal, 80 when unknown.
    int width() const;

    // Prints `line` (a line feed is added when missing) above the status line.
    void writeLine(const std::string& line);
    // Replaces the status line; only meaningful on a terminal.
    void setStatus(const std::string& status);
    // Ends the status line: keeps its last text on screen and moves below it.
    void finishStatus();

private:
    void writeRaw(const std::string& text);
    void eraseStatusLocked();

    std::mutex mMutex;
    bool mIsTerminal;
    std::string mStatus;
};

}  // namespace xferfm::cli
