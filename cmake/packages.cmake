# Debian packages, one a component: `cpack` in a build folder that was configured with the prefix
# /usr, as scripts/package does.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME korvane)
set(CPACK_PACKAGE_CONTACT "Korvane developers <developers@korvane.invalid>")
set(CPACK_STRIP_FILES ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY "=")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA "${PROJECT_SOURCE_DIR}/packaging/triggers")
set(CPACK_DEBIAN_SIM_PACKAGE_CONTROL_EXTRA "${PROJECT_SOURCE_DIR}/packaging/triggers")
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS "${PROJECT_BINARY_DIR}")
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
  OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)

# korvane_package(COMPONENT NAME SECTION DESCRIPTION DEPENDS): the summary is that of the project.
set(korvane_components)
macro(korvane_package component name section description depends)
  string(TOUPPER ${component} upper)
  list(APPEND korvane_components ${component})
  set(CPACK_DEBIAN_${upper}_PACKAGE_NAME ${name})
  set(CPACK_DEBIAN_${upper}_PACKAGE_SECTION ${section})
  set(CPACK_DEBIAN_${upper}_DESCRIPTION "${description}")
  set(CPACK_DEBIAN_${upper}_PACKAGE_DEPENDS "${depends}")
  foreach(file copyright changelog.gz changelog.Debian.gz)
    install(FILES "${PROJECT_BINARY_DIR}/packaging/${file}"
      DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${name} COMPONENT ${component})
  endforeach()
  if(EXISTS "${PROJECT_SOURCE_DIR}/packaging/${name}.lintian-overrides")
    install(FILES "${PROJECT_SOURCE_DIR}/packaging/${name}.lintian-overrides"
      DESTINATION ${CMAKE_INSTALL_DATADIR}/lintian/overrides RENAME ${name} COMPONENT ${component})
  endif()
endmacro()

# What each package has beside its own: the license and what changed.
configure_file(packaging/copyright "${PROJECT_BINARY_DIR}/packaging/copyright" COPYONLY)
find_program(KORVANE_GZIP gzip REQUIRED)
foreach(pair "CHANGELOG.md=changelog.gz" "packaging/changelog.Debian=changelog.Debian.gz")
  string(REPLACE "=" ";" pair "${pair}")
  list(GET pair 0 from)
  list(GET pair 1 to)
  execute_process(COMMAND ${KORVANE_GZIP} -9nc "${PROJECT_SOURCE_DIR}/${from}"
    OUTPUT_FILE "${PROJECT_BINARY_DIR}/packaging/${to}" COMMAND_ERROR_IS_FATAL ANY)
endforeach()

set(korvane_same "libkorvane${PROJECT_VERSION_MAJOR} (= ${PROJECT_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE})")
korvane_package(runtime libkorvane${PROJECT_VERSION_MAJOR} libs
  "This package has the shared library." "")
korvane_package(dev libkorvane-dev libdevel
  "This package has the headers, what CMake and pkg-config look for, and
examples." "${korvane_same}")
if(KORVANE_BUILD_TOOLS AND KORVANE_BUILD_SIM)
  korvane_package(tools korvane-tools utils
    "This package has korvane, which finds, shows, moves, updates and measures
hands, and korvane-sim, which serves simulated ones." "${korvane_same}")
  korvane_package(sim libkorvane-sim-dev libdevel
    "This package has the library by which a program's own tests have simulated
hands and adapters inside." "libkorvane-dev")
endif()
if(korvane_has_ros2)
  korvane_package(ros2 korvane-ros2 utils
    "This package has korvane-ros2, which makes hands nodes of ROS 2 over DDS,
without ROS itself." "${korvane_same}")
endif()
if(KORVANE_BUILD_PYTHON)
  korvane_package(python python3-korvane python
    "This package has the Python package korvane: hands with exceptions and
arrays, streams and recordings." "${korvane_same}, python3-numpy")
  # A module in C++ is for the minor version that it was built with.
  math(EXPR korvane_next_python "${korvane_python_minor} + 1")
  string(APPEND CPACK_DEBIAN_PYTHON_PACKAGE_DEPENDS
    ", python3 (>= 3.${korvane_python_minor}~), python3 (<< 3.${korvane_next_python})")
  # Which compile the modules, and take away what was compiled.
  set(CPACK_DEBIAN_PYTHON_PACKAGE_CONTROL_EXTRA
    "${PROJECT_SOURCE_DIR}/packaging/python/postinst" "${PROJECT_SOURCE_DIR}/packaging/python/prerm")
  set(CPACK_DEBIAN_PYTHON_PACKAGE_SUGGESTS "korvane-tools")
endif()
set(CPACK_COMPONENTS_ALL ${korvane_components})
include(CPack)
