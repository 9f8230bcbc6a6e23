// The installed headers and the installed library describe the same
// version, and both match the project version the package was built from
// (passed as the only argument).
#include <cstdio>
#include <cstring>
#include <string>

#include "Version.h"

int main(int argc, char** argv)
{
    using namespace orin::xfer;
    const std::string composed = std::to_string(XFERFM_VERSION_MAJOR) + "." + std::to_string(XFERFM_VERSION_MINOR) +
                                 "." + std::to_string(XFERFM_VERSION_PATCH);
    bool ok = composed == XFERFM_VERSION_STRING;
    ok = ok && std::strcmp(VersionString(), XFERFM_VERSION_STRING) == 0;
    ok = ok && VersionMajor() == XFERFM_VERSION_MAJOR && VersionMinor() == XFERFM_VERSION_MINOR &&
         VersionPatch() == XFERFM_VERSION_PATCH;
    ok = ok && argc == 2 && std::strcmp(argv[1], XFERFM_VERSION_STRING) == 0;
    std::printf("headers %s, library %s, project %s: %s\n", XFERFM_VERSION_STRING, VersionString(),
                argc == 2 ? argv[1] : "?", ok ? "agree" : "DISAGREE");
    return ok ? 0 : 1;
}
