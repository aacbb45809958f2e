# Highway's headers, which lie beside those of this machine: for another system they get a folder of
# their own, so that its compiler finds its own headers.
find_path(MLNN_HIGHWAY_INCLUDE_DIR hwy/foreach_target.h REQUIRED)  # headers only: vectors in the kernels
if(NOT CMAKE_SYSTEM_NAME STREQUAL CMAKE_HOST_SYSTEM_NAME)
  file(MAKE_DIRECTORY ${PROJECT_BINARY_DIR}/highway)
  file(CREATE_LINK ${MLNN_HIGHWAY_INCLUDE_DIR}/hwy ${PROJECT_BINARY_DIR}/highway/hwy SYMBOLIC)
  set(MLNN_HIGHWAY_INCLUDE_DIR ${PROJECT_BINARY_DIR}/highway)
endif()
