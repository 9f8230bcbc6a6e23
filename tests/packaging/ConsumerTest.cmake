# Installs the built project into a scratch prefix, then, with nothing but
# that prefix, builds and runs through find_package AND through pkg-config:
# a small consumer, a version check, a compile of every host-kit header, and
# every example host (each must copy a file byte for byte).
#
# pkg-config sees only the prefix's pkgconfig directory (PKG_CONFIG_LIBDIR),
# so the .pc files must be complete on their own, without jsoncpp.pc.
foreach(var SOURCE_DIR BUILD_DIR WORK_DIR CXX_COMPILER PROJECT_VERSION)
  if(NOT DEFINED ${var})
    message(FATAL_ERROR "${var} is required")
  endif()
endforeach()

set(prefix ${WORK_DIR}/prefix)
file(REMOVE_RECURSE ${WORK_DIR})
file(MAKE_DIRECTORY ${WORK_DIR})

function(run_step)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "step failed (${rc}): ${ARGN}\n${out}\n${err}")
  endif()
endfunction()

run_step(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix})

foreach(header IFileTransferManager.h OrinFileTransferManager.h IFileTransferLogger.h LoggerBuffer.h
               LoggerInternal.h FileTransferTypes.h FileTransferListener.h IFileTransferLooperFactory.h
               IFileTransferRateLimiter.h Version.h host/Transport.h host/SenderEndpoint.h
               host/ReceiverEndpoint.h)
  if(NOT EXISTS ${prefix}/include/xferfm/${header})
    message(FATAL_ERROR "installed package lacks include/xferfm/${header}")
  endif()
endforeach()
file(GLOB_RECURSE engine_library ${prefix}/*/libxferfm.so)
get_filename_component(libdir "${engine_library}" DIRECTORY)
set(run_env ${CMAKE_COMMAND} -E env LD_LIBRARY_PATH=${libdir})

# One source file of several chunks (the engine sends 65,536 bytes at a
# time) with no repeating pattern at chunk boundaries.
string(RANDOM LENGTH 997 seed)
string(REPEAT "${seed}\n" 201 payload)
file(WRITE ${WORK_DIR}/payload.bin "${payload}")
set(examples engine_only_copy kit_inprocess_copy kit_tcp_copy)

# Runs each example binary found in `dir` on the payload, into a fresh
# destination directory of its own.
function(run_examples route dir)
  foreach(example IN LISTS examples)
    set(destination ${WORK_DIR}/landed-${route}-${example})
    file(MAKE_DIRECTORY ${destination})
    run_step(${run_env} ${dir}/${example} ${WORK_DIR}/payload.bin ${destination})
  endforeach()
endfunction()

set(compiler_launcher "")
if(CXX_COMPILER_LAUNCHER)
  set(compiler_launcher -DCMAKE_CXX_COMPILER_LAUNCHER=${CXX_COMPILER_LAUNCHER})
endif()

# Route 1: find_package.
foreach(project consumer examples)
  if(project STREQUAL "consumer")
    set(source ${SOURCE_DIR}/tests/packaging/consumer)
  else()
    set(source ${SOURCE_DIR}/examples)
  endif()
  run_step(${CMAKE_COMMAND} -S ${source} -B ${WORK_DIR}/cmake-${project} -DCMAKE_PREFIX_PATH=${prefix}
           -DCMAKE_CXX_COMPILER=${CXX_COMPILER} ${compiler_launcher})
  run_step(${CMAKE_COMMAND} --build ${WORK_DIR}/cmake-${project})
endforeach()
run_step(${run_env} ${WORK_DIR}/cmake-consumer/consumer)
run_step(${run_env} ${WORK_DIR}/cmake-consumer/version_check ${PROJECT_VERSION})
run_examples(cmake ${WORK_DIR}/cmake-examples)

# Route 2: pkg-config, seeing only the prefix.
find_program(PKG_CONFIG pkg-config REQUIRED)
file(GLOB_RECURSE pc_files ${prefix}/*.pc)
set(pc_dirs "")
foreach(pc IN LISTS pc_files)
  get_filename_component(dir ${pc} DIRECTORY)
  list(APPEND pc_dirs ${dir})
endforeach()
list(REMOVE_DUPLICATES pc_dirs)
string(REPLACE ";" ":" pc_libdir "${pc_dirs}")

function(pkg_flags module out)
  execute_process(COMMAND ${CMAKE_COMMAND} -E env PKG_CONFIG_LIBDIR=${pc_libdir} PKG_CONFIG_PATH=
                          ${PKG_CONFIG} --cflags --libs ${module}
                  RESULT_VARIABLE rc OUTPUT_VARIABLE flags ERROR_VARIABLE err OUTPUT_STRIP_TRAILING_WHITESPACE)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "pkg-config cannot use ${module} with only ${pc_libdir}:\n${err}")
  endif()
  execute_process(COMMAND ${CMAKE_COMMAND} -E env PKG_CONFIG_LIBDIR=${pc_libdir} PKG_CONFIG_PATH=
                          ${PKG_CONFIG} --modversion ${module}
                  OUTPUT_VARIABLE version OUTPUT_STRIP_TRAILING_WHITESPACE)
  if(NOT version STREQUAL PROJECT_VERSION)
    message(FATAL_ERROR "${module}.pc says version '${version}', the project is ${PROJECT_VERSION}")
  endif()
  separate_arguments(flags UNIX_COMMAND "${flags}")
  set(${out} ${flags} PARENT_SCOPE)
endfunction()
pkg_flags(xferfm engine_flags)
pkg_flags(xferfm-host host_flags)

set(cxx ${CXX_COMPILER_LAUNCHER} ${CXX_COMPILER} -std=c++17 -Wall -Wextra -Werror)
file(MAKE_DIRECTORY ${WORK_DIR}/pkgconfig)
run_step(${cxx} ${SOURCE_DIR}/tests/packaging/consumer/consumer.cpp ${engine_flags} -o ${WORK_DIR}/pkgconfig/consumer)
run_step(${cxx} ${SOURCE_DIR}/tests/packaging/consumer/version_check.cpp ${engine_flags}
         -o ${WORK_DIR}/pkgconfig/version_check)
run_step(${run_env} ${WORK_DIR}/pkgconfig/consumer)
run_step(${run_env} ${WORK_DIR}/pkgconfig/version_check ${PROJECT_VERSION})

file(GLOB host_headers RELATIVE ${prefix}/include ${prefix}/include/xferfm/host/*.h)
foreach(header IN LISTS host_headers)
  string(MAKE_C_IDENTIFIER ${header} unit)
  file(WRITE ${WORK_DIR}/pkgconfig/${unit}.cpp "#include \"${header}\"\n")
  run_step(${cxx} -fsyntax-only ${WORK_DIR}/pkgconfig/${unit}.cpp ${host_flags})
endforeach()

run_step(${cxx} ${SOURCE_DIR}/examples/engine_only_copy.cpp ${engine_flags} -o ${WORK_DIR}/pkgconfig/engine_only_copy)
foreach(example kit_inprocess_copy kit_tcp_copy)
  run_step(${cxx} ${SOURCE_DIR}/examples/${example}.cpp ${host_flags} -o ${WORK_DIR}/pkgconfig/${example})
endforeach()
run_examples(pkgconfig ${WORK_DIR}/pkgconfig)

message(STATUS "consumer, version check, host-kit headers and every example build and run against the "
               "installed package through find_package and pkg-config")
