# What comes from npm lives in the build folder, in the versions and with the digests of a lock file.
find_program(NODE_EXECUTABLE node REQUIRED)
find_program(NPM_EXECUTABLE npm REQUIRED)

# mirel_npm_install(source): installs the packages of that folder's lock file into the folder
# "npm" beside its build files, and sets NPM_FOLDER to that and NPM_STAMP to what to depend on.
function(mirel_npm_install source)
  set(folder ${CMAKE_CURRENT_BINARY_DIR}/npm)
  set(stamp ${CMAKE_CURRENT_BINARY_DIR}/npm.stamp)
  add_custom_command(
    OUTPUT ${stamp}
    COMMAND ${CMAKE_COMMAND} -DNPM=${NPM_EXECUTABLE} -DSOURCE=${source}
            -DFOLDER=${folder} -P ${PROJECT_SOURCE_DIR}/cmake/NpmInstall.cmake
    COMMAND ${CMAKE_COMMAND} -E touch ${stamp}
    DEPENDS ${source}/package.json ${source}/package-lock.json ${source}/.npmrc
            ${PROJECT_SOURCE_DIR}/cmake/NpmInstall.cmake
    COMMENT "Installing the npm packages of ${source}"
    VERBATIM)
  set(NPM_FOLDER ${folder} PARENT_SCOPE)
  set(NPM_STAMP ${stamp} PARENT_SCOPE)
endfunction()
