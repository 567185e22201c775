# Static libraries can be circular without the linker noticing, so the build compares every
# #include with the table of allowed arrows and stops at the first that is not in it.
find_package(Python3 REQUIRED COMPONENTS Interpreter)
add_custom_target(
  check_layers ALL
  COMMAND ${Python3_EXECUTABLE} ${PROJECT_SOURCE_DIR}/scripts/check-layers
  WORKING_DIRECTORY ${PROJECT_SOURCE_DIR}
  COMMENT "Comparing includes with scripts/layers.txt")
