// How wide the frames are that a model's inputs are made of.
#pragma once

#include <cstdint>

#include "features/DbnFeatureDescription.h"

namespace mlnn {

// The frames in the window that the description asks for.
inline int64_t windowLength(const DbnFeatureDescription& desc) {
  return int64_t{desc.winSizeLeft} + 1 + desc.winSizeRight;
}

// Whether frames of `width` values make input vectors of `numInputs` in the description's window.
bool framesMakeInputs(const DbnFeatureDescription& desc, int width, int numInputs);

// Returns the width of a single frame that the description states. Where that states no bands: the
// 120 values of the normalisation, if they times the window give the model's inputs. 0 where
// neither tells.
int frameWidth(const DbnFeatureDescription& desc, int numInputs);

}  // namespace mlnn
