#include "ErrnoText.h"

#include <cstring>

namespace xferfm::cli {

std::string systemErrorText(int errnoValue)
{
    char buffer[256] = {};
    // GNU strerror_r may return a static string instead of filling the buffer.
    const char* text = strerror_r(errnoValue, buffer, sizeof buffer);
    return text != nullptr ? std::string(text) : std::string("error ") + std::to_string(errnoValue);
}

}  // namespace xferfm::cli
