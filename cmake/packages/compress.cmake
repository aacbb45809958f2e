# CPack runs this on the folder of what goes into the packages.
file(GLOB_RECURSE pages "${CPACK_TEMPORARY_DIRECTORY}/mlnn*.1")
list(FILTER pages INCLUDE REGEX "/man/man1/")
foreach(page IN LISTS pages)
  execute_process(COMMAND gzip -9nf ${page} COMMAND_ERROR_IS_FATAL ANY)
endforeach()
