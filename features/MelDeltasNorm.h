// MelDeltasNorm — the normalisation parameters of mel delta features: a frame x
// is normalised as (x - minvals) * normvals, value by value.
#pragma once

#include <Eigen/Core>

#include "features/EigenBorder.h"
#include "features/Export.h"

// A value type: every object owns its two arrays, a copy gets arrays of its own.
class MLNN_EXPORT MelDeltasNorm {
 public:
  static constexpr Eigen::Index kLength = 120;  // 40 mel bands, their deltas and delta-deltas

  Eigen::VectorXf minvals;   // what is subtracted; empty, or kLength values
  Eigen::VectorXf normvals;  // what the difference is multiplied by; empty, or kLength values

  // Both arrays start empty, which means no normalisation.
  MelDeltasNorm();
  MelDeltasNorm(const MelDeltasNorm& other);
  MelDeltasNorm(MelDeltasNorm&& other) noexcept;
  MelDeltasNorm& operator=(const MelDeltasNorm& other);
  MelDeltasNorm& operator=(MelDeltasNorm&& other) noexcept;
  ~MelDeltasNorm();

  // Makes both arrays kLength long. An array of that length keeps its values; any
  // other becomes zeros (minvals) or ones (normvals), which normalise nothing.
  // On std::bad_alloc each array is either as it was or finished.
  void allocIfNeeded();
};
