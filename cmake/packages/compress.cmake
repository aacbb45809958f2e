# CPack runs this on the folder of what goes into the packages: it compresses the pages, and gives every
# file the time of the release, where scripts/make-packages says which it is.
file(GLOB_RECURSE pages "${CPACK_TEMPORARY_DIRECTORY}/mlnn*.1")
list(FILTER pages INCLUDE REGEX "/man/man1/")
foreach(page IN LISTS pages)
  execute_process(COMMAND gzip -9nf ${page} COMMAND_ERROR_IS_FATAL ANY)
endforeach()
if(DEFINED ENV{SOURCE_DATE_EPOCH})
  execute_process(
    COMMAND find ${CPACK_TEMPORARY_DIRECTORY} -exec touch -h -d @$ENV{SOURCE_DATE_EPOCH} {} +
    COMMAND_ERROR_IS_FATAL ANY)
endif()
