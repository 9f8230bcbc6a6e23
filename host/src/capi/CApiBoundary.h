// What every function of the C interface shares: the handle types behind
// the opaque pointers, the per-thread text of the last failure, and the
// boundary that turns every C++ failure into a status code.
//
// THREADING CONTRACT: the last-failure text is per thread; the handle
// types guard their own state.
#pragma once

#include <memory>
#include <mutex>
#include <new>
#include <stdexcept>
#include <string>

#include "HostCallbackTransport.h"
#include "xferfm/host/Transport.h"
#include "xferfm/xferfm.h"

// A link not yet taken by an endpoint holds its transport; a custom one
// also keeps its channel for the host's deliveries.
struct xferfm_link {
    std::mutex mutex;
    std::unique_ptr<orin::xfer::host::ITransport> transport;  // null once taken
    std::shared_ptr<orin::xfer::host::capi::HostLinkChannel> channel;  // custom links only
};

namespace orin::xfer::host::capi {

// Records `text` as this thread's last failure and returns `status`.
int Fail(int status, const std::string& text);
// Clears this thread's last failure.
void Succeed();
const char* LastErrorText();

// Runs `body` (returning a status) with every exception caught.
template <typename Body>
int Guarded(const char* what, Body&& body) noexcept
{
    try {
        Succeed();
        return body();
    } catch (const std::bad_alloc&) {
        return Fail(XFERFM_ERR_NO_MEMORY, std::string(what) + ": out of memory");
    } catch (const std::exception& e) {
        return Fail(XFERFM_ERR_INTERNAL, std::string(what) + ": " + e.what());
    } catch (...) {
        return Fail(XFERFM_ERR_INTERNAL, std::string(what) + ": unknown failure");
    }
}

// Takes the transport out of a link for an endpoint; null (with the
// failure recorded) when the link was already taken.
std::unique_ptr<ITransport> TakeTransport(xferfm_link& link);

}  // namespace orin::xfer::host::capi
