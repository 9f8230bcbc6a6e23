# Installs the engine and the host kit as one package: engine headers in
# include/xferfm (included by bare name), host-kit headers in
# include/xferfm/host (included as "xferfm/host/..."), a CMake package config
# with a version file (targets xferfm::xferfm and xferfm::host), and
# xferfm.pc / xferfm-host.pc for pkg-config, which give the same include
# paths and libraries as the two CMake targets.
include(CMakePackageConfigHelpers)

set(XFERFM_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/xferfm)

install(TARGETS xferfm EXPORT xferfmTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
  PUBLIC_HEADER DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/xferfm
)
install(EXPORT xferfmTargets NAMESPACE xferfm:: DESTINATION ${XFERFM_CMAKE_DIR})

configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/xferfmConfig.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/xferfmConfig.cmake
  INSTALL_DESTINATION ${XFERFM_CMAKE_DIR})
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/xferfmConfigVersion.cmake
  VERSION ${PROJECT_VERSION} COMPATIBILITY SameMajorVersion)
install(FILES
  ${CMAKE_CURRENT_BINARY_DIR}/xferfmConfig.cmake
  ${CMAKE_CURRENT_BINARY_DIR}/xferfmConfigVersion.cmake
  DESTINATION ${XFERFM_CMAKE_DIR})

file(RELATIVE_PATH XFERFM_PC_RELATIVE_PREFIX
  ${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
string(REGEX REPLACE "/$" "" XFERFM_PC_RELATIVE_PREFIX "${XFERFM_PC_RELATIVE_PREFIX}")
foreach(pc xferfm xferfm-host)
  configure_file(${CMAKE_CURRENT_LIST_DIR}/${pc}.pc.in ${CMAKE_CURRENT_BINARY_DIR}/${pc}.pc @ONLY)
  install(FILES ${CMAKE_CURRENT_BINARY_DIR}/${pc}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endforeach()
