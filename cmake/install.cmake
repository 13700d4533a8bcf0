# Installed: the shared library, the public headers, the CMake package and the pkg-config file, and
# the examples as sources. Each component becomes a Debian package, see cmake/packages.cmake.
include(CMakePackageConfigHelpers)

set(korvane_cmake_dir ${CMAKE_INSTALL_LIBDIR}/cmake/korvane)

install(TARGETS korvane EXPORT korvane-targets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT dev
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT dev)
install(DIRECTORY include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/korvane COMPONENT dev
  FILES_MATCHING PATTERN "*.h")
install(EXPORT korvane-targets NAMESPACE korvane:: DESTINATION ${korvane_cmake_dir} COMPONENT dev)
install(DIRECTORY examples/ DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/libkorvane-dev/examples COMPONENT dev)

# Only who links the static library needs what it is made of.
set(korvane_find_dependencies)
if(korvane_kind STREQUAL STATIC)
  file(READ packaging/static-dependencies.cmake korvane_find_dependencies)
endif()
configure_package_config_file(packaging/korvane-config.cmake.in
  ${PROJECT_BINARY_DIR}/korvane-config.cmake INSTALL_DESTINATION ${korvane_cmake_dir})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/korvane-config-version.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/korvane-config.cmake
              ${PROJECT_BINARY_DIR}/korvane-config-version.cmake
  DESTINATION ${korvane_cmake_dir} COMPONENT dev)

file(RELATIVE_PATH korvane_pc_to_prefix
  /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
configure_file(packaging/korvane.pc.in ${PROJECT_BINARY_DIR}/korvane.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/korvane.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT dev)
