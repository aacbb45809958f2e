// What the functions of the C interfaces have in common: refusals, and models behind handles.
// Internal: not installed. The library shows these to that of the analyses, so that both have one
// table of handles, and one place for messages.
#pragma once

#include <algorithm>
#include <cstddef>
#include <exception>
#include <limits>
#include <memory>
#include <new>

#include "c/mlnn.h"
#include "features/Export.h"
#include "inference/FwdPass.h"
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

// Makes a pass over the model of a handle, which it keeps. Whether it can be run, the pass tells.
// Returns: MLNN_OK, or why `function` refuses, after an error line: also where there are layers but
// no outputs, of which inputs may take more memory than the model's file.
MLNN_EXPORT mlnn_status makePass(const char* function, mlnn_model handle,
                                 std::shared_ptr<FwdPass>& pass);

// Gives a model its handle.
// Throws: std::bad_alloc; then there is none.
MLNN_EXPORT mlnn_model handleOf(ModelFile file);

// Whether so many frames of a stride can lie in memory.
inline bool fitsMemory(std::size_t frames, std::size_t stride) {
  constexpr auto kMost = static_cast<std::size_t>(std::numeric_limits<std::ptrdiff_t>::max());
  return frames <= kMost / sizeof(float) / std::max<std::size_t>(stride, 1);
}

inline mlnn_status refuseTooMany(const char* function) noexcept {
  return refuse(MLNN_ERROR_SIZE, function, "more frames than memory can hold");
}

inline mlnn_status refuseStride(const char* function) noexcept {
  return refuse(MLNN_ERROR_SIZE, function, "a stride is less than a width");
}

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
