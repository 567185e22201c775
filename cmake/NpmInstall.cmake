# Runs "npm ci" for SOURCE's lock file in FOLDER. A folder that holds just that already is left
# alone, so that a build without a network goes on after a checkout has touched the files.
set(wanted "")
foreach(name package.json package-lock.json .npmrc)
  file(SHA256 ${SOURCE}/${name} digest)
  string(APPEND wanted "${digest}\n")
endforeach()

set(have "")
if(EXISTS ${FOLDER}/installed)
  file(READ ${FOLDER}/installed have)
endif()
if(have STREQUAL wanted)
  return()
endif()

file(REMOVE ${FOLDER}/installed)
file(COPY ${SOURCE}/package.json ${SOURCE}/package-lock.json ${SOURCE}/.npmrc DESTINATION ${FOLDER})
execute_process(
  COMMAND ${NPM} ci --prefer-offline --ignore-scripts --no-audit --no-fund --loglevel=error
  WORKING_DIRECTORY ${FOLDER}
  COMMAND_ERROR_IS_FATAL ANY)
file(WRITE ${FOLDER}/installed "${wanted}")
