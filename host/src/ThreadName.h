// Names the calling thread for debuggers and `top -H`; the kernel keeps 15
// characters, so the name is cut there.
#pragma once

#include <pthread.h>

#include <string>

namespace orin::xfer::host::detail {

inline void NameThisThread(const std::string& name)
{
    pthread_setname_np(pthread_self(), name.substr(0, 15).c_str());
}

}  // namespace orin::xfer::host::detail
