// What the functions of mlnn_analysis.h have in common: watches that stop them, and the models that
// they look at. Internal: not installed.
#pragma once

#include <cstddef>
#include <memory>

#include "analysis/Difference.h"
#include "c/Calls.h"
#include "c/mlnn_analysis.h"
#include "features/Watch.h"
#include "model/ModelFile.h"

namespace mlnn {

// What the watch of a C program throws to stop the work.
struct Stopped {};

inline Watch watchOf(mlnn_watch_function watch, void* data) {
  if (watch == nullptr) return {};
  return [watch, data](std::size_t steps) {
    if (watch(steps, data) != 0) throw Stopped();
  };
}

// Runs what a function does, which its watch may stop, unless one of its pointers is missing.
template <typename Action>
mlnn_status watched(const char* function, bool hasAll, mlnn_watch_function watch, void* data,
                    Action action) noexcept {
  return guarded(function, [&] {
    if (!hasAll) return refuseNull(function);
    try {
      return action(watchOf(watch, data));
    } catch (const Stopped&) {
      return MLNN_STOPPED;
    }
  });
}

// The same with the model of a handle.
template <typename Action>
mlnn_status withFile(const char* function, mlnn_model handle, bool hasAll,
                     mlnn_watch_function watch, void* data, Action action) noexcept {
  return watched(function, hasAll, watch, data, [&](const Watch& watching) {
    std::shared_ptr<const ModelFile> file;
    const mlnn_status status = findModelFile(function, handle, file);
    return status == MLNN_OK ? action(*file, watching) : status;
  });
}

// The same with those of two.
template <typename Action>
mlnn_status withFiles(const char* function, mlnn_model model, mlnn_model other, bool hasAll,
                      mlnn_watch_function watch, void* data, Action action) noexcept {
  return withFile(function, model, hasAll, watch, data,
                  [&](const ModelFile& a, const Watch& watching) {
                    std::shared_ptr<const ModelFile> b;
                    const mlnn_status status = findModelFile(function, other, b);
                    return status == MLNN_OK ? action(a, *b, watching) : status;
                  });
}

inline mlnn_difference told(const Difference& difference) {
  const Difference::Place place = difference.placeOfLargest();
  return {difference.count(),
          difference.differing(),
          difference.largest(),
          difference.mean(),
          difference.rootMeanSquare(),
          difference.cosine(),
          static_cast<std::size_t>(place.row),
          static_cast<std::size_t>(place.col),
          difference.largestUlps()};
}

}  // namespace mlnn
