# XFERFM_SANITIZE=address,undefined or XFERFM_SANITIZE=thread instruments
# every target of the build (library, host kit, tool and tests).
set(XFERFM_SANITIZE "" CACHE STRING "Sanitizers to build with: address,undefined or thread (empty: none)")

if(XFERFM_SANITIZE)
  if(XFERFM_SANITIZE MATCHES "thread" AND XFERFM_SANITIZE MATCHES "address")
    message(FATAL_ERROR "XFERFM_SANITIZE: thread cannot be combined with address")
  endif()
  set(xferfm_sanitize_flags -fsanitize=${XFERFM_SANITIZE} -fno-omit-frame-pointer -g)
  if(XFERFM_SANITIZE MATCHES "undefined")
    list(APPEND xferfm_sanitize_flags -fno-sanitize-recover=undefined)
  endif()
  # GCC's flow analysis sees uninitialised reads inside the standard
  # library's <regex> once the sanitizers instrument it (false positives
  # that -Werror would turn into a failed build); plain builds keep the
  # warning.
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    list(APPEND xferfm_sanitize_flags -Wno-maybe-uninitialized)
  endif()
  add_compile_options(${xferfm_sanitize_flags})
  add_link_options(-fsanitize=${XFERFM_SANITIZE})
  message(STATUS "Sanitizers: ${XFERFM_SANITIZE}")
endif()
