// ActivationError — how far an activation of the library lies from its true value.
#pragma once

#include <cstdint>

#include "inference/kernels/Kernels.h"

namespace mlnn::test {

struct ActivationError {
  double units = 0;            // the largest error, in units in the last place
  float at = 0;                // where it is
  uint64_t disagreements = 0;  // values whose bits differ from those of `activated`
  uint64_t lostNaNs = 0;       // NaN that became a number, or numbers that became NaN
};

// Looks at every `stride`th of all 2^32 floats, beginning with the one of the bits `first`.
ActivationError worstError(const Kernels& kernels, ActFn::ActFn fn, uint64_t first,
                           uint64_t stride);

}  // namespace mlnn::test
