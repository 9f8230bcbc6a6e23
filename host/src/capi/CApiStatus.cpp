// Status texts, the last failure of each thread, the version and the log
// hook of the C interface.
#include <memory>
#include <string>

#include "CApiBoundary.h"
#include "Version.h"
#include "xferfm/host/CallbackLoggerSink.h"


namespace orin::xfer::host::capi {

namespace {
thread_local std::string tLastError;
}

int Fail(int status, const std::string& text)
{
    try {
        tLastError = text;
    } catch (...) {
        tLastError.clear();
    }
    return status;
}

void Succeed()
{
    tLastError.clear();
}

const char* LastErrorText()
{
    return tLastError.c_str();
}

}  // namespace orin::xfer::host::capi

using namespace orin::xfer::host::capi;

extern "C" const char* xferfm_strerror(int status)
{
    switch (status) {
    case XFERFM_OK: return "success";
    case XFERFM_ERR_INVALID_ARGUMENT: return "invalid argument";
    case XFERFM_ERR_BAD_STATE: return "not allowed in this state";
    case XFERFM_ERR_PATH: return "path cannot be used";
    case XFERFM_ERR_TIMEOUT: return "timed out";
    case XFERFM_ERR_NETWORK: return "network failure";
    case XFERFM_ERR_PROTOCOL: return "protocol violation";
    case XFERFM_ERR_CLOSED: return "link closed";
    case XFERFM_ERR_NO_MEMORY: return "out of memory";
    case XFERFM_ERR_INTERNAL: return "internal failure";
    default: return "unknown status";
    }
}

extern "C" const char* xferfm_last_error(void)
{
    return LastErrorText();
}

// The version of the engine library actually loaded.
extern "C" const char* xferfm_version(void)
{
    return orin::xfer::VersionString();
}

extern "C" int xferfm_set_log_callback(xferfm_log_fn log, void* user)
{
    return Guarded("xferfm_set_log_callback", [&]() -> int {
        if (log == nullptr) {
            orin::xfer::IFileTransferLogger::SetLogger(nullptr);
        } else {
            orin::xfer::IFileTransferLogger::SetLogger(std::make_shared<orin::xfer::host::CallbackLoggerSink>(
                [log, user](int level, const std::string& line) { log(user, level, line.c_str()); }));
        }
        return XFERFM_OK;
    });
}
