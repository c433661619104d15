# Installation: headers under include/tovi/, both libraries, pkg-config files
# and a CMake package so that find_package(tovi) works for an application.
include(CMakePackageConfigHelpers)

install(TARGETS tovi vrlog EXPORT toviTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/tovi)
install(FILES ${TOVI_PUBLIC_HEADERS} ${PROJECT_SOURCE_DIR}/src/vrlog/vrlog.h
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/tovi)
install(EXPORT toviTargets NAMESPACE tovi:: DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/tovi)

configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/toviConfig.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/toviConfig.cmake
  INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/tovi)
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/toviConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/toviConfig.cmake
  ${CMAKE_CURRENT_BINARY_DIR}/toviConfigVersion.cmake
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/tovi)

# The pkg-config files locate the prefix from their own folder, so the
# installed tree can be moved.
file(RELATIVE_PATH TOVI_PC_TO_PREFIX /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
string(REGEX REPLACE "/$" "" TOVI_PC_TO_PREFIX "${TOVI_PC_TO_PREFIX}")
foreach(pc libtovi libvrlog)
  configure_file(${PROJECT_SOURCE_DIR}/cmake/${pc}.pc.in ${CMAKE_CURRENT_BINARY_DIR}/${pc}.pc @ONLY)
  install(FILES ${CMAKE_CURRENT_BINARY_DIR}/${pc}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endforeach()
