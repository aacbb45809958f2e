// What the functions of the C interfaces have in common: refusals, and models behind handles.
// Internal: not installed. The library shows these to that of the analyses, so that both have one
// table of handles, and one place for messages.
#pragma once

#include <exception>
#include <memory>
#include <new>

#include "c/mlnn.h"
#include "features/Export.h"
#include "model/ModelFile.h"

namespace mlnn {

// Says why `function` refuses, and returns the status.
MLNN_EXPORT mlnn_status refuse(mlnn_status status, const char* function, const char* why) noexcept;

inline mlnn_status refuseNull(const char* function) noexcept {
  return refuse(MLNN_ERROR_ARGUMENT, function, "a pointer is null");
}

// Whether the name is one of an activation, or null; else after an error line.
MLNN_EXPORT bool isActivation(const char* function, const char* name);

// Gives the file that the model of a handle was read from.
// Returns: MLNN_OK, or why `function` refuses, after an error line.
MLNN_EXPORT mlnn_status findModelFile(const char* function, mlnn_model handle,
                                      std::shared_ptr<const ModelFile>& file);

// Runs what a function does, and lets nothing out that it throws.
template <typename Action>
mlnn_status guarded(const char* function, Action action) noexcept {
  try {
    return action();
  } catch (const std::bad_alloc&) {
    return refuse(MLNN_ERROR_MEMORY, function, "out of memory");
  } catch (const std::exception& error) {
    return refuse(MLNN_ERROR_INTERNAL, function, error.what());
  } catch (...) {
    return refuse(MLNN_ERROR_INTERNAL, function, "unknown error");
  }
}

}  // namespace mlnn
