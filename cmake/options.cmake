# Flags that every target of the project is compiled with.
add_library(korvane_options INTERFACE)
target_compile_options(korvane_options INTERFACE
  -Wall -Wextra -Wpedantic -Wconversion -Wshadow $<$<COMPILE_LANGUAGE:CXX>:-Wzero-as-null-pointer-constant>
  # What src/util/guarded.h tells of mutexes; only clang knows it.
  $<$<COMPILE_LANG_AND_ID:CXX,Clang,AppleClang>:-Wthread-safety>
  # The solvers give the same digits on every machine only if no multiply and add are fused.
  -ffp-contract=off
  # No path of this machine in what is given away; a debugger needs them.
  $<$<NOT:$<CONFIG:Debug>>:-ffile-prefix-map=${PROJECT_SOURCE_DIR}/=>
  $<$<BOOL:${KORVANE_WERROR}>:-Werror>)
# The folder that a compiler runs in stands in debug information, too. Inside the sources it is mapped with them.
cmake_path(IS_PREFIX PROJECT_SOURCE_DIR "${PROJECT_BINARY_DIR}" NORMALIZE korvane_builds_in_sources)
if(NOT korvane_builds_in_sources)
  target_compile_options(korvane_options INTERFACE $<$<NOT:$<CONFIG:Debug>>:-ffile-prefix-map=${PROJECT_BINARY_DIR}=.>)
endif()

# Where CMAKE_UNITY_BUILD is on, the files of one folder are compiled as one: most of what a compiler reads is headers.
function(korvane_unite_folders target)
  get_target_property(files ${target} SOURCES)
  foreach(file ${files})
    get_filename_component(folder "${file}" DIRECTORY)
    string(REPLACE "/" "_" folder "${folder}")
    set_source_files_properties("${file}" PROPERTIES UNITY_GROUP "${folder}")
  endforeach()
  set_target_properties(${target} PROPERTIES UNITY_BUILD_MODE GROUP)
endfunction()

if(KORVANE_SANITIZE)
  add_compile_options(-fsanitize=${KORVANE_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all -g1)
  add_link_options(-fsanitize=${KORVANE_SANITIZE})
endif()
