# What differs between systems: the headers of os/ say what there is, and the folder of a system how
# it is done there. Everything but Windows is taken for POSIX; what only Linux has, others do without.
if(WIN32)
  set(MLNN_OS os/windows)
else()
  set(MLNN_OS os/posix)
endif()
if(CMAKE_SYSTEM_NAME STREQUAL "Linux")
  set(os_special os/linux)
else()
  set(os_special os/anywhere)
endif()

set(os_sources
  ${os_special}/FirstThread.cpp
  ${os_special}/FreshMemory.cpp
  ${os_special}/ThreadPlace.cpp
  ${MLNN_OS}/FileMapping.cpp
  ${MLNN_OS}/Forks.cpp
  ${MLNN_OS}/Process.cpp
  ${MLNN_OS}/ProcessLock.cpp
  ${MLNN_OS}/ProcessorCaches.cpp
  ${MLNN_OS}/StreamOpening.cpp)
if(WIN32)
  list(APPEND os_sources os/windows/Errors.cpp os/windows/Names.cpp os/windows/WideText.cpp)
endif()
target_sources(mlnn PRIVATE ${os_sources})
# 32-bit systems tell of files with large inode numbers, lengths or dates only so.
set_source_files_properties(${os_sources}
  PROPERTIES COMPILE_DEFINITIONS "_FILE_OFFSET_BITS=64;_TIME_BITS=64" SKIP_PRECOMPILE_HEADERS ON)

# What the library does without, but programs of the command line need.
set(MLNN_OS_OF_PROGRAMS Console Descriptors EndingSignals LackOfBytes Memory Program Replacing)
if(NOT WIN32)
  list(APPEND MLNN_OS_OF_PROGRAMS Names)
endif()
list(TRANSFORM MLNN_OS_OF_PROGRAMS PREPEND ${PROJECT_SOURCE_DIR}/${MLNN_OS}/)
list(TRANSFORM MLNN_OS_OF_PROGRAMS APPEND .cpp)
