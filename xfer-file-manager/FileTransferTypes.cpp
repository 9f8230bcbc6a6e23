#include "FileTransferTypes.h"

namespace orin::xfer {

const std::string kPathSeparator = "/";

}  // namespace orin::xfer
