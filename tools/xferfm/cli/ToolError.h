// The one exception the tool throws for a failure the user must hear about:
// a message that names the path at fault and the exit code it maps to.
// Thrown on any thread; caught once, by the run scaffold in CommandRunner
// (or handed over to it by the worker that hit it).
#pragma once

#include <stdexcept>
#include <string>

#include "ExitCode.h"
#include "xferfm/host/SystemErrorText.h"  // SystemErrorText, for the messages thrown with it

namespace xferfm::cli {

using orin::xfer::host::SystemErrorText;

class ToolError : public std::runtime_error {
public:
    ToolError(ExitCode code, const std::string& message) : std::runtime_error(message), mCode(code) {}
    ExitCode code() const { return mCode; }

private:
    ExitCode mCode;
};

}  // namespace xferfm::cli
