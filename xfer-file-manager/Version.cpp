// The numbers come from the build (XFERFM_BUILD_VERSION_*, set from the
// project version by CMake), not from Version.h, so a header that falls out
// of step with the project version is caught by comparing the two.
#include "Version.h"

#if !defined(XFERFM_BUILD_VERSION_MAJOR) || !defined(XFERFM_BUILD_VERSION_MINOR) || \
    !defined(XFERFM_BUILD_VERSION_PATCH)
#error "the build must define XFERFM_BUILD_VERSION_MAJOR, _MINOR and _PATCH"
#endif

#define XFERFM_TEXT_OF(x) #x
#define XFERFM_TEXT(x) XFERFM_TEXT_OF(x)

namespace orin::xfer {

const char* VersionString()
{
    return XFERFM_TEXT(XFERFM_BUILD_VERSION_MAJOR) "." XFERFM_TEXT(XFERFM_BUILD_VERSION_MINOR) "." XFERFM_TEXT(
        XFERFM_BUILD_VERSION_PATCH);
}

int VersionMajor()
{
    return XFERFM_BUILD_VERSION_MAJOR;
}

int VersionMinor()
{
    return XFERFM_BUILD_VERSION_MINOR;
}

int VersionPatch()
{
    return XFERFM_BUILD_VERSION_PATCH;
}

}  // namespace orin::xfer
