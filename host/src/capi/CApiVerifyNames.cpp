// The optional settings of the C interface's endpoints, made before their
// session starts (verification on the sender, name rules on the receiver),
// and the verdict of a verified copy at either end. The handles are
// CApiHandles.h's; how a verified copy travels is CApiEndpoints.cpp's.
#include <algorithm>
#include <cstring>
#include <string>

#include "CApiBoundary.h"
#include "CApiHandles.h"

using namespace orin::xfer::host;
using namespace orin::xfer::host::capi;

namespace {

void FillVerifyResult(const std::optional<VerifyVerdict>& verdict, xferfm_verify_result& out)
{
    out = xferfm_verify_result{};
    if (!verdict) {
        out.state = XFERFM_VERIFY_NONE;
        return;
    }
    out.state = verdict->matched ? XFERFM_VERIFY_MATCHED : XFERFM_VERIFY_MISMATCH;
    out.files_compared = verdict->filesCompared;
    out.files_differing = verdict->filesDiffering;
    const size_t length = std::min(verdict->details.size(), sizeof out.details - 1);
    std::memcpy(out.details, verdict->details.data(), length);
    out.details[length] = '\0';
}

template <typename Handle>
int VerifyResultOf(const char* function, const Handle* handle, xferfm_verify_result* out)
{
    return Guarded(function, [&]() -> int {
        if (handle == nullptr || out == nullptr) {
            return Fail(XFERFM_ERR_INVALID_ARGUMENT, std::string(function) + ": NULL handle or output");
        }
        FillVerifyResult(handle->verdict->Get(), *out);
        return XFERFM_OK;
    });
}

}  // namespace

extern "C" int xferfm_sender_set_verify(xferfm_sender* sender, int enabled)
{
    return Guarded("xferfm_sender_set_verify", [&]() -> int {
        if (sender == nullptr) {
            return Fail(XFERFM_ERR_INVALID_ARGUMENT, "xferfm_sender_set_verify: NULL sender");
        }
        std::lock_guard<std::mutex> lock(sender->offerMutex);
        if (sender->offered) {
            return Fail(XFERFM_ERR_BAD_STATE, "xferfm_sender_set_verify: the sender has offered its list already");
        }
        sender->verify = enabled != 0;
        return XFERFM_OK;
    });
}

extern "C" int xferfm_sender_verify_result(const xferfm_sender* sender, xferfm_verify_result* out)
{
    return VerifyResultOf("xferfm_sender_verify_result", sender, out);
}

extern "C" int xferfm_receiver_verify_result(const xferfm_receiver* receiver, xferfm_verify_result* out)
{
    return VerifyResultOf("xferfm_receiver_verify_result", receiver, out);
}

extern "C" int xferfm_receiver_set_names(xferfm_receiver* receiver, int target, int action)
{
    return Guarded("xferfm_receiver_set_names", [&]() -> int {
        if (receiver == nullptr) {
            return Fail(XFERFM_ERR_INVALID_ARGUMENT, "xferfm_receiver_set_names: NULL receiver");
        }
        ReceiverNameRules rules;
        switch (target) {
        case XFERFM_NAMES_POSIX: rules.target = NameTarget::kPosix; break;
        case XFERFM_NAMES_WINDOWS: rules.target = NameTarget::kWindows; break;
        case XFERFM_NAMES_PORTABLE: rules.target = NameTarget::kPortable; break;
        default: return Fail(XFERFM_ERR_INVALID_ARGUMENT, "xferfm_receiver_set_names: unknown target");
        }
        switch (action) {
        case XFERFM_NAMES_MAP: rules.action = NameAction::kMap; break;
        case XFERFM_NAMES_REFUSE: rules.action = NameAction::kRefuse; break;
        case XFERFM_NAMES_MAP_BACK:
            if (rules.target != NameTarget::kPosix) {
                return Fail(XFERFM_ERR_INVALID_ARGUMENT,
                            "xferfm_receiver_set_names: a map-back goes with XFERFM_NAMES_POSIX only");
            }
            rules.mapBack = true;
            break;
        default: return Fail(XFERFM_ERR_INVALID_ARGUMENT, "xferfm_receiver_set_names: unknown action");
        }
        std::lock_guard<std::mutex> lock(receiver->startMutex);
        if (receiver->started || !receiver->endpoint->SetNameRules(rules)) {
            return Fail(XFERFM_ERR_BAD_STATE, "xferfm_receiver_set_names: the receiver has started already");
        }
        return XFERFM_OK;
    });
}
