# install(): the shared object with its soname links, the headers, a
# pkg-config file and a CMake package (find_package(kelo_util)).
include(CMakePackageConfigHelpers)

install(TARGETS kelo_util EXPORT kelo_util_targets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/kelo DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})

install(EXPORT kelo_util_targets
  NAMESPACE kelo_util::
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/kelo_util)
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/kelo_utilConfig.cmake.in
  ${PROJECT_BINARY_DIR}/kelo_utilConfig.cmake
  INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/kelo_util)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/kelo_utilConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/kelo_utilConfig.cmake ${PROJECT_BINARY_DIR}/kelo_utilConfigVersion.cmake
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/kelo_util)

configure_file(${PROJECT_SOURCE_DIR}/cmake/kelo_util.pc.in ${PROJECT_BINARY_DIR}/kelo_util.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/kelo_util.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
