// The tool's exit codes as every test names them:
// EXPECT_EQ(result.exitCode, toInt(cli::ExitCode::kUsage)), never a number.
// Include it only in tests that run or link the tool (ExitCode.h is the
// tool's own header).
#pragma once

#include "ExitCode.h"

namespace orin::xfer::test {

namespace cli = xferfm::cli;
using xferfm::cli::toInt;

}  // namespace orin::xfer::test
