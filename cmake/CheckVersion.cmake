# The version stands in project(). The header that tells it to programs must say the same.
set(version_header ${PROJECT_SOURCE_DIR}/features/Version.h)
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${version_header})
foreach(part MAJOR MINOR PATCH)
  file(STRINGS ${version_header} line REGEX "^#define MLNN_VERSION_${part} ")
  if(NOT line STREQUAL "#define MLNN_VERSION_${part} ${PROJECT_VERSION_${part}}")
    message(FATAL_ERROR "features/Version.h: expected MLNN_VERSION_${part} to be "
      "${PROJECT_VERSION_${part}}, as in project(), but found: ${line}")
  endif()
endforeach()
