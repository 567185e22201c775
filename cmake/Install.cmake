# What is installed: the programs, and the libraries as a package for applications that are built
# outside of this tree,
#
#     cmake --install build/release --component development --prefix PREFIX
#
# which an installation without a component leaves out.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

install(TARGETS mirelclient mirelserver mirelpack RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
        COMPONENT programs)
install(FILES packaging/mirelclient.service packaging/nginx-registry.conf
        DESTINATION ${CMAKE_INSTALL_DATADIR}/mirelclient COMPONENT programs)

# All that is not the daemon's own or a companion's, lowest floor first. A user knows them without
# the prefix: tessaron::app, tessaron::crcFast.
set(libraries
    tessaron_vocabulary
    tessaron_threads
    tessaron_utilities
    crcSoft
    crcFast
    zlibCompression
    chacha20
    interface_socket
    interface_framing
    interface_multicast
    interface_tcp
    tessaron_proto
    tessaron_proto_bus
    tessaron_bus
    tessaron_database
    tessaron_sqlite_server
    tessaron_logger
    tessaron_logger_bus
    tessaron_app)
set(headers ${CMAKE_INSTALL_INCLUDEDIR}/tessaron)
set(package ${CMAKE_INSTALL_LIBDIR}/cmake/tessaron)
set(only_development COMPONENT development EXCLUDE_FROM_ALL)

# What has to be looked for by others' names before a library can be linked.
function(packages_behind library result)
  set(packages "")
  get_target_property(items ${library} LINK_LIBRARIES)
  foreach(item IN LISTS items)
    if(item IN_LIST libraries)
      packages_behind(${item} more)
      list(APPEND packages ${more})
    elseif(item STREQUAL "PkgConfig::libisal")
      list(APPEND packages ${item})
    elseif(item MATCHES "^(Threads|ZLIB|CLI11|nlohmann_json)::")
      list(APPEND packages ${CMAKE_MATCH_1})
    elseif(item STREQUAL "SQLite::SQLite3")
      list(APPEND packages SQLite3)
    elseif(item)
      message(FATAL_ERROR "${library}: cmake/Install.cmake does not know how users find ${item}")
    endif()
  endforeach()
  list(REMOVE_DUPLICATES packages)
  set(${result} ${packages} PARENT_SCOPE)
endfunction()

set(MIREL_COMPONENTS "")
set(MIREL_COMPONENT_PACKAGES "")
foreach(library IN LISTS libraries)
  string(REGEX REPLACE "^tessaron_" "" name ${library})
  set_target_properties(${library} PROPERTIES EXPORT_NAME ${name})
  list(APPEND MIREL_COMPONENTS ${name})
  packages_behind(${library} packages)
  list(JOIN packages " " packages)
  string(APPEND MIREL_COMPONENT_PACKAGES "set(tessaron_packages_of_${name} ${packages})\n")

  get_target_property(folder ${library} SOURCE_DIR)
  file(RELATIVE_PATH place ${PROJECT_SOURCE_DIR} ${folder})
  install(DIRECTORY ${folder}/ DESTINATION ${headers}/${place} ${only_development}
          FILES_MATCHING PATTERN "*.hpp")
endforeach()
list(JOIN MIREL_COMPONENTS " " MIREL_COMPONENTS)
install(FILES ${PROJECT_BINARY_DIR}/generated/app/bus_fields.hpp
        DESTINATION ${headers}/generated/app ${only_development})

install(TARGETS ${libraries} EXPORT tessaron ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}/tessaron
        ${only_development} INCLUDES DESTINATION ${headers})
install(EXPORT tessaron NAMESPACE tessaron:: FILE tessaronTargets.cmake DESTINATION ${package}
        ${only_development})
configure_package_config_file(cmake/tessaronConfig.cmake.in tessaronConfig.cmake
                              INSTALL_DESTINATION ${package})
write_basic_package_version_file(tessaronConfigVersion.cmake COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/tessaronConfig.cmake
              ${PROJECT_BINARY_DIR}/tessaronConfigVersion.cmake cmake/TessaronApplication.cmake
              cmake/build_info.cpp.in
        DESTINATION ${package} ${only_development})

# All that the package consists of; nothing else has to be built for it.
add_custom_target(development DEPENDS ${libraries})
