# install(): the shared object with its soname links, the headers, a
# pkg-config file, a CMake package (find_package(kelo_util)), the armhf
# toolchain file and the manual pages; tools/ installs the tools.
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

# The .pc file finds its prefix from where it lies, so an install with
# "cmake --install --prefix <dir>" (or a staged copy) is usable as it is.
# A distribution package turns that off (KELO_PC_RELOCATABLE=OFF): its .pc
# file then names the prefix it is installed to, so the flags come out as
# -I/usr/include and -L/usr/lib/<triplet>, which pkg-config leaves out as the
# system's own, instead of paths through "../../..".
option(KELO_PC_RELOCATABLE "kelo_util.pc finds its prefix relative to where it lies" ON)
if(IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}")
  set(KELO_PC_PREFIX "${CMAKE_INSTALL_PREFIX}")
  file(RELATIVE_PATH KELO_PC_LIBDIR "${CMAKE_INSTALL_PREFIX}" "${CMAKE_INSTALL_LIBDIR}")
  configure_file(${PROJECT_SOURCE_DIR}/cmake/kelo_util.pc.in ${PROJECT_BINARY_DIR}/kelo_util.pc @ONLY)
elseif(KELO_PC_RELOCATABLE)
  file(RELATIVE_PATH KELO_PC_UP "/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/")
  string(REGEX REPLACE "/$" "" KELO_PC_UP "${KELO_PC_UP}")
  set(KELO_PC_PREFIX "\${pcfiledir}/${KELO_PC_UP}")
  set(KELO_PC_LIBDIR "${CMAKE_INSTALL_LIBDIR}")
  configure_file(${PROJECT_SOURCE_DIR}/cmake/kelo_util.pc.in ${PROJECT_BINARY_DIR}/kelo_util.pc @ONLY)
else()
  # The prefix is filled in at install time: "cmake --install --prefix" may
  # name another one than the configured CMAKE_INSTALL_PREFIX.
  set(KELO_PC_PREFIX "@KELO_PC_PREFIX@")
  set(KELO_PC_LIBDIR "${CMAKE_INSTALL_LIBDIR}")
  configure_file(${PROJECT_SOURCE_DIR}/cmake/kelo_util.pc.in ${PROJECT_BINARY_DIR}/kelo_util.pc.in @ONLY)
  install(CODE "set(KELO_PC_PREFIX \"\${CMAKE_INSTALL_PREFIX}\")
    configure_file(\"${PROJECT_BINARY_DIR}/kelo_util.pc.in\" \"${PROJECT_BINARY_DIR}/kelo_util.pc\" @ONLY)")
endif()
install(FILES ${PROJECT_BINARY_DIR}/kelo_util.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

# The armhf toolchain file, for services cross-built against an install.
install(FILES ${PROJECT_SOURCE_DIR}/cmake/toolchains/armhf.cmake
  DESTINATION ${CMAKE_INSTALL_DATADIR}/kelo_util/toolchains)

# Strips an installed binary (KELO_STRIP_INSTALL, the release preset); its
# debug info goes to .debug/<name>.debug beside it, where gdb looks through
# the debug link.
function(kelo_install_strip target destination)
  if(NOT KELO_STRIP_INSTALL)
    return()
  endif()
  set(name "$<TARGET_FILE_NAME:${target}>")
  install(CODE "
    set(dir \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${destination}\")
    if(IS_ABSOLUTE \"${destination}\")
      set(dir \"\$ENV{DESTDIR}${destination}\")
    endif()
    file(MAKE_DIRECTORY \"\${dir}/.debug\")
    execute_process(COMMAND \"${CMAKE_OBJCOPY}\" --only-keep-debug \"\${dir}/${name}\" \"\${dir}/.debug/${name}.debug\"
                    COMMAND_ERROR_IS_FATAL ANY)
    execute_process(COMMAND \"${CMAKE_STRIP}\" --strip-unneeded \"\${dir}/${name}\" COMMAND_ERROR_IS_FATAL ANY)
    execute_process(COMMAND \"${CMAKE_OBJCOPY}\" \"--add-gnu-debuglink=\${dir}/.debug/${name}.debug\" \"\${dir}/${name}\"
                    COMMAND_ERROR_IS_FATAL ANY)
    message(STATUS \"Stripped: \${dir}/${name} (debug info in .debug/)\")")
endfunction()
kelo_install_strip(kelo_util ${CMAKE_INSTALL_LIBDIR})

include(${PROJECT_SOURCE_DIR}/cmake/KeloMan.cmake)
