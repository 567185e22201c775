# One interface target holds every warning; one function makes a library of a folder.
add_library(tessaron_flags INTERFACE)
target_compile_features(tessaron_flags INTERFACE cxx_std_20)
target_compile_options(
  tessaron_flags
  INTERFACE -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wnon-virtual-dtor -Woverloaded-virtual
            $<$<CXX_COMPILER_ID:Clang>:-Wno-sign-conversion -Wthread-safety>)

# tessaron_library(name SOURCES a.cpp ... [PUBLIC targets] [PRIVATE targets])
#
# What holds for this tree alone (where it lies, its warnings) is not told to users of the installed
# package; see Install.cmake.
function(tessaron_library name)
  cmake_parse_arguments(arg "" "" "SOURCES;PUBLIC;PRIVATE" ${ARGN})
  add_library(${name} STATIC ${arg_SOURCES})
  target_compile_features(${name} PUBLIC cxx_std_20)
  target_include_directories(${name} PUBLIC $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}>)
  target_compile_options(${name}
                         PRIVATE $<TARGET_PROPERTY:tessaron_flags,INTERFACE_COMPILE_OPTIONS>)
  target_link_libraries(${name} PUBLIC ${arg_PUBLIC} PRIVATE ${arg_PRIVATE})
endfunction()

# tessaron_program(name SOURCES a.cpp ... [PRIVATE targets])
function(tessaron_program name)
  cmake_parse_arguments(arg "" "" "SOURCES;PRIVATE" ${ARGN})
  add_executable(${name} ${arg_SOURCES})
  target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR})
  target_link_libraries(${name} PRIVATE tessaron_flags ${arg_PRIVATE})
endfunction()

# tessaron_unit_test(name SOURCES a_test.cpp ... PRIVATE library-under-test ...)
function(tessaron_unit_test name)
  cmake_parse_arguments(arg "" "" "SOURCES;PRIVATE" ${ARGN})
  tessaron_program(${name} SOURCES ${arg_SOURCES} PRIVATE ${arg_PRIVATE} GTest::gtest
                   GTest::gmock GTest::gtest_main)
  gtest_discover_tests(${name} DISCOVERY_MODE PRE_TEST PROPERTIES TIMEOUT 120)
endfunction()

# tessaron_fuzzer(name SOURCES a_fuzz.cpp PRIVATE library-under-test ...)
function(tessaron_fuzzer name)
  cmake_parse_arguments(arg "" "" "SOURCES;PRIVATE" ${ARGN})
  tessaron_program(${name} SOURCES ${arg_SOURCES} PRIVATE ${arg_PRIVATE})
  target_link_options(${name} PRIVATE -fsanitize=fuzzer)
endfunction()
