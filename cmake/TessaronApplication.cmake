# tessaron_application(target [VERSION 1.2.3])
#
# For a program on the application frame: links it with tessaron::app, has it say of itself which
# build it is, and exports its functions, so that a crash record names them. The version is that of
# the project unless another is given; the commit is that of the folder that calls this, "unknown"
# where that is no checkout. All of it is fixed when the build is configured.
#
# This tree and the installed package use this same file.
function(tessaron_application target)
  cmake_parse_arguments(arg "" "VERSION" "" ${ARGN})
  set(version ${arg_VERSION})
  if(NOT version)
    set(version ${PROJECT_VERSION})
  endif()
  if(NOT version MATCHES "^[0-9]+\\.[0-9]+\\.[0-9]+")
    message(FATAL_ERROR "tessaron_application(${target}): no version like 1.2.3: '${version}'")
  endif()

  # In a crash record the values stand in "key=value" words: no blanks, but for the compiler's.
  string(TIMESTAMP timestamp "%Y%m%d.%H%M%S" UTC)
  cmake_host_system_information(RESULT machine QUERY HOSTNAME)
  execute_process(COMMAND id -un OUTPUT_VARIABLE user OUTPUT_STRIP_TRAILING_WHITESPACE)
  execute_process(
    COMMAND git -C ${CMAKE_CURRENT_SOURCE_DIR} rev-parse --short=12 HEAD
    OUTPUT_VARIABLE commit OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
  if(NOT commit)
    set(commit unknown)
  endif()
  set(type ${CMAKE_BUILD_TYPE})
  set(compiler "${CMAKE_CXX_COMPILER_ID} ${CMAKE_CXX_COMPILER_VERSION}")

  set(stamp ${CMAKE_CURRENT_BINARY_DIR}/${target}_build_info.cpp)
  configure_file(${CMAKE_CURRENT_FUNCTION_LIST_DIR}/build_info.cpp.in ${stamp} @ONLY)
  target_sources(${target} PRIVATE ${stamp})
  target_link_libraries(${target} PRIVATE tessaron::app)
  target_link_options(${target} PRIVATE -rdynamic)
endfunction()
