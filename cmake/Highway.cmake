# Libraries that are headers alone, Highway's first, lie beside the headers of this machine: for another
# system they get a folder of their own, so that its compiler finds its own headers.
find_path(MLNN_HIGHWAY_INCLUDE_DIR hwy/foreach_target.h REQUIRED)  # headers only: vectors in the kernels
if(NOT CMAKE_SYSTEM_NAME STREQUAL CMAKE_HOST_SYSTEM_NAME)
  set(found_in ${MLNN_HIGHWAY_INCLUDE_DIR})
  set(MLNN_HIGHWAY_INCLUDE_DIR ${PROJECT_BINARY_DIR}/highway)
  file(MAKE_DIRECTORY ${MLNN_HIGHWAY_INCLUDE_DIR})
  foreach(header hwy CLI nlohmann xxhash.h)
    if(EXISTS ${found_in}/${header})
      file(CREATE_LINK ${found_in}/${header} ${MLNN_HIGHWAY_INCLUDE_DIR}/${header} SYMBOLIC)
    endif()
  endforeach()
  set(MLNN_XXHASH_INCLUDE_DIR ${MLNN_HIGHWAY_INCLUDE_DIR})
  # What names the folder with all the headers means these.
  list(APPEND CMAKE_CXX_IMPLICIT_INCLUDE_DIRECTORIES ${found_in})
  include_directories(SYSTEM ${MLNN_HIGHWAY_INCLUDE_DIR})
endif()
