// The text of an errno value, for the messages the tool prints. The one
// place the tool turns errno into words.
//
// Threading: safe from any thread (strerror's shared buffer is not used).
#pragma once

#include <string>

namespace xferfm::cli {

// "strerror(errnoValue)" without the thread-safety worries of strerror.
std::string systemErrorText(int errnoValue);

}  // namespace xferfm::cli
