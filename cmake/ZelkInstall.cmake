# What `cmake --install` puts where. Component Runtime: what a running server needs; Development:
# what building one needs beside that.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(ZELK_PACKAGE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/zelk_common)
install(TARGETS zelk_common EXPORT zelk_common
  LIBRARY COMPONENT Runtime NAMELINK_COMPONENT Development
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(DIRECTORY ${PROJECT_SOURCE_DIR}/common/
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/zelk_common COMPONENT Development
  FILES_MATCHING PATTERN "*.h" PATTERN internal EXCLUDE)

install(EXPORT zelk_common NAMESPACE zelk:: FILE zelk_common-targets.cmake
  DESTINATION ${ZELK_PACKAGE_DIR} COMPONENT Development)
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/zelk_common-config.cmake.in
  zelk_common-config.cmake INSTALL_DESTINATION ${ZELK_PACKAGE_DIR})
write_basic_package_version_file(zelk_common-config-version.cmake
  VERSION ${PROJECT_VERSION} COMPATIBILITY SameMajorVersion)
install(FILES
  ${CMAKE_CURRENT_BINARY_DIR}/zelk_common-config.cmake
  ${CMAKE_CURRENT_BINARY_DIR}/zelk_common-config-version.cmake
  DESTINATION ${ZELK_PACKAGE_DIR} COMPONENT Development)

# Relative to itself, so that it is right below any prefix that `cmake --install` is given.
file(RELATIVE_PATH ZELK_PC_TO_PREFIX /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
string(REGEX REPLACE "/$" "" ZELK_PC_TO_PREFIX "${ZELK_PC_TO_PREFIX}")
configure_file(${PROJECT_SOURCE_DIR}/cmake/zelk_common.pc.in zelk_common.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/zelk_common.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT Development)
