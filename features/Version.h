/* Version — which release of the library this is. In C too, where it is the macros alone. */
#pragma once

/* Of the headers that a program is compiled with. They say what the project's version in
   CMakeLists.txt says; CMake stops where they do not. */
/** The first number. */
#define MLNN_VERSION_MAJOR 0
/** The second number. */
#define MLNN_VERSION_MINOR 2
/** The third number. */
#define MLNN_VERSION_PATCH 0

/** \cond */
#define MLNN_VERSION_JOINED_(major, minor, patch) #major "." #minor "." #patch
#define MLNN_VERSION_JOINED(major, minor, patch) MLNN_VERSION_JOINED_(major, minor, patch)
/** \endcond */
/** All three, joined by points. */
#define MLNN_VERSION_STRING \
  MLNN_VERSION_JOINED(MLNN_VERSION_MAJOR, MLNN_VERSION_MINOR, MLNN_VERSION_PATCH)

#ifdef __cplusplus
#include "features/Export.h"

namespace mlnn {

// Returns the version of the library that runs, like "0.2.0"; a shared one may be another than the
// headers were of.
MLNN_EXPORT const char* version();

}  // namespace mlnn
#endif
