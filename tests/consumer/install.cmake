# Installs the build in BUILD_DIR into the empty folder STAGE, then moves it to PREFIX.
file(REMOVE_RECURSE ${STAGE} ${PREFIX})
execute_process(
  COMMAND ${CMAKE_COMMAND} --install ${BUILD_DIR} --config ${CONFIG} --prefix ${STAGE}
  COMMAND_ERROR_IS_FATAL ANY)
file(RENAME ${STAGE} ${PREFIX})
