#include "EngineLogFilter.h"

namespace xferfm::cli {
namespace {

bool endsWith(const std::string& text, const std::string& suffix)
{
    return text.size() >= suffix.size() && text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

bool isExpectedCacheMiss(const std::string& line)
{
    return line.find(": stat ") != std::string::npos && line.find("/.xferfm-cache-") != std::string::npos &&
           endsWith(line, " failed, errno 2");
}

}  // namespace

bool EngineLogFilter::shouldShow(int level, const std::string& line) const
{
    return level >= mThreshold && !mSilenced && !isExpectedCacheMiss(line);
}

}  // namespace xferfm::cli
