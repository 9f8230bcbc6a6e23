// The version of the engine: the macros describe the headers a host was
// compiled against, the functions the libxferfm.so it runs with. A host that
// wants to refuse a library older than its headers compares the two.
//
// The numbers follow the project version (the SONAME carries the major
// number); the packaging test checks that these macros and the functions of
// the built library agree.
//
// Threading: the functions only return constants and may be called from any
// thread, before or after any manager exists.
#pragma once

#define XFERFM_VERSION_MAJOR 1
#define XFERFM_VERSION_MINOR 0
#define XFERFM_VERSION_PATCH 0
#define XFERFM_VERSION_STRING "1.0.0"

namespace orin::xfer {

// "MAJOR.MINOR.PATCH" of the running library; a static string, never freed.
const char* VersionString();
int VersionMajor();
int VersionMinor();
int VersionPatch();

}  // namespace orin::xfer
