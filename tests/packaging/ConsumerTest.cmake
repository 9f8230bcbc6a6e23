# Installs the built library into a scratch prefix, then configures and
# builds a small consumer against it twice: through find_package and
# through pkg-config.
foreach(var SOURCE_DIR BUILD_DIR WORK_DIR)
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
               IFileTransferRateLimiter.h)
  if(NOT EXISTS ${prefix}/include/xferfm/${header})
    message(FATAL_ERROR "installed package lacks include/xferfm/${header}")
  endif()
endforeach()

# find_package consumer.
run_step(${CMAKE_COMMAND} -S ${SOURCE_DIR}/tests/packaging/consumer -B ${WORK_DIR}/cmake-consumer
         -DCMAKE_PREFIX_PATH=${prefix})
run_step(${CMAKE_COMMAND} --build ${WORK_DIR}/cmake-consumer)
run_step(${CMAKE_COMMAND} -E env LD_LIBRARY_PATH=${prefix}/lib ${WORK_DIR}/cmake-consumer/consumer)

# pkg-config consumer.
find_program(PKG_CONFIG pkg-config REQUIRED)
find_program(CXX_COMPILER NAMES c++ g++ REQUIRED)
file(GLOB_RECURSE pc_file ${prefix}/*/xferfm.pc)
get_filename_component(pc_dir "${pc_file}" DIRECTORY)
execute_process(COMMAND ${CMAKE_COMMAND} -E env PKG_CONFIG_PATH=${pc_dir} ${PKG_CONFIG} --cflags --libs xferfm
                RESULT_VARIABLE rc OUTPUT_VARIABLE flags OUTPUT_STRIP_TRAILING_WHITESPACE)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "pkg-config does not know xferfm")
endif()
separate_arguments(flags UNIX_COMMAND "${flags}")
run_step(${CXX_COMPILER} -std=c++17 ${SOURCE_DIR}/tests/packaging/consumer/consumer.cpp ${flags}
         -o ${WORK_DIR}/pkgconfig-consumer)
run_step(${CMAKE_COMMAND} -E env LD_LIBRARY_PATH=${prefix}/lib ${WORK_DIR}/pkgconfig-consumer)

# The example host must keep building against what is installed, and run.
run_step(${CXX_COMPILER} -std=c++17 -pthread ${SOURCE_DIR}/examples/minimal_host.cpp ${flags}
         -o ${WORK_DIR}/minimal-host)
file(WRITE ${WORK_DIR}/offered.txt "offered")
run_step(${CMAKE_COMMAND} -E env LD_LIBRARY_PATH=${prefix}/lib ${WORK_DIR}/minimal-host ${WORK_DIR}/offered.txt)
message(STATUS "consumer and example host build and run against the installed package")
