#include "features/FrameWidth.h"

#include "features/MelDeltasNorm.h"

namespace mlnn {

bool framesMakeInputs(const DbnFeatureDescription& desc, int width, int numInputs) {
  const bool possible = width > 0 && desc.winSizeLeft >= 0 && desc.winSizeRight >= 0;
  return possible && width * windowLength(desc) == numInputs;
}

int frameWidth(const DbnFeatureDescription& desc, int numInputs) {
  if (desc.numBands != 0) return desc.frameLen();
  constexpr int kUnstated = static_cast<int>(MelDeltasNorm::kLength);
  return framesMakeInputs(desc, kUnstated, numInputs) ? kUnstated : 0;
}

}  // namespace mlnn
